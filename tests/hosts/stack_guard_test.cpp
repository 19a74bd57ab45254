// An array on the stack that is overrun ends the process before the function returns. This file is compiled as the
// products are, with their guard (support/stack_guard.cpp).
#include "support/stack_guard.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "kit/process.h"

namespace {

// What the compiler cannot see through: it would warn, or leave the overrun out.
void* (*volatile g_Fill)(void*, int, std::size_t) = &std::memset;
volatile std::size_t g_Size = 16;

// The guard lies between the array and where the function returns to. The bytes behind it are not this test's: only as
// much is written as surely meets the guard.
__attribute__((noinline)) int Use(std::size_t size) {
  char array[16];
  g_Fill(array, 'A', size);
  return array[g_Size - 1];
}

__attribute__((noinline)) int ThrowThrough(std::size_t size) {
  char array[16];
  g_Fill(array, 'A', size);
  if (array[g_Size - 1] == 'A') throw std::runtime_error("thrown");
  return array[0];
}

int Overrun() {
  kit::Print("before");
  const int result = Use(g_Size + 24);
  kit::Print("the function has returned " + std::to_string(result));
  return 1;
}
const kit::Scenario kOverrun("stack_guard_overrun", &Overrun);

// The guard is made before this constructor runs, and is not changed after it.
struct Early {
  Early() noexcept : guard(__stack_chk_guard) {}
  std::uintptr_t guard;
};
const Early g_Early;

const kit::Scenario kTell("stack_guard_tell", [] {
  if (g_Early.guard != __stack_chk_guard) return 1;
  kit::Print(std::to_string(__stack_chk_guard));
  return 0;
});

TEST(StackGuard, AnOverrunEndsTheProcessAtOnce) {
  const kit::ChildResult child = kit::RunChild("stack_guard_overrun");
  EXPECT_EQ(child.exitCode, 0xC0000409UL);
  EXPECT_EQ(child.lines, (std::vector<std::string>{"before"}));
}

TEST(StackGuard, AnArrayThatIsFilledIsNoOverrun) {
  EXPECT_EQ(Use(g_Size), 'A');
}

TEST(StackGuard, ExceptionsPassGuardedFunctions) {
  EXPECT_THROW(ThrowThrough(g_Size), std::runtime_error);
  EXPECT_EQ(Use(g_Size), 'A');
}

TEST(StackGuard, EachProcessHasItsOwn) {
  constexpr int kProcesses = 3;
  std::string last = std::to_string(__stack_chk_guard);
  for (int i = 0; i < kProcesses; ++i) {
    const kit::ChildResult child = kit::RunChild("stack_guard_tell");
    ASSERT_EQ(child.exitCode, 0u) << "the guard has changed after the first constructors";
    ASSERT_EQ(child.lines.size(), 1u);
    EXPECT_NE(child.lines[0], last);
    last = child.lines[0];
  }
}

#ifdef _WIN64
TEST(StackGuard, TheFirstByteEndsAText) {
  EXPECT_EQ(__stack_chk_guard & 0xFF, 0u);
  EXPECT_NE(__stack_chk_guard, 0u);
}
#endif

}  // namespace
