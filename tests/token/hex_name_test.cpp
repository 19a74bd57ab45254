#include "token/hex_name.h"

#include <string_view>

#include <gtest/gtest.h>

#include "kit/wide.h"

namespace {

struct Parsed {
  bool valid;
  Wide name;
  bool operator==(const Parsed&) const = default;
};

Parsed Parse(const Wide& text) {
  Wide converted(text.size() / 2 + 1, L'#');
  const bool valid = ParseHexName(text.data(), text.size(), converted.data());
  return {valid, UpToTerminator(converted.data())};
}

Parsed Parse(std::string_view text) {
  return Parse(W(text));
}

TEST(HexName, PairsBecomeCharactersInEitherCase) {
  EXPECT_EQ(Parse("4B657931"), (Parsed{true, W("Key1")}));
  EXPECT_EQ(Parse("4b657931"), (Parsed{true, W("Key1")}));
  EXPECT_EQ(Parse("4B65793141"), (Parsed{true, W("Key1A")}));
}

TEST(HexName, EveryByteValue) {
  static const char digits[] = "0123456789abcdef";
  for (unsigned value = 1; value < 256; ++value) {
    const char text[] = {digits[value >> 4], digits[value & 15], '\0'};
    EXPECT_EQ(Parse(text), (Parsed{true, Wide(1, static_cast<wchar_t>(value))})) << text;
  }
}

TEST(HexName, ZeroAddsNothing) {
  EXPECT_EQ(Parse("00"), (Parsed{true, W("")}));
  EXPECT_EQ(Parse("3F9A0012"), (Parsed{true, Wide{L'\x3F', L'\x9A', L'\x12'}}));
  EXPECT_EQ(Parse("0G41"), (Parsed{true, W("A")})) << "a lone digit of value 0 adds nothing either";
}

TEST(HexName, EmptyTextIsEmptyWithoutError) {
  EXPECT_EQ(Parse(""), (Parsed{true, W("")}));
}

TEST(HexName, OddLengthIsAnError) {
  EXPECT_EQ(Parse("4"), (Parsed{false, W("")}));
  EXPECT_EQ(Parse("4B657"), (Parsed{false, W("")}));
}

TEST(HexName, SecondCharacterThatIsNoDigitEndsTheNumber) {
  EXPECT_EQ(Parse("4G"), (Parsed{true, Wide{L'\x4'}}));
  EXPECT_EQ(Parse("AZ"), (Parsed{true, Wide{L'\xA'}}));
  EXPECT_EQ(Parse("a 41"), (Parsed{true, Wide{L'\xA', L'A'}})) << "the pair is skipped as a whole";
  EXPECT_EQ(Parse("0x41"), (Parsed{true, W("A")})) << "not a prefix, a pair of value 0";
}

TEST(HexName, FirstCharacterThatIsNoDigitIsAnErrorWhereverItStands) {
  for (const std::string_view text : {"G4", "Key1", " 4", "4B G", "41@1", "41`1", "41g1", "41/1", "41:1", "-141", "+1"})
    EXPECT_EQ(Parse(text), (Parsed{false, W("")})) << text;
}

// Only the ASCII digits and letters count; nothing is folded from wider characters.
TEST(HexName, WideCharactersAreNoDigits) {
  EXPECT_EQ(Parse(Wide{L'\xFF14', L'1'}), (Parsed{false, W("")}));
  EXPECT_EQ(Parse(Wide{L'\x0141', L'1'}), (Parsed{false, W("")}));
  EXPECT_EQ(Parse(Wide{L'4', L'\x0131'}), (Parsed{true, Wide{L'\x4'}}));
}

TEST(HexName, EveryFirstCharacterBelow256) {
  for (unsigned c = 1; c < 256; ++c) {
    const bool digit = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
    EXPECT_EQ(Parse(Wide{static_cast<wchar_t>(c), L'1'}).valid, digit) << c;
  }
}

}  // namespace
