// The statuses of the key object list, which the entry that looks a key up does not hand on.
#include <cstdlib>

#include "support/allocator.h"
#include "token/key_lookup.h"
#include "token/key_object_list.h"
#include "inside/token_fixture.h"

// The provider's allocator keeps a reserve for its exceptions; here the runtime library's will do.
void* AllocateBlock(std::size_t size) noexcept {
  return std::malloc(size);
}

namespace {

using fake::Ascii;

class KeyLookupTest : public TokenTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(TokenTest::SetUp());
    provider_.hSession = kSession;
  }
  void TearDown() override {
    ReleaseKeyObjectList(&provider_);
    ReleaseKeyObject(&key_);
  }
  SECURITY_STATUS Find(const wchar_t* name) {
    ReleaseKeyObject(&key_);
    key_ = {};
    return FindKELDKSPKeyfromObjectList(&provider_, module_, name, &key_);
  }

  KELDAKSP_PROVIDER provider_ = {};
  KELDAKSP_KEY key_ = {};
};

TEST_F(KeyLookupTest, UnknownNameIsABadKeyset) {
  EXPECT_EQ(Find(L"Key1"), NTE_BAD_KEYSET) << "a token without keys";
  fake::Token().AddKeyPair(Ascii("Key1"), "");
  EXPECT_EQ(Find(L"Other"), NTE_BAD_KEYSET);
  EXPECT_EQ(key_.dwMagic, 0u) << "the target is left alone";
  EXPECT_EQ(key_.pszKeyName, nullptr);
  EXPECT_EQ(Find(L"Key1"), ERROR_SUCCESS);
  EXPECT_STREQ(key_.pszKeyName, L"Key1");
}

TEST_F(KeyLookupTest, FailureOfTheListIsTheLookups) {
  fake::Token().AddKeyPair(Ascii("Key1"), "");
  fake::Token().Fail("C_FindObjects", CKR_DEVICE_ERROR);
  EXPECT_EQ(Find(L"Key1"), NTE_INTERNAL_ERROR);
  EXPECT_EQ(key_.dwMagic, 0u);
  EXPECT_EQ(FindKELDKSPKeyfromObjectList(&provider_, nullptr, L"Key1", &key_), NTE_INTERNAL_ERROR)
      << "without a module there is no list";
}

// The entry's buffers of these two are copied into those of a target that has some.
TEST_F(KeyLookupTest, TargetsBuffersTakeDescriptorAndKeyFile) {
  fake::Token().AddKeyPair(Ascii("Key1"), "");
  ASSERT_EQ(InitializeObjectList(&provider_, module_), ERROR_SUCCESS);
  KELDAKSP_KEY& entry = provider_.pKeyObjects[0];
  entry.pbSecurityDescr = new BYTE[3]{1, 2, 3};
  entry.cbSecurityDescr = 3;
  entry.pbKeyFile = new BYTE[2]{8, 9};
  entry.cbKeyFile = 2;
  BYTE* const descriptor = new BYTE[4]{7, 7, 7, 7};
  BYTE* const keyFile = new BYTE[4]{6, 6, 6, 6};
  key_.pbSecurityDescr = descriptor;
  key_.pbKeyFile = keyFile;
  EXPECT_EQ(FindKELDKSPKeyfromObjectList(&provider_, module_, L"Key1", &key_), ERROR_SUCCESS);
  EXPECT_EQ(key_.pbSecurityDescr, descriptor);
  EXPECT_EQ(key_.pbKeyFile, keyFile);
  EXPECT_EQ(fake::Bytes(descriptor, descriptor + 4), (fake::Bytes{1, 2, 3, 7}));
  EXPECT_EQ(fake::Bytes(keyFile, keyFile + 4), (fake::Bytes{8, 9, 6, 6}));
}

}  // namespace
