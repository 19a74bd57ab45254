#include "keys/public_key_blob.h"

#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "keys/private_key_blob.h"

namespace {

using Bytes = std::vector<unsigned char>;

WipedBytes Part(const Bytes& bytes) {
  WipedBytes part(bytes.size());
  for (std::size_t i = 0; i < bytes.size(); ++i)
    part[i] = bytes[i];
  return part;
}

Bytes Counting(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<unsigned char>(i + 1);
  return bytes;
}

// What Write puts into a buffer of exactly Size() bytes.
Bytes Written(const PublicKeyBlob& blob) {
  Bytes bytes(blob.Size(), 0xEE);
  blob.Write(bytes.data());
  return bytes;
}

TEST(PublicKeyBlob, LaysOutHeaderReversedExponentAndModulus) {
  PublicKeyBlob blob;
  blob.Set(Part({0xD1, 0xD2, 0xD3, 0xD4}), Part({0x01, 0x02, 0x03}));
  EXPECT_EQ(blob.Size(), 24u + 3 + 4);
  EXPECT_EQ(Written(blob), (Bytes{'R', 'S', 'A', '1', 32, 0, 0, 0, 3,    0,    0,    0,    4,    0,    0,   0,
                                  0,   0,   0,   0,   0,  0, 0, 0, 0x03, 0x02, 0x01, 0xD1, 0xD2, 0xD3, 0xD4}));
}

TEST(PublicKeyBlob, TheUsualExponentLooksTheSame) {
  PublicKeyBlob blob;
  blob.Set(Part(Counting(256)), Part({1, 0, 1}));
  const Bytes bytes = Written(blob);
  ASSERT_EQ(bytes.size(), 283u);
  EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.begin() + 27), (Bytes{1, 0, 1}));
  EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.begin() + 8), (Bytes{0x00, 0x08, 0, 0}));
  EXPECT_EQ(Bytes(bytes.begin() + 27, bytes.end()), Counting(256));
}

TEST(PublicKeyBlob, AFourByteExponentIsReversed) {
  PublicKeyBlob blob;
  blob.Set(Part({0xFF}), Part({1, 0, 1, 0}));
  const Bytes bytes = Written(blob);
  EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.begin() + 28), (Bytes{0, 1, 0, 1}));
}

TEST(PublicKeyBlob, BitLengthIsThatOfTheModulusBytes) {
  PublicKeyBlob blob;
  blob.Set(Part(Counting(129)), Part({3}));  // a leading zero byte counts
  const Bytes bytes = Written(blob);
  EXPECT_EQ(bytes[4] | bytes[5] << 8, 129 * 8);
}

TEST(PublicKeyBlob, WithoutAKeyOnlyTheSizeOfTheHeaderIsLeft) {
  const PublicKeyBlob blob;
  EXPECT_EQ(blob.Size(), 24u);
  EXPECT_EQ(Written(blob), Bytes(24, 0xEE)) << "nothing is written";
}

TEST(PublicKeyBlob, NothingIsWrittenUnlessBothPartsArePresent) {
  PublicKeyBlob noExponent;
  noExponent.Set(Part({1, 2}), WipedBytes());
  EXPECT_EQ(noExponent.Size(), 26u);
  EXPECT_EQ(Written(noExponent), Bytes(26, 0xEE));
  PublicKeyBlob noModulus;
  noModulus.Set(WipedBytes(), Part({1, 2, 3}));
  EXPECT_EQ(Written(noModulus), Bytes(27, 0xEE));
}

TEST(PublicKeyBlob, PartsOfNoBytesArePresent) {
  PublicKeyBlob blob;
  blob.Set(WipedBytes(0), WipedBytes(0));
  const Bytes bytes = Written(blob);
  ASSERT_EQ(bytes.size(), 24u);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 4), (Bytes{'R', 'S', 'A', '1'}));
  EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.end()), Bytes(20, 0));
}

TEST(PublicKeyBlob, ASecondKeyTakesThePlaceOfTheFirst) {
  PublicKeyBlob blob;
  blob.Set(Part(Counting(8)), Part({1, 0, 1}));
  blob.Set(Part({9, 8}), Part({5}));
  const Bytes bytes = Written(blob);
  ASSERT_EQ(bytes.size(), 27u);
  EXPECT_EQ(bytes[4], 16);
  EXPECT_EQ(Bytes(bytes.begin() + 24, bytes.end()), (Bytes{5, 9, 8}));
}

// What goes out comes in again, but for the exponent's order.
TEST(PublicKeyBlob, IsReadByTheImport) {
  PublicKeyBlob blob;
  blob.Set(Part(Counting(128)), Part({1, 2, 3, 4}));
  const Bytes bytes = Written(blob);
  PrivateKeyBlob parsed;
  ASSERT_EQ(parsed.Parse(bytes.data(), bytes.size()), 0);
  EXPECT_EQ(parsed.Header().magic, kRsaPublicMagic);
  EXPECT_EQ(parsed.Header().bitLength, 1024u);
  EXPECT_EQ(Bytes(parsed.PublicExponent().data(), parsed.PublicExponent().data() + 4), (Bytes{4, 3, 2, 1}));
  EXPECT_EQ(Bytes(parsed.Modulus().data(), parsed.Modulus().data() + 128), Counting(128));
}

}  // namespace
