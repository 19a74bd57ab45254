// Calls that fail: the plan of one entry call says which of the DLL's allocations, platform calls and token calls fail,
// or lie.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "soak/random.h"

namespace soak {

enum class Fault { Allocation, Platform, Token, Lie };
inline constexpr std::size_t kFaultKinds = 4;

class Faults {
 public:
  static Faults& Get();

  // Plans the faults of the next call on this thread: none, the nth call of one kind, or a share of all calls.
  void Plan(Random& random);
  // The nth call of the kind fails (1 = the next one).
  void PlanOne(Fault kind, std::uint32_t nth);
  // Every call of the kind fails until Clear.
  void PlanAll(Fault kind);
  // No fault from now on.
  void Clear();
  // VirtualLock is left alone unless this is set: a PIN whose page cannot be locked again is gone for the process.
  void AllowLockFaults(bool allowed) { lockFaults_ = allowed; }
  bool lockFaults() const { return lockFaults_; }

  // Whether the call that is being made fails. Never on another thread than the one that planned.
  bool Fail(Fault kind);
  Random& random() { return random_; }
  // Faults of the kind that were played so far.
  std::uint64_t Played(Fault kind) const { return played_[static_cast<std::size_t>(kind)]; }

 private:
  std::atomic<unsigned long> thread_{0};
  std::array<std::uint32_t, kFaultKinds> countdown_{};
  std::array<bool, kFaultKinds> all_{};
  std::uint32_t share_ = 0;
  Random random_;
  bool lockFaults_ = false;
  std::array<std::uint64_t, kFaultKinds> played_{};
};

// What a soak's platform answers. Read by the stand-ins below.
struct PlatformSettings {
  std::wstring logFile = L"soak.log";  // "KSPDIR"
  bool realFile = false;               // whether the log is written to that file, or only looked at
  bool keepLines = false;              // whether the debugger's lines are kept for TakeLines
  const wchar_t* pinCache = nullptr;   // "PINCACHE"; null when it is missing
  std::uint32_t keyLength = 2048;      // "Default Key Length"
  bool sdkKey = true;                  // whether the key of "dwUseProviderCache" opens
  int providerCache = -1;              // "dwUseProviderCache"; -1 when it is missing
  std::wstring readers;                // the card service's multi-string, its last zero left out
};
PlatformSettings& Platform();

// Puts a fault in front of every platform call that can fail, and stand-ins in the place of those that would make a
// million calls slow or would pile up what the provider is known not to release (registry, card service, random
// numbers, debugger). From the DLL's next load on.
void InstallPlatform();
// Puts a fault in front of every function of the fake token module.
void InstallToken();

// Called in the place of DialogBoxParamW: runs `open`, which shows the dialog, and answers the dialog meanwhile.
using DialogAnswer = std::function<std::intptr_t(const std::function<std::intptr_t()>& open)>;
void SetDialogAnswer(DialogAnswer answer);

// The first debugger line or file line with a PIN in it since the last call; empty for none.
std::string TakeLeakedLine();
std::vector<std::string> TakeLines();

}  // namespace soak
