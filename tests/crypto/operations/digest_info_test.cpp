#include "crypto/operations/digest_info.h"

#include <limits>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "kit/digest_info.h"

namespace {

using kit::Bytes;
using kit::kMd5;
using kit::kSha1;
using kit::kSha256;
using kit::kSha512;

Bytes PrefixOf(std::size_t cbHash) {
  DigestInfoPrefix prefix;
  EXPECT_TRUE(FindDigestInfoPrefix(cbHash, prefix)) << cbHash;
  return Bytes(prefix.bytes, prefix.bytes + prefix.length);
}

TEST(DigestInfo, BareHashesGetThePrefixOfTheirLength) {
  EXPECT_EQ(PrefixOf(16), kMd5);
  EXPECT_EQ(PrefixOf(20), kSha1);
  EXPECT_EQ(PrefixOf(32), kSha256);
  EXPECT_EQ(PrefixOf(64), kSha512);
}

// The DER lengths inside the prefix count what follows them: the whole is a well-formed DigestInfo.
TEST(DigestInfo, PrefixAndHashMakeWellFormedDer) {
  for (const std::size_t cbHash : {16u, 20u, 32u, 64u}) {
    const Bytes prefix = PrefixOf(cbHash);
    EXPECT_EQ(prefix[1], prefix.size() - 2 + cbHash);
    EXPECT_EQ(prefix[3], prefix.size() - 4 - 2);
    EXPECT_EQ(prefix.back(), cbHash);
    EXPECT_EQ(prefix[prefix.size() - 2], 0x04);
  }
}

TEST(DigestInfo, WholeDigestInfosAndJoinedHashesGoUnchanged) {
  for (const std::size_t cbHash : {34u, 35u, 36u, 51u, 83u}) {
    DigestInfoPrefix prefix{kMd5.data(), kMd5.size()};
    EXPECT_TRUE(FindDigestInfoPrefix(cbHash, prefix)) << cbHash;
    EXPECT_EQ(prefix.length, 0u) << cbHash;
    EXPECT_EQ(prefix.bytes, nullptr) << cbHash;
  }
}

// SHA-224 (28) and SHA-384 (48) are among the refused ones.
TEST(DigestInfo, EveryOtherLengthIsRefused) {
  const std::set<std::size_t> accepted{16, 20, 32, 34, 35, 36, 51, 64, 83};
  for (std::size_t cbHash = 0; cbHash <= 600; ++cbHash) {
    DigestInfoPrefix prefix;
    EXPECT_EQ(FindDigestInfoPrefix(cbHash, prefix), accepted.contains(cbHash)) << cbHash;
  }
  DigestInfoPrefix prefix;
  EXPECT_FALSE(FindDigestInfoPrefix(std::numeric_limits<std::size_t>::max(), prefix));
  EXPECT_FALSE(FindDigestInfoPrefix(std::size_t{0xFFFFFFFF}, prefix));
}

TEST(DigestInfo, ARefusalLeavesThePrefix) {
  DigestInfoPrefix prefix{kSha1.data(), 3};
  EXPECT_FALSE(FindDigestInfoPrefix(48, prefix));
  EXPECT_EQ(prefix.bytes, kSha1.data());
  EXPECT_EQ(prefix.length, 3u);
}

TEST(DigestInfo, AcceptedLengthsLieBetweenTheLimits) {
  EXPECT_EQ(kMinSignInput, 16u);
  EXPECT_EQ(kMaxSignInput, 83u);
}

}  // namespace
