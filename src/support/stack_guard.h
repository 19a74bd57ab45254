// Canaries on the stack: each function with an array on its stack (-fstack-protector-strong) puts the guard behind it
// and compares the two before it returns. GCC's own library for that asks Windows' cryptography for a random number
// while the DLL is being loaded, when nothing else may be loaded, and tells of an overrun in a box that nobody may see.
#pragma once

#include <cstdint>

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {
// The compiler's names. The guard is another number in each process, and in each load of this DLL.
extern std::uintptr_t __stack_chk_guard;
// An array was overrun: ends the process at once, by Windows' own way for this (0xC0000409). Nothing of the process is
// run any more, neither handlers nor destructors, and nothing is shown or logged.
[[noreturn]] void __stack_chk_fail() noexcept;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
