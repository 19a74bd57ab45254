#include "token/reader_name.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "kit/wide.h"

namespace {

// A description is 64 bytes, padded with blanks.
Wide Name(std::string description, char padding = ' ') {
  description.resize(64, padding);
  wchar_t name[kReaderNameBytes + 1];
  std::memset(name, 0x5A, sizeof(name));
  ReaderNameFromDescription(name, reinterpret_cast<const unsigned char*>(description.data()));
  return UpToTerminator(name);
}

TEST(ReaderName, CutsThePadding) {
  EXPECT_EQ(Name("Reader 0"), W("Reader 0"));
}

TEST(ReaderName, ZerosPadAsWell) {
  EXPECT_EQ(Name("Reader 0", '\0'), W("Reader 0"));
}

TEST(ReaderName, KeepsInnerAndLeadingBlanks) {
  EXPECT_EQ(Name("  A  reader"), W("  A  reader"));
}

TEST(ReaderName, NothingButPaddingIsEmpty) {
  EXPECT_EQ(Name(""), W(""));
  EXPECT_EQ(Name("", '\0'), W(""));
}

TEST(ReaderName, TakesThirtyTwoBytesOfALongDescription) {
  EXPECT_EQ(Name(std::string(32, 'a') + "b"), Wide(32, L'a'));
  EXPECT_EQ(Name(std::string(31, 'a') + "bc"), [] {
    Wide wide(31, L'a');
    wide.push_back(L'b');
    return wide;
  }());
  EXPECT_EQ(Name(std::string(31, 'a') + " tail"), Wide(31, L'a')) << "a cut that leaves a blank at the end";
}

TEST(ReaderName, BytesBecomeTheCharactersOfTheirValue) {
  EXPECT_EQ(Name("\xE4\xFF\x80"), (Wide{L'\xE4', L'\xFF', L'\x80'}));
}

}  // namespace
