#include "ui/pin_scrambler.h"

#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Not std::wstring: the native runtime library's wide characters are not 16 bits wide.
using Wide = std::vector<wchar_t>;

Wide W(std::string_view text) {
  return Wide(text.begin(), text.end());
}

constexpr std::size_t kMaskLength = PinScrambler::kMaskLength;

// No two values are equal and none leaves a character as it is.
std::uint16_t MaskAt(std::size_t i) {
  return static_cast<std::uint16_t>(0x1001 + 0x0523 * (i % kMaskLength));
}

WipedArray<std::uint16_t> Mask() {
  WipedArray<std::uint16_t> mask(kMaskLength);
  for (std::size_t i = 0; i < mask.size(); ++i)
    mask[i] = MaskAt(i);
  return mask;
}

class PinScramblerTest : public ::testing::Test {
 protected:
  bool Insert(std::size_t position, const Wide& characters) {
    return scrambler_.Insert(position, characters.data(), characters.size());
  }
  // Every cell is scrambled for the position where it is now.
  void ExpectHolds(const Wide& characters) {
    ASSERT_EQ(scrambler_.size(), characters.size());
    for (std::size_t i = 0; i < characters.size(); ++i) {
      EXPECT_EQ(scrambler_.Cell(i), static_cast<std::uint16_t>(characters[i]) ^ MaskAt(i)) << "position " << i;
    }
    const WipedArray<wchar_t> text = scrambler_.Text();
    ASSERT_EQ(text.size(), characters.size() + 1);
    EXPECT_EQ(Wide(text.data(), text.data() + text.size() - 1), characters);
    EXPECT_EQ(text[characters.size()], L'\0');
  }

  PinScrambler scrambler_{Mask()};
};

TEST_F(PinScramblerTest, StartsEmpty) {
  ExpectHolds(W(""));
}

TEST_F(PinScramblerTest, HoldsWhatIsTypedCharacterByCharacter) {
  Wide typed;
  for (wchar_t c = L'0'; c <= L'9'; ++c) {
    EXPECT_TRUE(Insert(typed.size(), Wide(1, c)));
    typed.push_back(c);
    ExpectHolds(typed);
  }
}

TEST_F(PinScramblerTest, EqualCharactersHaveDifferentCells) {
  Insert(0, W("1111"));
  EXPECT_NE(scrambler_.Cell(0), scrambler_.Cell(1));
  EXPECT_NE(scrambler_.Cell(1), scrambler_.Cell(2));
}

TEST_F(PinScramblerTest, InsertsAtTheStartAndInTheMiddle) {
  Insert(0, W("14"));
  EXPECT_TRUE(Insert(1, W("23")));
  ExpectHolds(W("1234"));
  EXPECT_TRUE(Insert(0, W("0")));
  ExpectHolds(W("01234"));
}

TEST_F(PinScramblerTest, AppendsOneBeyondTheEndAndRefusesWhatIsFurther) {
  Insert(0, W("12"));
  EXPECT_TRUE(Insert(3, W("3")));
  ExpectHolds(W("123"));
  EXPECT_FALSE(Insert(5, W("9")));
  EXPECT_FALSE(Insert(static_cast<std::size_t>(-4), W("9")));
  ExpectHolds(W("123"));
}

TEST_F(PinScramblerTest, DeletesInTheMiddleAndKeepsTheRest) {
  Insert(0, W("123456"));
  scrambler_.Delete(2, 2);
  ExpectHolds(W("1256"));
  scrambler_.Delete(0, 1);
  ExpectHolds(W("256"));
  scrambler_.Delete(2, 1);
  ExpectHolds(W("25"));
}

TEST_F(PinScramblerTest, IgnoresWhatIsToBeDeletedBeyondTheEnd) {
  Insert(0, W("123"));
  scrambler_.Delete(3, 1);
  scrambler_.Delete(static_cast<std::size_t>(-1), 1);
  ExpectHolds(W("123"));
  scrambler_.Delete(1, 9);
  ExpectHolds(W("1"));
}

TEST_F(PinScramblerTest, TheMaskStartsOverBehindItsEnd) {
  Wide typed;
  for (std::size_t i = 0; i < 3 * kMaskLength + 5; ++i)
    typed.push_back(static_cast<wchar_t>(L'A' + i % 26));
  Insert(0, typed);
  ExpectHolds(typed);
  scrambler_.Delete(kMaskLength - 1, 2);
  typed.erase(typed.begin() + kMaskLength - 1, typed.begin() + kMaskLength + 1);
  ExpectHolds(typed);
}

TEST_F(PinScramblerTest, HoldsEveryCharacterOfSixteenBits) {
  const Wide characters{L'\x1', L'\xFF', L'\x20AC', L'\xFFFF'};
  Insert(0, characters);
  ExpectHolds(characters);
}

TEST_F(PinScramblerTest, IsEmptyAfterClear) {
  Insert(0, W("1234"));
  scrambler_.Clear();
  ExpectHolds(W(""));
  Insert(0, W("5"));
  ExpectHolds(W("5"));
}

}  // namespace
