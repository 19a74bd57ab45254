// How a command ends: exit statuses, and what is thrown when it cannot do what was asked.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace keldactl {

// What the process ends with; scripts rely on the numbers.
enum class ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,           // the command line was not understood
  kNotFound = 3,        // no such key, file, provider, reader or token
  kCancelled = 4,       // by the user, in a dialog or at a question
  kAccessDenied = 5,    // rights, a wrong or locked PIN, a usage that the key does not allow
  kWrongSignature = 6,  // a signature that does not belong to data and key
};

// An operation that failed. What the user can do about it, if anything, is told in a line of its own behind the
// message.
class Failure : public std::exception {
 public:
  explicit Failure(std::wstring message, ExitStatus exit_status = ExitStatus::kFailed)
      : message_(std::move(message)), exit_status_(exit_status) {}
  // "<operation> failed: NAME (0x…): meaning", with the exit status and the advice that go with the status.
  Failure(const std::wstring& operation, long status);

  // Replaces the advice; sentences with their full stops.
  Failure& Advise(std::wstring advice) {
    advice_ = std::move(advice);
    return *this;
  }
  // Replaces the exit status.
  Failure& EndWith(ExitStatus exit_status) {
    exit_status_ = exit_status;
    return *this;
  }

  const std::wstring& message() const { return message_; }
  const std::wstring& advice() const { return advice_; }
  ExitStatus exit_status() const { return exit_status_; }
  // 0 when the failure did not come with a status.
  long status() const { return status_; }
  const char* what() const noexcept override { return "keldactl::Failure"; }

 private:
  std::wstring message_;
  std::wstring advice_;
  ExitStatus exit_status_;
  long status_ = 0;
};

// A command line that does not make sense; ends with kUsage.
class UsageError : public std::exception {
 public:
  explicit UsageError(std::wstring message) : message_(std::move(message)) {}
  const std::wstring& message() const { return message_; }
  const char* what() const noexcept override { return "keldactl::UsageError"; }

 private:
  std::wstring message_;
};

}  // namespace keldactl
