// FreeKey: what it wipes and releases; the record itself stays.
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

using fake::Ascii;
using kit::Frame;
using kit::Hex32;
using kit::Line;

class FreeKeyTest : public kit::OpenedProviderTest {
 protected:
  void SetUp() override {
    kit::OpenedProviderTest::SetUp();
    token().AddKeyPair(Ascii("Key1"), "");
    key_ = OpenKey(provider_, L"Key1");
  }
  std::vector<Line> Lines(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const std::vector<Line>& body,
                          LONG status) const {
    std::vector<Line> lines{Hex32("hProvider : ", provider), Hex32("hKey      : ", key)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPFreeKey", lines, status);
  }

  NCRYPT_KEY_HANDLE key_ = 0;
};

TEST_F(FreeKeyTest, ReleasesNameAndForgetsTheObjects) {
  kit::KeyRecord* record = kit::KeyOf(key_);
  const void* name = record->pszKeyName;
  kit::MemoryWatch watch;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  ExpectLines(
      Lines(provider_, key_, {"Deleting key name", "Deleting public key handle", "Deleting private key handle"}, 0));
  ExpectCalls({});  // the token's objects are left alone
  EXPECT_TRUE(watch.WasFreed(name));
  EXPECT_FALSE(watch.WasFreed(record)) << "the record itself is kept";
  EXPECT_EQ(record->pszKeyName, nullptr);
  EXPECT_EQ(record->cbKeyName, 0u);
  EXPECT_EQ(record->hPublicKeyObject, 0u);
  EXPECT_EQ(record->hPrivateKeyObject, 0u);
  EXPECT_EQ(record->dwMagic, kit::kKeyMagic);
}

TEST_F(FreeKeyTest, NameIsWipedBeforeItIsReleased) {
  // The whole text: a count of characters taken as bytes would leave half of it.
  const void* name = kit::KeyOf(key_)->pszKeyName;
  const kit::MemoryWatch watch;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  EXPECT_TRUE(WipedAndFreed(watch, name, sizeof L"Key1"));
}

TEST_F(FreeKeyTest, SecondCallFindsNothing) {
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  Forget();
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  ExpectLines(Lines(provider_, key_, {}, 0));
}

TEST_F(FreeKeyTest, WipesAndReleasesEveryOwnedBlockInOrder) {
  kit::KeyRecord* record = kit::KeyOf(key_);
  record->pbKeyFile = Block("keyfile-data");
  record->cbKeyFile = 12;
  record->pbSecurityDescr = Block("descriptor-data");
  record->cbSecurityDescr = 15;
  record->pbPrivateKey = Block("privatekey-data");
  record->cbPrivateKey = 15;
  record->pszKeyBlobType = L"RSAPRIVATEBLOB";
  BYTE modulus[4] = {1, 2, 3, 4};
  record->pbModulus = modulus;
  const void* blocks[] = {record->pbKeyFile, record->pbSecurityDescr, record->pbPrivateKey};
  const std::size_t sizes[] = {12, 15, 15};
  kit::MemoryWatch watch;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
  ExpectLines(Lines(provider_, key_,
                    {"Deleting key name", "Deleting key file data blob", "Deleting public key handle",
                     "Deleting private key handle", "Deleting security descriptor", "Deleting private key blob"},
                    0));
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_TRUE(WipedAndFreed(watch, blocks[i], sizes[i])) << i << ": to its last byte";
  EXPECT_EQ(record->pbKeyFile, nullptr);
  EXPECT_EQ(record->pbSecurityDescr, nullptr);
  EXPECT_EQ(record->pbPrivateKey, nullptr);
  // Components of an imported key and the blob type are not touched.
  EXPECT_EQ(record->pbModulus, modulus);
  EXPECT_STREQ(record->pszKeyBlobType, L"RSAPRIVATEBLOB");
  EXPECT_EQ(modulus[0], 1);
  record->pbModulus = nullptr;
}

TEST_F(FreeKeyTest, ChecksTheProviderFirst) {
  EXPECT_EQ(ksp().FreeKey(0, 0), NTE_INVALID_HANDLE);
  ExpectLines(Lines(0, 0, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  EXPECT_EQ(ksp().FreeKey(provider_, 0), NTE_INVALID_HANDLE);
  ExpectLines(Lines(provider_, 0, {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
}

TEST_F(FreeKeyTest, RefusesWhatIsNoKeyRecord) {
  kit::KeyRecord* record = kit::KeyOf(key_);
  record->dwMagic = 0x32415352;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), NTE_INVALID_HANDLE);
  ExpectLines(Lines(provider_, key_, {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
  record->dwMagic = kit::kKeyMagic;
  record->cbLength = sizeof *record - 1;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), NTE_INVALID_HANDLE);
  record->cbLength = sizeof *record + 1;
  EXPECT_EQ(ksp().FreeKey(provider_, key_), 0);
}

}  // namespace
