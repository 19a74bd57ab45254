#include "keldactl/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace keldactl {
namespace {

// Looks at memory in the moment in which it is given back.
struct Watch {
  static inline std::size_t released = 0;
  static inline std::size_t not_wiped = 0;
};

template <typename T>
struct WatchedMemory {
  using value_type = T;
  WatchedMemory() = default;
  template <typename Other>
  explicit WatchedMemory(const WatchedMemory<Other>& /*other*/) {}

  T* allocate(std::size_t count) {
    T* memory = std::allocator<T>().allocate(count);
    std::fill_n(memory, count, T{0xAA});
    return memory;
  }
  void deallocate(T* memory, std::size_t count) {
    Watch::released += count;
    Watch::not_wiped +=
        static_cast<std::size_t>(count) - static_cast<std::size_t>(std::count(memory, memory + count, T{0}));
    std::allocator<T>().deallocate(memory, count);
  }
};

using WatchedBytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t, WatchedMemory<std::uint8_t>>>;

class BytesTest : public testing::Test {
 protected:
  void SetUp() override { Watch::released = Watch::not_wiped = 0; }
};

TEST_F(BytesTest, AreWipedAtTheirEnd) {
  { const WatchedBytes secret(100, 0x5A); }
  EXPECT_EQ(Watch::released, 100u);
  EXPECT_EQ(Watch::not_wiped, 0u);
}

TEST_F(BytesTest, LeaveNothingBehindWhenTheyGrow) {
  WatchedBytes secret;
  for (int i = 0; i < 1000; ++i)
    secret.push_back(0x5A);
  EXPECT_GE(Watch::released, 500u);
  EXPECT_EQ(Watch::not_wiped, 0u);
}

TEST_F(BytesTest, AreWipedBeyondAShorterSize) {
  {
    WatchedBytes secret(100, 0x5A);
    secret.resize(10);
  }
  EXPECT_EQ(Watch::released, 100u);
  EXPECT_EQ(Watch::not_wiped, 0u);
}

TEST_F(BytesTest, AreWipedWhenOthersTakeTheirPlace) {
  WatchedBytes secret(100, 0x5A);
  secret = WatchedBytes(20, 0x5A);
  EXPECT_EQ(Watch::released, 100u);
  EXPECT_EQ(Watch::not_wiped, 0u);
}

TEST_F(BytesTest, AreBytesLikeAnyOther) {
  const Bytes one = {1, 2, 3};
  Bytes other(one.begin(), one.end());
  EXPECT_EQ(one, other);
  other.push_back(4);
  EXPECT_NE(one, other);
}

}  // namespace
}  // namespace keldactl
