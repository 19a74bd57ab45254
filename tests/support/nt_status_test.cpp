#include "support/nt_status.h"

#include <map>

#include <gtest/gtest.h>

namespace {

std::uint32_t Translated(std::uint32_t ntStatus) {
  return static_cast<std::uint32_t>(StatusFromNtStatus(static_cast<std::int32_t>(ntStatus)));
}

const std::map<std::uint32_t, std::uint32_t> kKnown{
    {0x00000000, 0x00000000}, {0xC00000BB, 0x80090029}, {0xC0000008, 0x80090026},
    {0xC000000D, 0x80090027}, {0xC0000017, 0x8009000E}, {0xC000009A, 0x8009000E},
    {0xC0000023, 0x80090028}, {0xC00000E5, 0x8009002D}, {0xC000A000, 0x80090006},
};

TEST(NtStatus, KnownStatusesHaveTheirTranslation) {
  for (const auto& [ntStatus, status] : kKnown)
    EXPECT_EQ(Translated(ntStatus), status) << std::hex << ntStatus;
}

TEST(NtStatus, WhateverIsNotKnownIsAnInternalError) {
  for (std::uint32_t low = 0; low <= 0xFFFF; ++low) {
    const std::uint32_t ntStatus = 0xC0000000 | low;
    if (kKnown.contains(ntStatus)) continue;
    ASSERT_EQ(Translated(ntStatus), 0x8009002Du) << std::hex << ntStatus;
  }
  for (const std::uint32_t other : {0x00000001u, 0x00000103u, 0x000000BBu, 0x40000000u, 0x80000005u, 0x80090029u,
                                    0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    EXPECT_EQ(Translated(other), 0x8009002Du) << std::hex << other;
  }
}

}  // namespace
