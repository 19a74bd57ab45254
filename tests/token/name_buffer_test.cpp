#include "token/name_buffer.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t kRefused = static_cast<std::size_t>(-1);

// Bytes of the name; kRefused when there is none.
std::size_t Measured(const Bytes& data) {
  std::size_t cbName = kRefused;
  return MeasureName(data.data(), data.size(), cbName) ? cbName : kRefused;
}

TEST(MeasureName, EndsAtTheTerminator) {
  EXPECT_EQ(Measured({'K', 0, '1', 0, 0, 0}), 4u);
  EXPECT_EQ(Measured({'K', 0, 0, 0, 'x', 0, 0, 0}), 2u);
  EXPECT_EQ(Measured({0, 0}), 0u);
}

// The zero byte asked for may be any byte: the high half of a Latin letter is one.
TEST(MeasureName, WithoutATerminatorReachesToTheEnd) {
  EXPECT_EQ(Measured({'K', 0}), 2u);
  EXPECT_EQ(Measured({'K', 0, '1', 0}), 4u);
  EXPECT_EQ(Measured({0, 1}), 2u);
}

TEST(MeasureName, TwoZeroBytesOfDifferentCharactersAreNoTerminator) {
  EXPECT_EQ(Measured({'K', 0, 0, 1, 0, 0}), 4u);
}

TEST(MeasureName, AnOddLastByteBelongsToTheName) {
  EXPECT_EQ(Measured({'K', 0, '1'}), 3u);
  EXPECT_EQ(Measured({'K', 1, 0}), 3u) << "half a terminator is none";
  EXPECT_EQ(Measured({'K', 0, 0, 0, 'x'}), 2u);
}

TEST(MeasureName, WithoutAZeroByteThereIsNoName) {
  EXPECT_EQ(Measured({0x20, 0x4E}), kRefused);
  EXPECT_EQ(Measured({0xAC, 0x20, 0xAC, 0x20, 0x41}), kRefused);
}

}  // namespace
