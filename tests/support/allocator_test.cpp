// The allocator and its reserve. In the product the linker puts __wrap_malloc and the others in malloc's place; here
// they are called by these names, and what they stand on is this file's.
#include "support/allocator.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>

#include <gtest/gtest.h>

#include "support/limits.h"
#include "support/wrapped_malloc.h"

// Clang knows the sized ones only when told to.
void operator delete(void* block, std::size_t size) noexcept;
void operator delete[](void* block, std::size_t size) noexcept;

namespace {

constexpr std::size_t kReserved = 128;  // blocks
constexpr std::size_t kReservedBytes = 512;

bool g_NothingLeft = false;
std::size_t g_LastSize = 0;
const void* g_LastFreed = nullptr;

// Nothing but the calls under test may allocate while one of these lives.
class NothingLeft {
 public:
  NothingLeft() { g_NothingLeft = true; }
  ~NothingLeft() { g_NothingLeft = false; }
  NothingLeft(const NothingLeft&) = delete;
  NothingLeft& operator=(const NothingLeft&) = delete;
};

bool IsAligned(const void* block) {
  return reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t) == 0;
}

}  // namespace

void* __real_malloc(std::size_t size) {
  g_LastSize = size;
  return g_NothingLeft ? nullptr : std::malloc(size);
}
void* __real_calloc(std::size_t count, std::size_t size) {
  return g_NothingLeft ? nullptr : std::calloc(count, size);
}
void* __real_realloc(void* block, std::size_t size) {
  return g_NothingLeft ? nullptr : std::realloc(block, size);
}
void __real_free(void* block) {
  g_LastFreed = block;
  std::free(block);
}

namespace {

TEST(AllocatorTest, NoBlockIsLargerThanAnHonestCallAsksFor) {
  static_assert(kLargestBlock == 0x03FFFFFF);
  void* block = ::operator new(kLargestBlock, std::nothrow);
  EXPECT_NE(block, nullptr);
  ::operator delete(block, std::nothrow);
  EXPECT_EQ(::operator new(kLargestBlock + 1, std::nothrow), nullptr);
  EXPECT_EQ(::operator new[](kLargestBlock + 1, std::nothrow), nullptr);
  EXPECT_THROW(::operator delete(::operator new(kLargestBlock + 1)), std::bad_alloc);
  EXPECT_THROW(::operator delete[](::operator new[](kLargestBlock + 1)), std::bad_alloc);
}

TEST(AllocatorTest, NothingLeftIsToldAndTheReserveIsNotForNew) {
  void* plain = nullptr;
  void* array = nullptr;
  {
    const NothingLeft nothing;
    plain = ::operator new(1, std::nothrow);
    array = ::operator new[](1, std::nothrow);
  }
  EXPECT_EQ(plain, nullptr);
  EXPECT_EQ(array, nullptr);
}

TEST(AllocatorTest, NoBytesAreABlockToo) {
  void* first = ::operator new(0);
  EXPECT_EQ(g_LastSize, 1u);
  void* second = ::operator new(0);
  EXPECT_NE(first, second);
  ::operator delete(first);
  ::operator delete (second, std::size_t{0});
}

// That they release is seen by the leak detector.
TEST(AllocatorTest, EachDeleteReleases) {
  ::operator delete(::operator new(3));
  ::operator delete (::operator new(3), std::size_t{3});
  ::operator delete(::operator new(3), std::nothrow);
  ::operator delete[](::operator new[](3));
  ::operator delete[](::operator new[](3), std::size_t{3});
  ::operator delete[](::operator new[](3), std::nothrow);
}

TEST(AllocatorTest, BlocksFromMallocAndNewHaveOneHeap) {
  void* block = AllocateBlock(5);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(g_LastSize, 5u);
  ::operator delete(block);
}

TEST(AllocatorTest, TheReserveStandsInWhereNothingIsLeft) {
  std::array<void*, kReserved + 1> blocks{};
  void* tooLarge = nullptr;
  {
    const NothingLeft nothing;
    tooLarge = __wrap_malloc(kReservedBytes + 1);
    for (void*& block : blocks) {
      block = __wrap_malloc(kReservedBytes);
      if (block != nullptr) std::memset(block, 0xEE, kReservedBytes);
    }
  }
  EXPECT_EQ(tooLarge, nullptr);
  EXPECT_EQ(blocks[kReserved], nullptr) << "the reserve has an end";
  std::set<std::uintptr_t> places;
  for (std::size_t i = 0; i < kReserved; ++i) {
    ASSERT_NE(blocks[i], nullptr) << i;
    EXPECT_TRUE(IsAligned(blocks[i])) << i;
    places.insert(reinterpret_cast<std::uintptr_t>(blocks[i]));
  }
  ASSERT_EQ(places.size(), kReserved);
  std::uintptr_t before = 0;
  for (const std::uintptr_t place : places) {
    EXPECT_GE(place - before, kReservedBytes) << "blocks overlap";
    before = place;
  }

  // Released, each can be had again, and by itself.
  g_LastFreed = nullptr;
  __wrap_free(blocks[77]);
  void* again = nullptr;
  void* none = nullptr;
  {
    const NothingLeft nothing;
    again = __wrap_malloc(1);
    none = __wrap_malloc(1);
  }
  EXPECT_EQ(again, blocks[77]);
  EXPECT_EQ(none, nullptr);
  for (std::size_t i = 0; i < kReserved; ++i)
    __wrap_free(blocks[i]);
  EXPECT_EQ(g_LastFreed, nullptr) << "the heap was given a block of the reserve";
}

TEST(AllocatorTest, TheHeapComesFirst) {
  void* block = __wrap_malloc(10);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(g_LastSize, 10u);
  __wrap_free(block);
  EXPECT_EQ(g_LastFreed, block);
  auto* cleared = static_cast<unsigned char*>(__wrap_calloc(2, 600));
  ASSERT_NE(cleared, nullptr);
  EXPECT_EQ(cleared[1199], 0);
  __wrap_free(cleared);
  EXPECT_EQ(g_LastFreed, cleared);
}

TEST(AllocatorTest, ClearedBlocksOfTheReserveAreClear) {
  void* dirty = nullptr;
  unsigned char* clear = nullptr;
  {
    const NothingLeft nothing;
    dirty = __wrap_malloc(kReservedBytes);
    if (dirty != nullptr) std::memset(dirty, 0xEE, kReservedBytes);
    __wrap_free(dirty);
    clear = static_cast<unsigned char*>(__wrap_calloc(4, kReservedBytes / 4));
  }
  ASSERT_EQ(dirty, clear);
  for (std::size_t i = 0; i < kReservedBytes; ++i)
    ASSERT_EQ(clear[i], 0) << i;
  __wrap_free(clear);
}

TEST(AllocatorTest, ClearedBlocksOfTooManyBytesAreRefused) {
  void* large = &large;
  void* wrapped = &wrapped;
  void* none = nullptr;
  {
    const NothingLeft nothing;
    large = __wrap_calloc(3, kReservedBytes / 3 + 1);
    wrapped = __wrap_calloc(SIZE_MAX / 2 + 2, 2);  // 2 bytes, were it to wrap around
    none = __wrap_calloc(0, SIZE_MAX);
  }
  EXPECT_EQ(large, nullptr);
  EXPECT_EQ(wrapped, nullptr);
  EXPECT_NE(none, nullptr);
  __wrap_free(none);
}

TEST(AllocatorTest, GrowingKeepsTheBytesWhereverTheyAre) {
  auto* block = static_cast<unsigned char*>(__wrap_realloc(nullptr, 4));
  ASSERT_NE(block, nullptr);
  std::memcpy(block, "abcd", 4);
  block = static_cast<unsigned char*>(__wrap_realloc(block, 4000));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::memcmp(block, "abcd", 4), 0);
  __wrap_free(block);

  unsigned char* reserved = nullptr;
  void* refused = nullptr;
  unsigned char* smaller = nullptr;
  {
    const NothingLeft nothing;
    reserved = static_cast<unsigned char*>(__wrap_malloc(kReservedBytes));
    if (reserved != nullptr) {
      for (std::size_t i = 0; i < kReservedBytes; ++i)
        reserved[i] = static_cast<unsigned char>(i);
    }
    refused = __wrap_realloc(reserved, kReservedBytes + 1);
    smaller = static_cast<unsigned char*>(__wrap_realloc(reserved, 2));
  }
  ASSERT_NE(reserved, nullptr);
  EXPECT_EQ(refused, nullptr);
  ASSERT_NE(smaller, nullptr);
  EXPECT_EQ(smaller[1], 1);

  // Its old block is free again; to the heap it goes with all that it can hold.
  void* taken = nullptr;
  {
    const NothingLeft nothing;
    taken = __wrap_malloc(1);
  }
  EXPECT_EQ(taken, reserved);
  std::memset(taken, 0x5A, kReservedBytes);
  auto* grown = static_cast<unsigned char*>(__wrap_realloc(taken, kReservedBytes + 100));
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(g_LastSize, kReservedBytes + 100);
  for (std::size_t i = 0; i < kReservedBytes; ++i)
    ASSERT_EQ(grown[i], 0x5A) << i;
  __wrap_free(grown);
  EXPECT_EQ(g_LastFreed, grown);
  __wrap_free(smaller);
}

}  // namespace
