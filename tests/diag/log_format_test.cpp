#include "diag/log_format.h"

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Dump(const void* data, std::size_t length) {
  std::vector<char> text(logformat::HexDumpSize(data, length), '#');
  logformat::HexDump(text.data(), data, length);
  EXPECT_EQ(text.back(), '\0');
  EXPECT_EQ(std::strlen(text.data()) + 1, text.size()) << "the size is exact";
  return text.data();
}

std::string Hex(std::uint32_t value) {
  char text[logformat::kHex32Size];
  logformat::Hex32(text, value);
  return text;
}

std::string Number(std::int32_t value) {
  char text[logformat::kDecimalSize];
  logformat::Decimal(text, value);
  return text;
}

TEST(HexDump, NoDataIsNull) {
  const unsigned char byte = 0x41;
  EXPECT_EQ(Dump(nullptr, 0), "NULL");
  EXPECT_EQ(Dump(nullptr, 7), "NULL");
  EXPECT_EQ(Dump(&byte, 0), "NULL");
}

TEST(HexDump, EachByteIsTwoUpperCaseDigitsAndABlank) {
  const unsigned char bytes[] = {0x00, 0x0a, 0xA0, 0xff, 0x7F};
  EXPECT_EQ(Dump(bytes, sizeof(bytes)), "00 0A A0 FF 7F ");
  EXPECT_EQ(Dump(bytes, 1), "00 ");
}

TEST(HexDump, EveryByteValue) {
  for (unsigned value = 0; value < 256; ++value) {
    const unsigned char byte = static_cast<unsigned char>(value);
    char expected[4];
    std::snprintf(expected, sizeof(expected), "%02X ", value);
    EXPECT_EQ(Dump(&byte, 1), expected);
  }
}

TEST(HexDump, LongDataIsCutAtFiveHundredBytesWithoutAMark) {
  std::vector<unsigned char> bytes(600, 0x5A);
  bytes[499] = 0x01;
  bytes[500] = 0x02;
  EXPECT_EQ(Dump(bytes.data(), 499).size(), 499u * 3);
  const std::string atLimit = Dump(bytes.data(), 500);
  EXPECT_EQ(atLimit.size(), 1500u);
  EXPECT_EQ(atLimit.substr(1494), "5A 01 ");
  EXPECT_EQ(Dump(bytes.data(), 501), atLimit);
  EXPECT_EQ(Dump(bytes.data(), 600), atLimit);
  EXPECT_EQ(logformat::HexDumpSize(bytes.data(), std::numeric_limits<std::size_t>::max()), 1501u);
}

TEST(Hex32, AlwaysEightUpperCaseDigits) {
  EXPECT_EQ(Hex(0), "0x00000000");
  EXPECT_EQ(Hex(1), "0x00000001");
  EXPECT_EQ(Hex(0x80090027), "0x80090027");
  EXPECT_EQ(Hex(0x1234ABCD), "0x1234ABCD");
  EXPECT_EQ(Hex(0xFFFFFFFF), "0xFFFFFFFF");
  for (unsigned shift = 0; shift < 32; ++shift) {
    char expected[11];
    std::snprintf(expected, sizeof(expected), "0x%08X", 1u << shift);
    EXPECT_EQ(Hex(1u << shift), expected);
  }
}

TEST(Decimal, IsSigned) {
  EXPECT_EQ(Number(0), "0");
  EXPECT_EQ(Number(2048), "2048");
  EXPECT_EQ(Number(-1), "-1");
  EXPECT_EQ(Number(std::numeric_limits<std::int32_t>::max()), "2147483647");
  EXPECT_EQ(Number(std::numeric_limits<std::int32_t>::min()), "-2147483648");
}

TEST(StartLine, HasTwoLineEndsStarsAndTheTimeWithItsOwnLineEnd) {
  char text[logformat::kStartLineSize];
  logformat::StartLine(text, "Mon Jan  2 03:04:05 2006\n");
  EXPECT_EQ(std::string(text), "\n\n" + std::string(66, '*') + " LOG START - Mon Jan  2 03:04:05 2006\n\n");
}

TEST(StartLine, WithoutATimeIsStillALine) {
  char text[logformat::kStartLineSize];
  logformat::StartLine(text, "");
  EXPECT_EQ(std::string(text), "\n\n" + std::string(66, '*') + " LOG START - \n");
}

TEST(StartLine, ATextLongerThanAnyTimeIsCutAndTerminated) {
  char text[logformat::kStartLineSize];
  const std::string endless(1000, 'x');
  logformat::StartLine(text, endless.c_str());
  EXPECT_EQ(std::strlen(text), logformat::kStartLineSize - 1);
}

TEST(Sizes, HoldTheLongestNumbersAndTheLogsOwnBuffer) {
  EXPECT_EQ(logformat::kHex32Size, sizeof("0x00000000"));
  EXPECT_EQ(logformat::kDecimalSize, sizeof("-2147483648"));
  EXPECT_EQ(logformat::kStartLineSize, 128u);
  EXPECT_EQ(logformat::kMaxDumpedBytes, 500u);
}

TEST(Banner, SixtySixEqualsSigns) {
  EXPECT_EQ(std::string(logformat::kBanner), std::string(66, '='));
  EXPECT_EQ(std::string(logformat::kClosingBanner), std::string(66, '=') + "\n\n");
}

}  // namespace
