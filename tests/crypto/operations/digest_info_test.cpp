#include "crypto/operations/digest_info.h"

#include <limits>
#include <set>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes PrefixOf(std::size_t cbHash) {
  DigestInfoPrefix prefix;
  EXPECT_TRUE(FindDigestInfoPrefix(cbHash, prefix)) << cbHash;
  return Bytes(prefix.bytes, prefix.bytes + prefix.length);
}

// RFC 8017, 9.2 note 1.
const Bytes kMd5{0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
const Bytes kSha1{0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
const Bytes kSha256{0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                    0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
const Bytes kSha512{0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                    0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

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
