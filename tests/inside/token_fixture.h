// A token with one slot and an open session, for the classes that work on it.
#pragma once

#include <string>
#include <vector>

#include "kit/bytes.h"
#include "kit/provider.h"
#include "token/cryptoki_module.h"

// The session that the first opening hands out.
inline constexpr CK_SESSION_HANDLE kSession = 0x51;

class TokenTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static const CryptokiModule* const loaded = [] {
      kit::LoadTokenModule(kit::TokenModule::Working);
      return new CryptokiModule();
    }();
    module_ = loaded;
    token().Reset();
    token().AddSlot("Reader 0");
    CK_SESSION_HANDLE session = 0;
    ASSERT_EQ(module_->Functions().C_OpenSession(11, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session),
              CKR_OK);
    ASSERT_EQ(session, kSession);
    token().ClearCalls();
  }
  static fake::Module& token() { return fake::Token(); }
  template <typename Object>
  Object& Bind(Object& object) const {
    object.SetSession(kSession);
    object.SetModule(module_);
    return object;
  }
  void ExpectCalls(const std::vector<std::string>& expected) { KIT_EXPECT_CALLS(expected); }

  const CryptokiModule* module_ = nullptr;
};

// Answers of creations: an argument is missing, a part of the key is missing, a private key never is created.
inline constexpr CK_RV kArgumentsBad = 7;
inline constexpr CK_RV kIncomplete = 208;
inline constexpr CK_RV kNeverCreates = 400;

// What the tests of the token's objects fill them with.
class TokenObjectsTest : public TokenTest {
 protected:
  static CK_ULONG Size(const fake::Bytes& bytes) { return static_cast<CK_ULONG>(bytes.size()); }

  const fake::Bytes exponent_{0x01, 0x00, 0x01, 0x09};
  const fake::Bytes id_ = kit::Counting(64, 0x80);
};
