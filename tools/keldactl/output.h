// What keldactl says. Text goes to a console as it is and into files and pipes as UTF-8.
#pragma once

#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace keldactl {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// An operation that failed; its message names the operation and the status.
class Failure : public std::exception {
 public:
  explicit Failure(std::wstring message) : message_(std::move(message)) {}
  Failure(const std::wstring& operation, long status);
  const std::wstring& message() const { return message_; }
  // 0 when the failure did not come with a status.
  long status() const { return status_; }
  const char* what() const noexcept override { return "keldactl::Failure"; }

 private:
  std::wstring message_;
  long status_ = 0;
};

// A command line that does not make sense.
class UsageError : public std::exception {
 public:
  explicit UsageError(std::wstring message) : message_(std::move(message)) {}
  const std::wstring& message() const { return message_; }
  const char* what() const noexcept override { return "keldactl::UsageError"; }

 private:
  std::wstring message_;
};

// One line on standard output, and on standard error; the line end is added.
void Say(std::wstring_view line);
void Complain(std::wstring_view line);
// Text on standard error as it is, for progress.
void Murmur(std::wstring_view text);

// Rows in columns that line up; the first row is the heading.
void SayTable(const std::vector<std::vector<std::wstring>>& rows);

// Asks on the console; true only for an answer that begins with y or Y.
bool Confirm(std::wstring_view question);

// A name as it can be shown on one line: characters that do not print appear as \xNN or \uNNNN.
std::wstring Printable(std::wstring_view name);
// The name in quotes.
std::wstring Quoted(std::wstring_view name);

}  // namespace keldactl
