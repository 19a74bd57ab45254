// The scripted token by itself: what it forgives, and what it refuses once it is strict.

#include "fake_token/fake_token.h"

#include <gtest/gtest.h>

namespace {

using fake::Bytes;
using fake::Token;

class FakeToken : public testing::Test {
 protected:
  void SetUp() override {
    Token().Reset();
    slot_ = Token().AddSlot("Reader").id;
    keys_ = Token().AddKeyPair(fake::Ascii("id"), "label", 1024);
    session_ = Open();
  }
  void TearDown() override { Token().Reset(); }

  CK_SESSION_HANDLE Open() {
    CK_SESSION_HANDLE session = 0;
    EXPECT_EQ(List().C_OpenSession(slot_, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session), CKR_OK);
    return session;
  }
  static CK_FUNCTION_LIST& List() { return Token().List()->standard; }
  void LogIn() {
    CK_UTF8CHAR pin[] = {'1', '2', '3', '4'};
    ASSERT_EQ(Token().List()->login(session_, CKU_USER, pin, sizeof(pin)), CKR_OK);
  }
  CK_RV Begin(CK_RV (*init)(CK_SESSION_HANDLE, CK_MECHANISM*, CK_OBJECT_HANDLE), CK_OBJECT_HANDLE key) {
    CK_MECHANISM mechanism{CKM_RSA_PKCS, nullptr, 0};
    return init(session_, &mechanism, key);
  }
  CK_RV Sign(CK_BYTE* signature, CK_ULONG room) {
    CK_BYTE data[] = {1, 2, 3};
    return List().C_Sign(session_, data, sizeof(data), signature, &room);
  }
  CK_OBJECT_HANDLE FindPrivateKey() {
    CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
    CK_ATTRIBUTE search{CKA_CLASS, &privateClass, sizeof(privateClass)};
    CK_OBJECT_HANDLE found = 0;
    CK_ULONG count = 0;
    EXPECT_EQ(List().C_FindObjectsInit(session_, &search, 1), CKR_OK);
    EXPECT_EQ(List().C_FindObjects(session_, &found, 1, &count), CKR_OK);
    EXPECT_EQ(List().C_FindObjectsFinal(session_), CKR_OK);
    return count == 0 ? 0 : found;
  }

  CK_SLOT_ID slot_ = 0;
  CK_SESSION_HANDLE session_ = 0;
  fake::KeyPair keys_;
  CK_BYTE signature_[128] = {};
};

TEST_F(FakeToken, ForgivesUnlessItIsStrict) {
  EXPECT_EQ(FindPrivateKey(), keys_.privateKey);
  LogIn();
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
  EXPECT_EQ(Sign(nullptr, 0), CKR_OK);
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
  EXPECT_EQ(Begin(List().C_VerifyInit, keys_.publicKey), CKR_OK);
  CK_ULONG count = 77;
  CK_ULONG wide = CK_TRUE;
  CK_ATTRIBUTE bad{CKA_TOKEN, &wide, sizeof(wide)};
  EXPECT_EQ(List().C_FindObjectsInit(session_, &bad, 1), CKR_OK);
  EXPECT_EQ(List().C_FindObjects(session_, nullptr, 0, &count), CKR_OK);
  EXPECT_EQ(List().C_FindObjectsFinal(session_), CKR_OK);
  EXPECT_EQ(List().C_Logout(session_), CKR_OK);
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_USER_NOT_LOGGED_IN);
  EXPECT_TRUE(Token().HasObject(keys_.privateKey));
}

TEST_F(FakeToken, StrictHasOneOperationInASession) {
  Token().SetStrict(true);
  LogIn();
  ASSERT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(List().C_DecryptInit, keys_.privateKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(List().C_VerifyInit, keys_.publicKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(Begin(List().C_EncryptInit, keys_.publicKey), CKR_OPERATION_ACTIVE);
    EXPECT_EQ(List().C_FindObjectsInit(session_, nullptr, 0), CKR_OPERATION_ACTIVE);
    // Neither a length query nor a short buffer ends it.
    EXPECT_EQ(Sign(nullptr, 0), CKR_OK);
    EXPECT_EQ(Sign(signature_, 127), CKR_BUFFER_TOO_SMALL);
  }
  EXPECT_EQ(Sign(signature_, 128), CKR_OK);
  // Wrong arguments do.
  ASSERT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
  CK_ULONG room = 128;
  EXPECT_EQ(List().C_Sign(session_, nullptr, 3, signature_, &room), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Sign(signature_, 128), CKR_OPERATION_NOT_INITIALIZED);
  ASSERT_EQ(List().C_FindObjectsInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OPERATION_ACTIVE);
  EXPECT_EQ(List().C_FindObjectsFinal(session_), CKR_OK);
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
  // Another session has its own.
  session_ = Open();
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_OK);
}

TEST_F(FakeToken, StrictHidesPrivateObjects) {
  Token().SetStrict(true);
  CK_ATTRIBUTE read{CKA_ID, nullptr, 0};
  EXPECT_EQ(FindPrivateKey(), 0u);
  EXPECT_EQ(List().C_GetAttributeValue(session_, keys_.privateKey, &read, 1), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(List().C_GetAttributeValue(session_, keys_.publicKey, &read, 1), CKR_OK);
  EXPECT_EQ(List().C_DestroyObject(session_, keys_.privateKey), CKR_OBJECT_HANDLE_INVALID);
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_KEY_HANDLE_INVALID);
  LogIn();
  EXPECT_EQ(FindPrivateKey(), keys_.privateKey);
  EXPECT_EQ(List().C_Logout(session_), CKR_OK);
  LogIn();
  EXPECT_EQ(Begin(List().C_SignInit, keys_.privateKey), CKR_KEY_HANDLE_INVALID);
  const CK_OBJECT_HANDLE again = FindPrivateKey();
  EXPECT_NE(again, keys_.privateKey);
  EXPECT_EQ(Begin(List().C_SignInit, again), CKR_OK);
  // The last session takes the login with it.
  EXPECT_EQ(List().C_CloseSession(session_), CKR_OK);
  session_ = Open();
  EXPECT_EQ(FindPrivateKey(), 0u);
  LogIn();
  EXPECT_NE(FindPrivateKey(), again);
}

TEST_F(FakeToken, StrictRefusesWrongArguments) {
  Token().SetStrict(true);
  CK_ULONG count = 77;
  CK_OBJECT_HANDLE object = 0;
  ASSERT_EQ(List().C_FindObjectsInit(session_, nullptr, 0), CKR_OK);
  EXPECT_EQ(List().C_FindObjects(session_, &object, 0, &count), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(count, 77u);
  EXPECT_EQ(List().C_FindObjects(session_, nullptr, 1000, &count), CKR_OK);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(List().C_FindObjectsFinal(session_), CKR_OK);

  EXPECT_EQ(List().C_GetSlotInfo(slot_, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(List().C_GetTokenInfo(slot_, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(List().C_OpenSession(slot_, CKF_SERIAL_SESSION, nullptr, nullptr, nullptr), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Token().List()->login(session_, CKU_USER, nullptr, 4), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(Token().SlotAt(0).triesLeft, 3u);
  EXPECT_EQ(List().C_GetAttributeValue(session_, keys_.publicKey, nullptr, 1), CKR_ARGUMENTS_BAD);
  EXPECT_EQ(List().C_FindObjectsInit(session_, nullptr, 1), CKR_ARGUMENTS_BAD);

  CK_ULONG wide = CK_TRUE;
  CK_BBOOL yes = CK_TRUE;
  for (CK_ATTRIBUTE bad : {CK_ATTRIBUTE{CKA_TOKEN, &wide, sizeof(wide)}, CK_ATTRIBUTE{CKA_TOKEN, nullptr, 1},
                           CK_ATTRIBUTE{CKA_CLASS, &wide, 3}}) {
    EXPECT_EQ(List().C_FindObjectsInit(session_, &bad, 1), CKR_ATTRIBUTE_VALUE_INVALID) << bad.type;
    EXPECT_EQ(List().C_CreateObject(session_, &bad, 1, &object), CKR_ATTRIBUTE_VALUE_INVALID) << bad.type;
  }
  CK_ATTRIBUTE hidden{CKA_PRIVATE, &yes, sizeof(yes)};
  EXPECT_EQ(List().C_CreateObject(session_, &hidden, 1, &object), CKR_USER_NOT_LOGGED_IN);

  CK_MECHANISM withParameter{CKM_RSA_PKCS, &yes, sizeof(yes)};
  EXPECT_EQ(List().C_VerifyInit(session_, &withParameter, keys_.publicKey), CKR_MECHANISM_PARAM_INVALID);
  EXPECT_EQ(List().C_VerifyInit(session_, nullptr, keys_.publicKey), CKR_ARGUMENTS_BAD);
  CK_MECHANISM unknown{CKM_MD5_RSA_PKCS, nullptr, 0};
  EXPECT_EQ(List().C_VerifyInit(session_, &unknown, keys_.publicKey), CKR_MECHANISM_INVALID);
  CK_MECHANISM generation{CKM_RSA_PKCS_KEY_PAIR_GEN, nullptr, 0};
  CK_OBJECT_HANDLE other = 0;
  EXPECT_EQ(List().C_GenerateKeyPair(session_, &generation, nullptr, 0, nullptr, 0, &object, &other),
            CKR_USER_NOT_LOGGED_IN);
}

TEST_F(FakeToken, ResetEndsStrictness) {
  Token().SetStrict(true);
  SetUp();
  EXPECT_EQ(FindPrivateKey(), keys_.privateKey);
}

}  // namespace
