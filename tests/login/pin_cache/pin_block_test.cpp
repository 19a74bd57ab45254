#include "login/pin_cache/pin_block.h"

#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Packed(const Bytes& pin) {
  Bytes block(pinblock::BlockLength(pin.size()));
  pinblock::Pack(block.data(), pin.data(), pin.size());
  return block;
}

Bytes Unpacked(const Bytes& block) {
  Bytes pin(pinblock::PinLength(block.data()), 0xEE);
  pinblock::Unpack(pin.data(), block.data(), block.size());
  return pin;
}

Bytes Counting(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<unsigned char>(i + 1);
  return bytes;
}

TEST(PinBlock, LengthIsTheNextMultipleOfSixteenAboveThePinAndItsHeader) {
  for (std::size_t cbPin = 0; cbPin <= 13; ++cbPin)
    EXPECT_EQ(pinblock::BlockLength(cbPin), 16u) << cbPin;
  for (std::size_t cbPin = 14; cbPin <= 29; ++cbPin)
    EXPECT_EQ(pinblock::BlockLength(cbPin), 32u) << cbPin;
  EXPECT_EQ(pinblock::BlockLength(30), 48u);
  EXPECT_EQ(pinblock::BlockLength(255), 272u);
}

TEST(PinBlock, APinThatFillsItsBlockGetsAWholeBlockOfZerosMore) {
  const Bytes pin = Counting(14);
  const Bytes block = Packed(pin);
  ASSERT_EQ(block.size(), 32u);
  EXPECT_TRUE(std::equal(pin.begin(), pin.end(), block.begin() + 2));
  EXPECT_EQ(Bytes(block.begin() + 16, block.end()), Bytes(16, 0));
}

TEST(PinBlock, LengthThatCannotBeHeldIsZero) {
  constexpr std::size_t kMax = std::numeric_limits<std::size_t>::max();
  EXPECT_EQ(pinblock::BlockLength(kMax), 0u);
  EXPECT_EQ(pinblock::BlockLength(kMax - 17), 0u);
  EXPECT_EQ(pinblock::BlockLength(kMax - 18), kMax - 15);
}

TEST(PinBlock, HoldsMarkerLengthPinAndZeros) {
  EXPECT_EQ(Packed({'1', '2', '3', '4'}), (Bytes{0x81, 4, '1', '2', '3', '4', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST(PinBlock, EveryLengthOfOneByteComesBack) {
  for (std::size_t cbPin = 0; cbPin <= 255; ++cbPin)
    EXPECT_EQ(Unpacked(Packed(Counting(cbPin))), Counting(cbPin));
}

TEST(PinBlock, OnlyTheLowEightBitsOfTheLengthAreKept) {
  const Bytes pin = Counting(0x103);
  const Bytes block = Packed(pin);
  EXPECT_EQ(block.size(), 272u);
  EXPECT_EQ(block[1], 3);
  EXPECT_EQ(block[2 + 0x102], pin[0x102]);
  EXPECT_EQ(Unpacked(block), Counting(3));
}

TEST(PinBlock, TheMarkerIsNotLookedAt) {
  Bytes block = Packed({'7'});
  block[0] = 0;
  EXPECT_EQ(Unpacked(block), Bytes{'7'});
}

TEST(PinBlock, BytesThatTheLengthPromisesBeyondTheBlockAreZero) {
  const Bytes block{0x81, 9, 1, 2, 3, 4, 5, 6};
  EXPECT_EQ(Unpacked(block), (Bytes{1, 2, 3, 4, 5, 6, 0, 0, 0}));
}

}  // namespace
