// Login and Logout without what they need.
#include "login/login.h"

#include <utility>

#include "inside/process_objects.h"

namespace {

class LoginGateTest : public InsideTest {
 protected:
  void SetUp() override {
    AddToken();
    provider_.hSession = session_;
    provider_.slotId = token().SlotAt(0).id;
  }

  KELDAKSP_PROVIDER provider_{};
};

TEST_F(LoginGateTest, LoginNeedsAProvider) {
  EXPECT_EQ(Login(nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), std::vector<std::string>{"NTE_INVALID_PARAMETER - Provider context is NULL"});
}

TEST_F(LoginGateTest, LoginNeedsTheTokenModule) {
  CryptokiModule* module = std::exchange(g_Cryptoki, nullptr);
  EXPECT_EQ(Login(&provider_), NTE_INVALID_PARAMETER);
  g_Cryptoki = module;
  EXPECT_EQ(TakeLines(), std::vector<std::string>{"NTE_INVALID_PARAMETER - Cryptoki library context is NULL"});
}

TEST_F(LoginGateTest, LoginNeedsThePinManager) {
  PinManager* manager = std::exchange(g_PinManager, nullptr);
  EXPECT_EQ(Login(&provider_), NTE_INVALID_PARAMETER);
  g_PinManager = manager;
  EXPECT_EQ(TakeLines(), std::vector<std::string>{"NTE_INVALID_PARAMETER - PIN Manager context is NULL"});
}

TEST_F(LoginGateTest, LoginWithoutALogWorksAllTheSame) {
  const LogPointer pinLog = std::exchange(g_PinLog, LogPointer());
  token().Fail("C_GetTokenInfo", 5);
  EXPECT_EQ(Login(&provider_), NTE_INTERNAL_ERROR);
  g_PinLog = pinLog;
  EXPECT_EQ(TakeLines(), std::vector<std::string>{});
}

TEST_F(LoginGateTest, LogoutNeedsProviderAndTokenModule) {
  EXPECT_EQ(Logout(nullptr), NTE_INVALID_PARAMETER);
  CryptokiModule* module = std::exchange(g_Cryptoki, nullptr);
  EXPECT_EQ(Logout(&provider_), NTE_INVALID_PARAMETER);
  g_Cryptoki = module;
  EXPECT_EQ(TakeLines(), std::vector<std::string>{});
  EXPECT_EQ(token().Calls().size(), 0u);
}

TEST_F(LoginGateTest, LogoutForgetsTheProvidersPinAndLeavesItsBuffer) {
  wchar_t pin[] = L"1234";
  provider_.pPinCache = pin;
  provider_.cchPinCache = 4;
  token().SlotAt(0).loggedIn = true;
  EXPECT_EQ(Logout(&provider_), 0);
  EXPECT_EQ(provider_.pPinCache, nullptr);
  EXPECT_EQ(provider_.cchPinCache, 0u);
  // The count of characters is taken for bytes: half of the PIN is wiped.
  EXPECT_EQ(pin[0], L'\0');
  EXPECT_EQ(pin[1], L'\0');
  EXPECT_EQ(pin[2], L'3');
  EXPECT_EQ(pin[3], L'4');
  EXPECT_FALSE(token().SlotAt(0).loggedIn);
  // A session that is not logged in counts as success.
  EXPECT_EQ(Logout(&provider_), 0);
  EXPECT_EQ(TakeLines(), std::vector<std::string>{});
}

TEST_F(LoginGateTest, ALogoutThatFailsKeepsTheProvidersPin) {
  wchar_t pin[] = L"1234";
  for (const CK_RV result : {CK_RV{0xB3}, CK_RV{0x100}, CK_RV{0x30}}) {
    provider_.pPinCache = pin;
    provider_.cchPinCache = 4;
    token().Fail("C_Logout", result);
    EXPECT_EQ(Logout(&provider_), NTE_INTERNAL_ERROR);
    EXPECT_EQ(provider_.pPinCache, pin);
    EXPECT_EQ(provider_.cchPinCache, 4u);
    EXPECT_STREQ(pin, L"1234");
  }
}

}  // namespace
