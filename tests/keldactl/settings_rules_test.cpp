#include "keldactl/settings_rules.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace keldactl {
namespace {

// Wide literals do not go well with the C library where characters are made 16 bits wide.
std::wstring Wide(const std::string& text) {
  return {text.begin(), text.end()};
}

TEST(SettingsRules, TheLogNeedsItsSwitchAndItsFile) {
  EXPECT_FALSE(IsLogOn(std::nullopt, Wide("C:\\log.txt")));
  EXPECT_FALSE(IsLogOn(Wide("1"), std::nullopt));
  EXPECT_FALSE(IsLogOn(Wide("1"), Wide("")));
  EXPECT_TRUE(IsLogOn(Wide("1"), Wide("C:\\log.txt")));
}

TEST(SettingsRules, OnlyEightZerosSwitchTheLogOff) {
  EXPECT_FALSE(IsLogOn(Wide("00000000"), Wide("f")));
  EXPECT_TRUE(IsLogOn(Wide("0"), Wide("f")));
  EXPECT_TRUE(IsLogOn(Wide("000000000"), Wide("f")));
  EXPECT_TRUE(IsLogOn(Wide("0000000"), Wide("f")));
  EXPECT_TRUE(IsLogOn(Wide(""), Wide("f")));
}

TEST(SettingsRules, WhatTheProviderHasNoRoomForIsMissing) {
  EXPECT_TRUE(IsLogOn(Wide(std::string(15, '1')), Wide("f")));
  EXPECT_FALSE(IsLogOn(Wide(std::string(16, '1')), Wide("f")));
  EXPECT_TRUE(IsLogOn(Wide("1"), Wide(std::string(2047, 'f'))));
  EXPECT_FALSE(IsLogOn(Wide("1"), Wide(std::string(2048, 'f'))));
}

TEST(SettingsRules, ATextOfUpToSevenCharactersForbidsThePinCache) {
  EXPECT_TRUE(IsPinCacheOn(std::nullopt));
  EXPECT_TRUE(IsPinCacheOn(Wide("00000000")));
  EXPECT_FALSE(IsPinCacheOn(Wide("0000000")));
  EXPECT_FALSE(IsPinCacheOn(Wide("1")));
  EXPECT_FALSE(IsPinCacheOn(Wide("")));
  EXPECT_TRUE(IsPinCacheOn(Wide("forbidden")));
}

TEST(SettingsRules, TheProviderCacheLooksAtOneByte) {
  EXPECT_TRUE(IsProviderCacheOn(std::nullopt));
  EXPECT_TRUE(IsProviderCacheOn(1));
  EXPECT_FALSE(IsProviderCacheOn(0));
  EXPECT_FALSE(IsProviderCacheOn(256));
  EXPECT_TRUE(IsProviderCacheOn(257));
}

std::vector<unsigned char> Image(unsigned char machine_low, unsigned char machine_high) {
  std::vector<unsigned char> image(0x86);
  image[0] = 'M';
  image[1] = 'Z';
  image[0x3C] = 0x80;
  image[0x80] = 'P';
  image[0x81] = 'E';
  image[0x84] = machine_low;
  image[0x85] = machine_high;
  return image;
}

Machine Of(const std::vector<unsigned char>& image) {
  return MachineOf(image.data(), image.size());
}

TEST(MachineOf, TellsTheTwoWidths) {
  EXPECT_EQ(Of(Image(0x64, 0x86)), Machine::kX64);
  EXPECT_EQ(Of(Image(0x4C, 0x01)), Machine::kX86);
  EXPECT_EQ(Of(Image(0x64, 0xAA)), Machine::kUnknown);
}

TEST(MachineOf, TakesNothingElse) {
  EXPECT_EQ(MachineOf(nullptr, 0), Machine::kUnknown);
  std::vector<unsigned char> image = Image(0x64, 0x86);
  for (std::size_t size = 0; size < image.size(); ++size) {
    const std::vector<unsigned char> cut(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_EQ(Of(cut), Machine::kUnknown) << size;
  }
  for (const std::size_t place : {0u, 1u, 0x80u, 0x81u, 0x82u, 0x83u}) {
    std::vector<unsigned char> broken = image;
    broken[place] ^= 0x20;
    EXPECT_EQ(Of(broken), Machine::kUnknown) << place;
  }
  for (std::size_t place = 0x3D; place < 0x40; ++place) {
    std::vector<unsigned char> far = image;
    far[place] = 0xFF;
    EXPECT_EQ(Of(far), Machine::kUnknown) << place;
  }
}

}  // namespace
}  // namespace keldactl
