// Random sequences of calls to the provider's entries, and what has to hold after each of them.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "soak/heap.h"

namespace soak {

inline constexpr std::uint32_t kCallsOfASequence = 100;

struct Options {
  HeapKind heap = HeapKind::Plain;
  // Of so many sequences one works on a token whose PIN is not cached yet; dialogs take their time.
  std::uint32_t dialogsOneIn = 40;
  // After so many sequences the provider is unloaded and loaded again; 0: never.
  std::uint32_t reloadAfter = 0;
};

// What a run has seen, to tell a soak from a walk along the first checks.
struct Tally {
  std::uint64_t calls = 0;
  std::uint64_t dialogs = 0;
  std::uint64_t reloads = 0;
  std::uint64_t excused = 0;                  // blocks that are known to stay behind
  std::array<std::uint64_t, 27> succeeded{};  // by slot; the last is GetKeyStorageInterface
  std::array<std::uint64_t, 27> refused{};
};

// Puts heap, platform and token of the soak in front of the provider, from its next load on.
void InstallHarness(HeapKind heap);

class Soak {
 public:
  // Loads the provider behind the stand-ins and makes the PIN cache know the tokens of the sequences.
  explicit Soak(const Options& options);
  ~Soak();
  Soak(const Soak&) = delete;
  Soak& operator=(const Soak&) = delete;

  // One sequence. Returns what was found wrong, empty for nothing.
  std::string RunSequence(std::uint64_t seed, std::uint32_t calls = kCallsOfASequence);
  // Sequences with seed, seed + 1, ... until so many calls are made, or one finds something.
  std::string Run(std::uint64_t seed, std::uint64_t calls);
  // Unloads the provider and loads it again. Returns what it has kept of the process beyond what has to stay (indexes
  // and handles: more than after the first time), empty for nothing.
  std::string Reload();
  const Tally& tally() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace soak
