// The token module by itself: what a load that fails says, and the login of the token maker.
#include "token/cryptoki_module.h"

#include <string>
#include <vector>

#include "inside/token_fixture.h"
#include "kit/process.h"

namespace {

using fake::Ascii;
using fake::Bytes;

class CryptokiModuleTest : public TokenObjectsTest {};

std::string LoadResult() {
  return CryptokiModule().Ready() ? "loaded" : "failed";
}

TEST_F(CryptokiModuleTest, FailedLoadIsNotReady) {
  EXPECT_EQ(LoadResult(), "loaded");
  token().Fail("C_Initialize", CKR_GENERAL_ERROR);
  EXPECT_EQ(LoadResult(), "failed");
  token().SetFunctionListResult(CKR_DEVICE_ERROR);
  kit::LoadTokenModule(kit::TokenModule::Working);
  EXPECT_EQ(LoadResult(), "failed");
  token().SetFunctionListResult(CKR_OK);
  kit::LoadTokenModule(kit::TokenModule::Working);
}

const kit::Scenario kMissingModule("missing_module", [] {
  kit::Print(LoadResult());
  return 0;
});

TEST_F(CryptokiModuleTest, MissingModuleIsNotReady) {
  const kit::ChildResult child = kit::RunChild("missing_module");
  EXPECT_EQ(child.exitCode, 0u);
  EXPECT_EQ(child.lines, std::vector<std::string>{"failed"});
}

TEST_F(CryptokiModuleTest, LoginIsTheEntryAtPosition74AndAlwaysTheUsers) {
  const Bytes pin = Ascii("1234");
  EXPECT_EQ(module_->Login(kSession, pin.data(), 4), CKR_OK);
  ExpectCalls({"VendorLogin(session=0x51, user=1, pin=31323334)"});
  for (const CK_RV code : {CK_RV{1}, CK_RV{14}, CKR_PIN_LOCKED, CKR_VENDOR_DEFINED}) {
    token().Fail("VendorLogin", code);
    EXPECT_EQ(module_->Login(kSession, pin.data(), 4), code) << "as the token answers";
  }
}

}  // namespace
