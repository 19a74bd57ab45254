#include "support/stack_guard.h"

#include "support/windows.h"

namespace {

// The last step of Sebastiano Vigna's SplitMix64: each bit of the result depends on each bit of the argument.
__attribute__((no_stack_protector)) std::uint64_t Mix(std::uint64_t value) noexcept {
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
  return value ^ (value >> 31);
}

// What another process cannot know exactly: the clocks, and where the loader has put stack, module and platform.
__attribute__((no_stack_protector)) std::uintptr_t MakeGuard() noexcept {
  FILETIME time = {};
  GetSystemTimeAsFileTime(&time);
  LARGE_INTEGER counter = {};
  QueryPerformanceCounter(&counter);
  const std::uint64_t sources[] = {
      (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime,
      static_cast<std::uint64_t>(counter.QuadPart),
      GetTickCount64(),
      (std::uint64_t{GetCurrentProcessId()} << 32) | GetCurrentThreadId(),
      reinterpret_cast<std::uintptr_t>(&time),
      reinterpret_cast<std::uintptr_t>(&__stack_chk_guard),
      reinterpret_cast<std::uintptr_t>(&GetSystemTimeAsFileTime),
  };
  std::uint64_t mixed = 0;
  for (const std::uint64_t source : sources)
    mixed = Mix(mixed + source);
  auto guard = static_cast<std::uintptr_t>(mixed);
  // The first byte ends a text: a text that is copied too far cannot carry the guard. 32 bits are too few to spare it.
  if constexpr (sizeof(guard) == 8) guard &= ~std::uintptr_t{0xFF};
  return guard;
}

}  // namespace

extern "C" {

// Good enough until the guard is made: the start-up code before that handles nothing of anybody's.
std::uintptr_t __stack_chk_guard = 0xBB40E64E;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Before all other constructors (lower priorities belong to the compiler), which are the first code of ours that runs.
// No function that is under way here has looked at the old guard: the start-up code is the compiler's, and unprotected.
__attribute__((constructor(101), no_stack_protector)) static void InitialiseGuard() {
  __stack_chk_guard = MakeGuard();
}

// Not counted when lines are: the counts would end with the process.
__attribute__((no_stack_protector, no_profile_instrument_function)) void __stack_chk_fail() noexcept {
  constexpr unsigned kStackCookieCheckFailure = 2;  // FAST_FAIL_STACK_COOKIE_CHECK_FAILURE
  // __fastfail(), without its promise that it does not come back: that is so from Windows 8 on.
  __asm__ volatile("int $0x29" : : "c"(kStackCookieCheckFailure) : "memory");
  for (;;)
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(STATUS_STACK_BUFFER_OVERRUN));
}

}  // extern "C"
