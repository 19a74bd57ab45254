#include "keys/private_key_blob.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/limits.h"

namespace {

// Both are destroyed through their base.
static_assert(std::has_virtual_destructor_v<PrivateKeyBlob>);
static_assert(std::has_virtual_destructor_v<PublicKeyBlob>);

using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t kPublic = 0x31415352;
constexpr std::uint32_t kPrivate = 0x32415352;

void Append(Bytes& bytes, std::uint32_t value) {
  for (unsigned shift = 0; shift < 32; shift += 8)
    bytes.push_back(static_cast<unsigned char>(value >> shift));
}

struct Fields {
  std::uint32_t magic = kPrivate;
  std::uint32_t bitLength = 512;
  std::uint32_t cbPublicExp = 3;
  std::uint32_t cbModulus = 64;
  std::uint32_t cbPrime1 = 32;
  std::uint32_t cbPrime2 = 32;
};

Bytes HeaderOf(const Fields& fields) {
  Bytes bytes;
  for (const std::uint32_t value :
       {fields.magic, fields.bitLength, fields.cbPublicExp, fields.cbModulus, fields.cbPrime1, fields.cbPrime2}) {
    Append(bytes, value);
  }
  return bytes;
}

// Bytes 1, 2, 3, ... (never 0) from first on.
Bytes Counting(std::size_t count, std::size_t first = 0) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<unsigned char>((first + i) % 255 + 1);
  return bytes;
}

Bytes BlobOf(const Fields& fields, std::size_t cbParts) {
  Bytes blob = HeaderOf(fields);
  const Bytes parts = Counting(cbParts);
  blob.insert(blob.end(), parts.begin(), parts.end());
  return blob;
}

// Parses a copy that ends with the data, so that the sanitizer sees every byte read behind it.
status::Code Parse(PrivateKeyBlob& blob, const Bytes& data) {
  Bytes exact(data);
  exact.shrink_to_fit();
  unsigned char none = 0;
  return blob.Parse(exact.empty() ? &none : exact.data(), exact.size());
}

Bytes Of(const WipedBytes& part) {
  return part.empty() ? Bytes() : Bytes(part.data(), part.data() + part.size());
}

Bytes ThenZeros(Bytes bytes, std::size_t size) {
  bytes.resize(size, 0);
  return bytes;
}

TEST(PrivateKeyBlob, TakesHeaderAndPartsInOrder) {
  const Fields fields;
  PrivateKeyBlob blob;
  ASSERT_EQ(Parse(blob, BlobOf(fields, 3 + 64 + 32 + 32)), 0);
  EXPECT_EQ(blob.Header().magic, kPrivate);
  EXPECT_EQ(blob.Header().bitLength, 512u);
  EXPECT_EQ(blob.Header().cbPublicExp, 3u);
  EXPECT_EQ(blob.Header().cbModulus, 64u);
  EXPECT_EQ(blob.Header().cbPrime1, 32u);
  EXPECT_EQ(blob.Header().cbPrime2, 32u);
  EXPECT_EQ(Of(blob.PublicExponent()), Counting(3));
  EXPECT_EQ(Of(blob.Modulus()), Counting(64, 3));
  EXPECT_EQ(Of(blob.Prime1()), Counting(32, 67));
  EXPECT_EQ(Of(blob.Prime2()), Counting(32, 99));
  EXPECT_TRUE(blob.Exponent1().empty());
  EXPECT_TRUE(blob.Exponent2().empty());
  EXPECT_TRUE(blob.Coefficient().empty());
  EXPECT_TRUE(blob.PrivateExponent().empty());
}

TEST(PrivateKeyBlob, ReadsNothingBehindThePrimesUnlessFull) {
  PrivateKeyBlob blob;
  ASSERT_EQ(Parse(blob, BlobOf({}, 3 + 64 + 5 * 32 + 64)), 0);
  EXPECT_TRUE(blob.Exponent1().empty());
  EXPECT_TRUE(blob.PrivateExponent().empty());
}

TEST(PrivateKeyBlob, FullFormGoesOnBehindThePrimes) {
  Fields fields;
  fields.cbPrime1 = 30;
  fields.cbPrime2 = 34;
  PrivateKeyBlob blob;
  blob.SetFull(true);
  ASSERT_EQ(Parse(blob, BlobOf(fields, 3 + 64 + 30 + 34 + 30 + 34 + 30 + 64)), 0);
  EXPECT_EQ(Of(blob.Prime1()), Counting(30, 67));
  EXPECT_EQ(Of(blob.Prime2()), Counting(34, 97));
  EXPECT_EQ(Of(blob.Exponent1()), Counting(30, 131));
  EXPECT_EQ(Of(blob.Exponent2()).size(), 34u);
  EXPECT_EQ(Of(blob.Coefficient()).size(), 30u);
  EXPECT_EQ(Of(blob.PrivateExponent()), Counting(64, 131 + 30 + 34 + 30));
}

TEST(PrivateKeyBlob, NullDataIsRefused) {
  PrivateKeyBlob blob;
  EXPECT_EQ(static_cast<std::uint32_t>(blob.Parse(nullptr, 24)), 0x80090027u);
  EXPECT_EQ(static_cast<std::uint32_t>(blob.Parse(nullptr, 0)), 0x80090027u);
}

TEST(PrivateKeyBlob, MagicAndBitLengthAreNotJudged) {
  for (const std::uint32_t value : {0u, 1u, kPublic, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    Fields fields;
    fields.magic = value;
    fields.bitLength = ~value;
    PrivateKeyBlob blob;
    ASSERT_EQ(Parse(blob, BlobOf(fields, 131)), 0);
    EXPECT_EQ(blob.Header().magic, value);
    EXPECT_EQ(blob.Header().bitLength, ~value);
    EXPECT_EQ(Of(blob.Modulus()), Counting(64, 3));
  }
}

// Data shorter than the header and lengths beyond the data are not noticed: what is missing reads as zero.
TEST(PrivateKeyBlob, EveryDataLengthIsTaken) {
  const Bytes whole = BlobOf({}, 131);
  for (std::size_t length = 0; length <= whole.size(); ++length) {
    PrivateKeyBlob blob;
    const Bytes data(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
    ASSERT_EQ(Parse(blob, data), 0) << length;
    const Bytes padded = ThenZeros(data, whole.size());
    EXPECT_EQ(blob.Header().magic,
              static_cast<std::uint32_t>(padded[0] | padded[1] << 8 | padded[2] << 16) | std::uint32_t{padded[3]} << 24)
        << length;
    EXPECT_EQ(blob.Header().cbPrime2, padded[20]) << length;
    if (length < 24) continue;
    EXPECT_EQ(Of(blob.PublicExponent()), Bytes(padded.begin() + 24, padded.begin() + 27)) << length;
    EXPECT_EQ(Of(blob.Modulus()), Bytes(padded.begin() + 27, padded.begin() + 91)) << length;
    EXPECT_EQ(Of(blob.Prime1()), Bytes(padded.begin() + 91, padded.begin() + 123)) << length;
    EXPECT_EQ(Of(blob.Prime2()), Bytes(padded.begin() + 123, padded.end())) << length;
  }
}

TEST(PrivateKeyBlob, NoDataAtAllIsAHeaderOfZerosWithEmptyParts) {
  PrivateKeyBlob blob;
  ASSERT_EQ(Parse(blob, {}), 0);
  EXPECT_EQ(blob.Header().magic, 0u);
  EXPECT_EQ(blob.Header().cbModulus, 0u);
  EXPECT_FALSE(blob.PublicExponent().empty()) << "present, with no bytes";
  EXPECT_EQ(blob.PublicExponent().size(), 0u);
  EXPECT_EQ(blob.Prime2().size(), 0u);
}

using Field = std::uint32_t Fields::*;
constexpr Field kLengths[] = {&Fields::cbPublicExp, &Fields::cbModulus, &Fields::cbPrime1, &Fields::cbPrime2};

TEST(PrivateKeyBlob, EachLengthAtZeroAndOne) {
  for (const Field field : kLengths) {
    for (const std::uint32_t value : {0u, 1u}) {
      Fields fields;
      fields.*field = value;
      PrivateKeyBlob blob;
      ASSERT_EQ(Parse(blob, BlobOf(fields, 131)), 0);
      EXPECT_EQ(Of(blob.PublicExponent()), Counting(fields.cbPublicExp));
      EXPECT_EQ(Of(blob.Modulus()), Counting(fields.cbModulus, fields.cbPublicExp));
      EXPECT_EQ(blob.Prime1().size(), fields.cbPrime1);
      EXPECT_EQ(blob.Prime2().size(), fields.cbPrime2);
    }
  }
}

TEST(PrivateKeyBlob, LengthsBeyondTheDataReadAsZero) {
  for (const Field field : kLengths) {
    Fields fields;
    fields.*field = 100000;
    PrivateKeyBlob blob;
    ASSERT_EQ(Parse(blob, BlobOf(fields, 131)), 0);
    const std::size_t cbAll = std::size_t{fields.cbPublicExp} + fields.cbModulus + fields.cbPrime1 + fields.cbPrime2;
    Bytes all;
    for (const WipedBytes* part : {&blob.PublicExponent(), &blob.Modulus(), &blob.Prime1(), &blob.Prime2()}) {
      const Bytes bytes = Of(*part);
      all.insert(all.end(), bytes.begin(), bytes.end());
    }
    EXPECT_EQ(all, ThenZeros(Counting(131), cbAll));
  }
}

TEST(PrivateKeyBlob, LengthsThatCannotBeAllocatedFail) {
  for (const Field field : kLengths) {
    for (const std::uint32_t value :
         {static_cast<std::uint32_t>(kLargestBlock + 1), 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
      Fields fields;
      fields.*field = value;
      PrivateKeyBlob blob;
      EXPECT_EQ(static_cast<std::uint32_t>(Parse(blob, BlobOf(fields, 131))), 0x8009000Eu) << value;
    }
  }
}

TEST(PrivateKeyBlob, TheLargestLengthIsTaken) {
  Fields fields;
  fields.cbPrime2 = static_cast<std::uint32_t>(kLargestBlock);
  PrivateKeyBlob blob;
  ASSERT_EQ(Parse(blob, BlobOf(fields, 131)), 0);
  EXPECT_EQ(blob.Prime2().size(), kLargestBlock);
  EXPECT_EQ(blob.Prime2()[kLargestBlock - 1], 0);
}

TEST(PrivateKeyBlob, AllLengthsAtTheirMaximumFail) {
  Fields fields;
  for (const Field field : kLengths)
    fields.*field = std::numeric_limits<std::uint32_t>::max();
  PrivateKeyBlob blob;
  EXPECT_EQ(static_cast<std::uint32_t>(Parse(blob, HeaderOf(fields))), 0x8009000Eu);
}

TEST(PrivateKeyBlob, IsParsedAnew) {
  PrivateKeyBlob blob;
  ASSERT_EQ(Parse(blob, BlobOf({}, 131)), 0);
  Fields fields;
  fields.magic = kPublic;
  fields.cbModulus = 2;
  fields.cbPrime1 = 0;
  fields.cbPrime2 = 0;
  ASSERT_EQ(Parse(blob, BlobOf(fields, 5)), 0);
  EXPECT_EQ(blob.Header().magic, kPublic);
  EXPECT_EQ(Of(blob.Modulus()), Counting(2, 3));
  EXPECT_EQ(blob.Prime1().size(), 0u);
  // Nothing of the header before is left behind the end of shorter data.
  ASSERT_EQ(Parse(blob, {'R', 'S'}), 0);
  EXPECT_EQ(blob.Header().magic, 0x5352u);
  EXPECT_EQ(blob.Header().bitLength, 0u);
  EXPECT_EQ(blob.Header().cbModulus, 0u);
}

}  // namespace
