// What the token maker's module tells about itself and its tokens, without a login. It is asked in a process of its
// own: a module may take the whole process down, and cannot be initialized twice in one.
#pragma once

#include "json_fwd.h"

#include <cstdint>
#include <string>
#include <vector>

namespace keldactl {

struct TokenReport {
  std::string slot;
  std::string label;
  bool initialized = false;
  bool pin_set = false;
  bool pin_count_low = false;
  bool pin_last_try = false;
  bool pin_locked = false;
  // The identifiers (CKA_ID) of what everybody may see on it, in hexadecimal digits.
  std::vector<std::string> public_keys;
  std::vector<std::string> private_keys;
  std::vector<std::string> certificates;
};

enum class ModuleEnd { kAnswered, kCrashed, kHung };

struct ModuleReport {
  bool found = false;  // a file of that name is where programs look
  bool loaded = false;
  std::uint32_t load_error = 0;  // of Windows
  bool has_entry = false;        // C_GetFunctionList
  // Return values of the module (CKR_…); 0 is success.
  std::uint32_t list_status = 0;
  std::uint32_t initialize_status = 0;
  bool initialized = false;
  std::string description;  // what the library calls itself, with its version
  std::uint32_t slots = 0;
  std::vector<TokenReport> tokens;
  ModuleEnd end = ModuleEnd::kAnswered;  // how its process ended; if early, nothing else is known
  std::uint32_t exit_code = 0;           // of that process
};

// Starts a process that examines it ("keldactl check --token-module --answer-to HANDLE") and waits for it, a minute at
// most.
ModuleReport ExamineTokenModuleApart();
// What that process does: examines the module and writes the report as JSON into the pipe, a handle that it inherited.
bool AnswerAboutTokenModule(std::uint64_t handle);

// How the process ended that did not answer.
std::wstring EndInWords(const ModuleReport& report);

Json ToJson(const ModuleReport& report);
ModuleReport ModuleReportFrom(const Json& json);

// The identifier of a key as the report spells it: identifiers are compared up to the first zero byte, as key names
// are.
bool Holds(const std::vector<std::string>& identifiers, const std::string& key_hex);

}  // namespace keldactl
