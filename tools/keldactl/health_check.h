// Whether everything from the provider's registration to a verified signature works, step by step.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace keldactl {

enum class Verdict {
  kOk,
  kWarning,
  kFailed,
  kSkipped  // an earlier step failed without which this one cannot be taken
};

struct HealthStep {
  int number = 0;
  std::string id;  // for scripts; the same in every version
  std::wstring title;
  Verdict verdict = Verdict::kOk;
  std::wstring details;  // what was seen
  std::wstring advice;   // what to do about it; every failure has one
};

struct HealthCheckOptions {
  std::optional<std::wstring> key;  // look at this key only
  bool sign = false;                // log in and sign with it
};

// Takes the steps and hands each to `tell` when it is done. Only with signing may
// dialogs come up. Returns true when no step failed.
bool CheckHealth(const HealthCheckOptions& options, const std::function<void(const HealthStep&)>& tell);

}  // namespace keldactl
