// Public keys by themselves: refusals, setters and creations that no entry of the provider reaches.
#include "token/public_key.h"

#include <memory>
#include <string>

#include "inside/freed_watch.h"
#include "inside/token_fixture.h"

namespace {

using fake::Bytes;
using fake::HexOf;
using kit::Counting;

class PublicKeyTest : public TokenObjectsTest {
 protected:
  PublicKey& Filled(PublicKey& key, std::size_t cbModulus = 256) {
    Bind(key);
    modulus_ = Counting(cbModulus, 0x21);
    key.SetModulus(modulus_.data(), Size(modulus_));
    key.SetPublicExponent(exponent_.data(), 4);
    key.SetId(id_.data(), 64);
    return key;
  }
  std::string Template(const std::string& onToken, const std::string& encrypt, const std::string& verify,
                       const std::string& label) const {
    return "C_CreateObject(session=0x51, {CKA_CLASS=02000000, CKA_TOKEN=" + onToken +
           ", CKA_PRIVATE=00, CKA_MODIFIABLE=01, CKA_EXTRACTABLE=01, CKA_ID=" + HexOf(id_) + HexOf(Bytes(64, 0)) +
           ", CKA_PUBLIC_EXPONENT=01000109, CKA_MODULUS=" + HexOf(modulus_) +
           ", CKA_MODULUS_BITS=" + HexOf(fake::Ulong(Size(modulus_) * 8)) + ", CKA_ENCRYPT=" + encrypt +
           ", CKA_VERIFY=" + verify + label + "})";
  }
  Bytes modulus_;
};

TEST_F(PublicKeyTest, UsageSelectsEncryptAndVerify) {
  const struct {
    CK_ULONG usage;
    const char* encrypt;
    const char* verify;
  } cases[] = {{0, "01", "00"}, {1, "00", "01"}, {2, "01", "01"}, {3, "00", "00"}, {0xFFFFFFFF, "00", "00"}};
  for (const auto& one : cases) {
    PublicKey key;
    EXPECT_EQ(Filled(key).Create(static_cast<KeyUsage>(one.usage), "abc", 3), CKR_OK);
    ExpectCalls({Template("01", one.encrypt, one.verify, ", CKA_LABEL=616263")});
    EXPECT_NE(key.GetObjectHandle(), 0u);
    EXPECT_EQ(key.GetClass(), CK_OBJECT_CLASS{CKO_PUBLIC_KEY});
    EXPECT_TRUE(key.IsToken());
    EXPECT_TRUE(key.IsModifiable());
    EXPECT_TRUE(key.IsExtractable());
    EXPECT_FALSE(key.IsPrivate());
  }
}

TEST_F(PublicKeyTest, LabelDecidesTheKindOfObject) {
  PublicKey labelled;
  EXPECT_EQ(Filled(labelled).Create(KeyUsage::kBoth, "", 0), CKR_OK);
  EXPECT_EQ(token().Calls().back().templates[0].size(), 12u);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=")});
  PublicKey without;
  EXPECT_EQ(Filled(without).Create(KeyUsage::kBoth, nullptr, 5), CKR_OK);
  EXPECT_EQ(token().Calls().back().templates[0].size(), 11u);
  ExpectCalls({Template("00", "01", "01", "")});
  EXPECT_FALSE(without.IsToken());
  // The label goes in the length that the caller says.
  PublicKey cut;
  EXPECT_EQ(Filled(cut).Create(KeyUsage::kBoth, "abcdef", 2), CKR_OK);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=6162")});
}

TEST_F(PublicKeyTest, RefusesWhatCannotBeCalled) {
  PublicKey noSession;
  Filled(noSession).SetSession(0);
  EXPECT_EQ(noSession.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  PublicKey noModule;
  Filled(noModule).SetModule(nullptr);
  EXPECT_EQ(noModule.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  ExpectCalls({});
  PublicKey twice;
  EXPECT_EQ(Filled(twice).Create(KeyUsage::kBoth, "a", 1), CKR_OK);
  token().ClearCalls();
  EXPECT_EQ(twice.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << "it has an object already";
  ExpectCalls({});
}

TEST_F(PublicKeyTest, OnlyFourModulusLengths) {
  for (const std::size_t bits : {512U, 1024U, 2048U, 4096U}) {
    PublicKey key;
    EXPECT_EQ(Filled(key, bits / 8).Create(KeyUsage::kBoth, "a", 1), CKR_OK) << bits;
  }
  token().ClearCalls();
  for (const std::size_t bits : {8U, 256U, 504U, 520U, 768U, 1536U, 2040U, 2056U, 3072U, 8192U}) {
    PublicKey key;
    EXPECT_EQ(Filled(key, bits / 8).Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << bits;
    EXPECT_EQ(key.GetObjectHandle(), 0u);
  }
  ExpectCalls({});
}

TEST_F(PublicKeyTest, MissingParts) {
  const Bytes modulus(256, 1);
  PublicKey noModulus;
  Bind(noModulus).SetPublicExponent(exponent_.data(), 4);
  noModulus.SetId(id_.data(), 64);
  EXPECT_EQ(noModulus.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad) << "no modulus is one of 0 bits";
  PublicKey noExponent;
  Bind(noExponent).SetModulus(modulus.data(), Size(modulus));
  noExponent.SetId(id_.data(), 64);
  EXPECT_EQ(noExponent.Create(KeyUsage::kBoth, "a", 1), kIncomplete);
  PublicKey noId;
  Bind(noId).SetModulus(modulus.data(), Size(modulus));
  noId.SetPublicExponent(exponent_.data(), 4);
  EXPECT_EQ(noId.Create(KeyUsage::kBoth, "a", 1), kIncomplete);
  // The length is judged before the parts are.
  PublicKey oddAndEmpty;
  Bind(oddAndEmpty).SetModulus(modulus.data(), 100);
  EXPECT_EQ(oddAndEmpty.Create(KeyUsage::kBoth, "a", 1), kArgumentsBad);
  ExpectCalls({});
}

TEST_F(PublicKeyTest, TokensAnswerComesBackUnchanged) {
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_TEMPLATE_INCONSISTENT, CKR_VENDOR_DEFINED}) {
    PublicKey key;
    token().Fail("C_CreateObject", code);
    EXPECT_EQ(Filled(key).Create(KeyUsage::kBoth, "a", 1), code);
    EXPECT_EQ(key.GetObjectHandle(), 0u);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK) << "the buffers are still there";
  }
}

TEST_F(PublicKeyTest, NullAndNothingLeaveTheFieldsAsTheyAre) {
  PublicKey key;
  Filled(key);
  const Bytes other(256, 0xEE);
  key.SetModulus(nullptr, 64);
  key.SetModulus(other.data(), 0);
  key.SetPublicExponent(nullptr, 4);
  key.SetPublicExponent(other.data(), 0);
  key.SetId(nullptr, 64);
  key.SetId(other.data(), 0);
  EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
  ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=61")});
}

TEST_F(PublicKeyTest, ExponentHas4BytesAndIdentifier64WhateverTheLength) {
  for (const CK_ULONG length : {CK_ULONG{1}, CK_ULONG{3}, CK_ULONG{5}, CK_ULONG{0xFFFFFFFF}}) {
    PublicKey key;
    Filled(key);
    key.SetPublicExponent(exponent_.data(), length);
    key.SetId(id_.data(), length);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    ExpectCalls({Template("01", "01", "01", ", CKA_LABEL=61")});
  }
}

TEST_F(PublicKeyTest, ReplacedAndLeftBuffersAreWipedBeforeTheyAreReleased) {
  FreedWatch watch;
  const auto follow = [&] {
    const fake::Call call = token().Calls().back();
    for (const std::size_t entry : {5U, 6U, 7U})
      watch.Follow(call.templates[0][entry].address);
    return call.templates[0];
  };
  std::vector<fake::Attribute> second;
  {
    PublicKey key;
    Filled(key, 64);
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    const std::vector<fake::Attribute> first = follow();
    EXPECT_EQ(key.Destroy(), CKR_OBJECT_HANDLE_INVALID);  // so that it may be created once more
    EXPECT_FALSE(watch.Released(first[5].address));
    Filled(key, 128);
    EXPECT_TRUE(watch.Wiped(first[5].address, 128)) << "identifier";
    EXPECT_TRUE(watch.Wiped(first[6].address, 4)) << "exponent";
    EXPECT_TRUE(watch.Wiped(first[7].address, 64)) << "modulus";
    EXPECT_EQ(key.Create(KeyUsage::kBoth, "a", 1), CKR_OK);
    second = follow();
  }
  EXPECT_TRUE(watch.Wiped(second[5].address, 128));
  EXPECT_TRUE(watch.Wiped(second[6].address, 4));
  EXPECT_TRUE(watch.Wiped(second[7].address, 128));
}

}  // namespace
