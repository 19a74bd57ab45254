// Says where a soak stands when its process goes down: which seed, which call, which entry, and how to see it again.
#pragma once

#include <cstdint>

namespace soak {

struct Position {
  std::uint64_t seed;   // of the sequence
  std::uint32_t call;   // in the sequence, 1 for the first
  const char* entry;    // the table's slot
  const char* options;  // of the run, for the replay line
};

// Installs the handler of last resort for crashes, takes the DLL's way to abort() and exit() over, and starts the
// watchdog, for which a call that takes a minute or two hangs. From the DLL's next load on.
void StartWatch();
// Where the run stands now; also what the watchdog sees as progress.
void SetPosition(const Position& position);
// Nothing is under way: the watchdog looks away until the next SetPosition.
void SetIdle();
// One line: "seed 12, call 34 (SignHash); replay with soak_tests.exe --seed 12 --calls 100".
void PrintPosition(const char* what);

}  // namespace soak
