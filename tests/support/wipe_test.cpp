#include "support/wipe.h"

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

TEST(SecureWipe, ZeroesExactlyTheSize) {
  Bytes bytes(10, 0xAA);
  SecureWipe(bytes.data() + 2, 5);
  EXPECT_EQ(bytes, (Bytes{0xAA, 0xAA, 0, 0, 0, 0, 0, 0xAA, 0xAA, 0xAA}));
}

TEST(SecureWipe, IgnoresNullAndNothing) {
  SecureWipe(nullptr, 5);
  unsigned char byte = 0xAA;
  SecureWipe(&byte, 0);
  EXPECT_EQ(byte, 0xAA);
}

// An element for which there is no memory.
struct Unavailable {
  unsigned char value;

  static void* operator new[](std::size_t) { throw std::bad_alloc(); }
  static void* operator new[](std::size_t, const std::nothrow_t&) noexcept { return nullptr; }
};

// An element whose release is watched. The number of elements is not handed to the release of a trivially destructible
// array, so that the tests say it.
struct Recorder {
  static inline std::size_t count = 0;
  static inline std::vector<std::uint32_t> released;
};

struct Element {
  std::uint32_t value;

  static void* operator new[](std::size_t size) { return ::operator new[](size); }
  static void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return ::operator new[](size, std::nothrow);
  }
  static void operator delete[](void* block) {
    const auto* values = static_cast<const Element*>(block);
    for (std::size_t i = 0; i < Recorder::count; ++i)
      Recorder::released.push_back(values[i].value);
    ::operator delete[](block);
  }
};

class WipedArrayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Recorder::released.clear();
    Recorder::count = 3;
  }
  static WipedArray<Element> Filled() {
    WipedArray<Element> array(3);
    for (std::size_t i = 0; i < array.size(); ++i)
      array[i].value = 0x11111111;
    return array;
  }
  static void ExpectReleasedWiped(std::size_t times = 1) {
    EXPECT_EQ(Recorder::released, std::vector<std::uint32_t>(3 * times, 0));
  }
};

TEST_F(WipedArrayTest, StartsZeroed) {
  const WipedArray<Element> array(3);
  EXPECT_FALSE(array.empty());
  EXPECT_EQ(array.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_EQ(array[i].value, 0u);
}

TEST_F(WipedArrayTest, DefaultIsEmpty) {
  const WipedArray<Element> array;
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(array.size(), 0u);
  EXPECT_EQ(array.data(), nullptr);
}

// A component of length 0 is there nevertheless.
TEST_F(WipedArrayTest, AnArrayOfNothingIsNotEmpty) {
  EXPECT_FALSE(WipedBytes(0).empty());
  EXPECT_FALSE(WipedBytes::Try(0).empty());
  EXPECT_EQ(WipedBytes::Try(0).size(), 0u);
}

TEST_F(WipedArrayTest, DestructorWipesBeforeItReleases) {
  { const WipedArray<Element> array = Filled(); }
  ExpectReleasedWiped();
}

TEST_F(WipedArrayTest, ResetWipesBeforeItReleases) {
  WipedArray<Element> array = Filled();
  array.Reset();
  ExpectReleasedWiped();
  EXPECT_TRUE(array.empty());
  array.Reset();
  ExpectReleasedWiped();
}

TEST_F(WipedArrayTest, MovedFromIsEmptyAndTheTargetsOldContentIsWiped) {
  WipedArray<Element> target = Filled();
  WipedArray<Element> source = Filled();
  const Element* const data = source.data();
  target = std::move(source);
  ExpectReleasedWiped();
  EXPECT_EQ(target.data(), data);
  EXPECT_EQ(target[2].value, 0x11111111u);
  const WipedArray<Element> third(std::move(target));
  EXPECT_EQ(third.data(), data);
  EXPECT_EQ(third.size(), 3u);
  ExpectReleasedWiped();
}

TEST_F(WipedArrayTest, MoveToItselfKeepsTheContent) {
  WipedArray<Element> array = Filled();
  WipedArray<Element>& same = array;
  array = std::move(same);
  ASSERT_EQ(array.size(), 3u);
  EXPECT_EQ(array[0].value, 0x11111111u);
  EXPECT_TRUE(Recorder::released.empty());
}

TEST_F(WipedArrayTest, AssignCopiesAndWipesTheOldContent) {
  WipedArray<Element> array = Filled();
  const Element fresh[3] = {{1}, {2}, {3}};
  array.Assign(fresh, 3);
  ExpectReleasedWiped();
  EXPECT_EQ(array[0].value, 1u);
  EXPECT_EQ(array[2].value, 3u);
}

TEST_F(WipedArrayTest, AssignFromItsOwnContent) {
  WipedArray<Element> array = Filled();
  array[1].value = 7;
  array.Assign(array.data() + 1, 2);
  ASSERT_EQ(array.size(), 2u);
  EXPECT_EQ(array[0].value, 7u);
  Recorder::count = 2;
}

TEST_F(WipedArrayTest, ReleaseGivesTheMemoryAway) {
  WipedArray<Element> array = Filled();
  Element* const data = array.Release();
  EXPECT_TRUE(array.empty());
  EXPECT_TRUE(Recorder::released.empty());
  EXPECT_EQ(data[0].value, 0x11111111u);
  delete[] data;
}

TEST_F(WipedArrayTest, TryWithoutMemoryIsEmpty) {
  const auto array = WipedArray<Unavailable>::Try(3);
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(array.size(), 0u);
}

TEST_F(WipedArrayTest, WithoutMemoryTheConstructorThrows) {
  EXPECT_THROW(WipedArray<Unavailable>(3), std::bad_alloc);
}

}  // namespace
