// A token with one slot and an open session, for the classes that work on it.
#pragma once

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

  const CryptokiModule* module_ = nullptr;
};
