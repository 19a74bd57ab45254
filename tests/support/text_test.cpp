#include "support/text.h"

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kit/wide.h"

namespace {

TEST(WideLength, CountsWithoutTheTerminator) {
  EXPECT_EQ(WideLength(L""), 0u);
  EXPECT_EQ(WideLength(L"abc"), 3u);
  EXPECT_EQ(WideLength(nullptr), 0u);
}

TEST(WideEqual, IsExactAndTakesInTheTerminator) {
  EXPECT_TRUE(WideEqual(L"RSA", L"RSA"));
  EXPECT_TRUE(WideEqual(L"", L""));
  EXPECT_FALSE(WideEqual(L"RSA", L"rsa"));
  EXPECT_FALSE(WideEqual(L"RSA", L"RSA "));
  EXPECT_FALSE(WideEqual(L"RSA_SIGN", L"RSA"));
  EXPECT_FALSE(WideEqual(L"", L"R"));
}

TEST(WideEqual, NullEqualsNothing) {
  EXPECT_FALSE(WideEqual(nullptr, L""));
  EXPECT_FALSE(WideEqual(L"", nullptr));
  EXPECT_FALSE(WideEqual(nullptr, nullptr));
}

TEST(WideEqualIgnoringCase, FoldsTheAsciiLettersOnly) {
  EXPECT_TRUE(WideEqualIgnoringCase(L"kEY1", L"KeY1", 4));
  EXPECT_FALSE(WideEqualIgnoringCase(L"\xE4", L"\xC4", 1));
  EXPECT_FALSE(WideEqualIgnoringCase(L"@", L"`", 1));
  EXPECT_FALSE(WideEqualIgnoringCase(L"[", L"{", 1));
  EXPECT_FALSE(WideEqualIgnoringCase(L"\x212A", L"k", 1)) << "no folding of other alphabets";
}

TEST(WideEqualIgnoringCase, EveryPairBelow128) {
  for (unsigned a = 1; a < 128; ++a) {
    for (unsigned b = 1; b < 128; ++b) {
      const auto lower = [](unsigned c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; };
      const wchar_t left[] = {static_cast<wchar_t>(a), L'\0'};
      const wchar_t right[] = {static_cast<wchar_t>(b), L'\0'};
      ASSERT_EQ(WideEqualIgnoringCase(left, right, 1), lower(a) == lower(b)) << a << " " << b;
    }
  }
}

TEST(WideEqualIgnoringCase, ComparesTheCountOnly) {
  EXPECT_TRUE(WideEqualIgnoringCase(L"Key1A", L"Key1", 4));
  EXPECT_FALSE(WideEqualIgnoringCase(L"Key1A", L"Key1", 5));
  EXPECT_FALSE(WideEqualIgnoringCase(L"Key", L"Key1", 4));
  EXPECT_TRUE(WideEqualIgnoringCase(L"anything", L"", 0)) << "nothing to compare is equal";
}

TEST(WideEqualIgnoringCase, StopsAtATerminatorThatBothHave) {
  EXPECT_TRUE(WideEqualIgnoringCase(L"Key1", L"KEY1", 1000));
  const wchar_t left[] = {L'a', L'\0', L'x', L'\0'};
  const wchar_t right[] = {L'a', L'\0', L'y', L'\0'};
  EXPECT_TRUE(WideEqualIgnoringCase(left, right, 3));
}

TEST(WideEqualIgnoringCase, NullEqualsNothing) {
  EXPECT_FALSE(WideEqualIgnoringCase(nullptr, L"a", 1));
  EXPECT_FALSE(WideEqualIgnoringCase(L"a", nullptr, 1));
  EXPECT_FALSE(WideEqualIgnoringCase(nullptr, nullptr, 0));
}

TEST(WideFind, FindsTheFirstOccurrence) {
  EXPECT_EQ(WideFind(L"\\\\.\\Reader 0\\Key1", L"Reader 0"), 4u);
  EXPECT_EQ(WideFind(L"Reader 0\\Reader 0", L"Reader 0"), 0u);
  EXPECT_EQ(WideFind(L"aab", L"ab"), 1u) << "a false start does not hide the real one";
  EXPECT_EQ(WideFind(L"aaab", L"aab"), 1u);
  EXPECT_EQ(WideFind(L"x", L"x"), 0u);
  EXPECT_EQ(WideFind(L"abcx", L"x"), 3u);
}

TEST(WideFind, IsExact) {
  EXPECT_EQ(WideFind(L"reader 0\\Key1", L"Reader 0"), kNotFound);
  EXPECT_EQ(WideFind(L"Reader", L"Reader 0"), kNotFound);
  EXPECT_EQ(WideFind(L"", L"R"), kNotFound);
}

TEST(WideFind, AnEmptyPartIsFoundAtTheStart) {
  EXPECT_EQ(WideFind(L"Key1", L""), 0u);
  EXPECT_EQ(WideFind(L"", L""), 0u);
}

TEST(WideFind, NullIsNotFound) {
  EXPECT_EQ(WideFind(nullptr, L""), kNotFound);
  EXPECT_EQ(WideFind(L"", nullptr), kNotFound);
}

struct Narrowed {
  std::size_t count;
  std::string text;
  bool operator==(const Narrowed&) const = default;
};

// Into a buffer of exactly cb bytes, so that the sanitizer sees a byte too many.
Narrowed Narrow(std::size_t cb, const wchar_t* text) {
  std::vector<char> buffer(cb, '#');
  const std::size_t count = NarrowText(buffer.data(), buffer.size(), text);
  return {count, buffer.data()};
}

TEST(NarrowText, CharactersBecomeTheBytesOfTheirValue) {
  EXPECT_EQ(Narrow(8, L"Key1"), (Narrowed{5, "Key1"}));
  EXPECT_EQ(Narrow(5, L"Key1"), (Narrowed{5, "Key1"}));
  EXPECT_EQ(Narrow(3, L"\xE4\xFF"), (Narrowed{3, "\xE4\xFF"}));
  EXPECT_EQ(Narrow(1, L""), (Narrowed{1, ""}));
}

TEST(NarrowText, WhatDoesNotFitIsEmptyNotCut) {
  EXPECT_EQ(Narrow(4, L"Key1"), (Narrowed{0, ""}));
  EXPECT_EQ(Narrow(1, L"K"), (Narrowed{0, ""}));
}

TEST(NarrowText, ACharacterAbove255MakesItEmpty) {
  EXPECT_EQ(Narrow(8, L"\x100"), (Narrowed{0, ""}));
  EXPECT_EQ(Narrow(8, L"Key\x20AC"), (Narrowed{0, ""}));
}

TEST(NarrowText, NothingOfATextWithoutANarrowFormStaysBehind) {
  for (const wchar_t* text : {L"Key1", L"Ke\x20AC"}) {
    std::array<char, 4> buffer{};
    EXPECT_EQ(NarrowText(buffer.data(), 4, text), 0u);
    EXPECT_EQ(buffer, (std::array<char, 4>{}));
  }
}

TEST(NarrowText, NullIsEmpty) {
  EXPECT_EQ(Narrow(8, nullptr), (Narrowed{1, ""}));
  char byte = '#';
  EXPECT_EQ(NarrowText(&byte, 0, L"K"), 0u);
  EXPECT_EQ(byte, '#');
  EXPECT_EQ(NarrowText(nullptr, 8, L"K"), 0u);
}

TEST(NarrowText, EveryByteValueComesBack) {
  for (unsigned value = 1; value < 256; ++value) {
    const wchar_t text[] = {static_cast<wchar_t>(value), L'\0'};
    std::array<char, 2> narrow{};
    ASSERT_EQ(NarrowText(narrow.data(), narrow.size(), text), 2u);
    const auto byte = static_cast<unsigned char>(narrow[0]);
    wchar_t wide[2];
    EXPECT_EQ(WidenBytes(wide, &byte, 1), 1u);
    EXPECT_EQ(wide[0], text[0]);
  }
}

Wide Widened(const std::vector<unsigned char>& bytes) {
  std::vector<wchar_t> buffer(bytes.size() + 1, L'#');
  const std::size_t length = WidenBytes(buffer.data(), bytes.data(), bytes.size());
  const Wide text = UpToTerminator(buffer.data());
  EXPECT_EQ(text.size(), length);
  return text;
}

TEST(WidenBytes, BytesBecomeTheCharactersOfTheirValue) {
  EXPECT_EQ(Widened({0x4B, 0x65, 0x79, 0x31}), W("Key1"));
  EXPECT_EQ(Widened({0xFF, 0x80}), (Wide{L'\xFF', L'\x80'}));
  EXPECT_EQ(Widened({}), W(""));
}

TEST(WidenBytes, StopsAtTheFirstZeroByte) {
  EXPECT_EQ(Widened({0x3F, 0x9A, 0x00, 0x12}), (Wide{L'\x3F', L'\x9A'}));
  EXPECT_EQ(Widened({0x00, 0x41}), W(""));
}

}  // namespace
