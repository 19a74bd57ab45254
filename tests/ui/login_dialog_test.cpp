// The PIN dialog without what Login gives it.
#include "ui/login_dialog.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "inside/process_objects.h"
#include "kit/dialogs.h"
#include "kit/imports.h"
#include "kit/registry.h"

namespace {

constexpr unsigned char kSerial[] = "SERIAL0         ";

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

class LoginDialogTest : public InsideTest {
 protected:
  void SetUp() override { AddToken(); }

  void SetAll(CLogin& dialog) {
    dialog.SetCryptoki(g_Cryptoki);
    dialog.SetSession(session_);
    dialog.SetPinManager(g_PinManager);
    dialog.SetSerialNumber(kSerial);
    TakeLines();
  }
  // Shows the dialog, types a PIN, presses the button; the dialog has to end by that.
  static std::int32_t Press(CLogin& dialog, int button) {
    kit::DialogRobot robot({[button](kit::Dialog& shown) {
      shown.Type(kit::kPinField, L"1234");
      shown.Press(button);
      while (IsWindow(shown.window()))
        Sleep(1);
    }});
    return static_cast<std::int32_t>(dialog.DoModal());
  }
  static std::int32_t PressOk(CLogin& dialog) { return Press(dialog, IDOK); }
};

TEST_F(LoginDialogTest, ASerialNumberIsNeeded) {
  CLogin dialog(nullptr);
  TakeLines();
  try {
    dialog.SetSerialNumber(nullptr);
    FAIL() << "nothing was thrown";
  } catch (const StatusError& error) {
    EXPECT_STREQ(error.what(), "Failed to set slot serial number");
    EXPECT_EQ(error.Code(), NTE_INVALID_PARAMETER);
  }
  EXPECT_EQ(TakeLines(),
            (std::vector<std::string>{"Setting slot serial number", "NTE_INVALID_PARAMETER - Serial number is NULL"}));
}

TEST_F(LoginDialogTest, TheButtonNamesWhatIsMissing) {
  {
    CLogin dialog(nullptr);
    SetAll(dialog);
    dialog.SetCryptoki(nullptr);
    EXPECT_EQ(PressOk(dialog), NTE_INTERNAL_ERROR);
    EXPECT_EQ(TakeLines(),
              (std::vector<std::string>{"NTE_INTERNAL_ERROR - cryptoki context is not set",
                                        "Initiating cleanup routine - OnBnClickedOk()", "Releasing PIN cache lock",
                                        "Cleanup routine success - OnBnClickedOk()"}));
  }
  {
    CLogin dialog(nullptr);
    SetAll(dialog);
    dialog.SetSession(0);
    EXPECT_EQ(PressOk(dialog), NTE_INVALID_HANDLE);
    EXPECT_TRUE(Holds(TakeLines(), {"NTE_INVALID_HANDLE - cryptoki session handle is not set"}));
  }
  {
    CLogin dialog(nullptr);
    dialog.SetCryptoki(g_Cryptoki);
    dialog.SetSession(session_);
    dialog.SetPinManager(g_PinManager);
    EXPECT_EQ(PressOk(dialog), NTE_INTERNAL_ERROR);
    EXPECT_TRUE(Holds(TakeLines(), {"NTE_INTERNAL_ERROR - slot serial number is not set"}));
  }
  {
    CLogin dialog(nullptr);
    SetAll(dialog);
    dialog.SetPinManager(nullptr);
    EXPECT_EQ(PressOk(dialog), NTE_INTERNAL_ERROR);
    EXPECT_TRUE(Holds(TakeLines(), {"NTE_INTERNAL_ERROR - pin cache context is not set"}));
  }
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
}

TEST_F(LoginDialogTest, TheButtonNamesOnlyTheFirstThatIsMissing) {
  CLogin dialog(nullptr);
  const auto press = [&](SECURITY_STATUS status, const char* line) {
    TakeLines();
    EXPECT_EQ(PressOk(dialog), status);
    EXPECT_EQ(TakeLines(),
              (std::vector<std::string>{line, "Initiating cleanup routine - OnBnClickedOk()",
                                        "Releasing PIN cache lock", "Cleanup routine success - OnBnClickedOk()"}));
  };
  press(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - cryptoki context is not set");
  dialog.SetCryptoki(g_Cryptoki);
  press(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE - cryptoki session handle is not set");
  dialog.SetSession(session_);
  press(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - slot serial number is not set");
  dialog.SetSerialNumber(kSerial);
  press(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR - pin cache context is not set");
}

TEST_F(LoginDialogTest, TheSerialNumberIsCopiedInFull) {
  CLogin dialog(nullptr);
  SetAll(dialog);
  unsigned char serial[17] = "SERIAL\0 0123456";
  dialog.SetSerialNumber(serial);
  const std::string copied(serial, serial + 16);
  std::fill_n(serial, 16, static_cast<unsigned char>('?'));
  EXPECT_EQ(dialog.StorePinToCache(Bytes("1234"), 4), 0);
  DWORD length = 0;
  EXPECT_EQ(g_PinManager->GetPin(serial, nullptr, &length), NTE_NOT_FOUND);
  EXPECT_EQ(g_PinManager->GetPin(Bytes(copied.data()), nullptr, &length), 0);
  EXPECT_EQ(length, 4u);
}

TEST_F(LoginDialogTest, CancelWorksWithoutAPinManager) {
  CLogin dialog(nullptr);
  TakeLines();
  EXPECT_EQ(Press(dialog, IDCANCEL), IDCANCEL);
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Login cancelled", "Releasing PIN cache lock"}));
}

TEST_F(LoginDialogTest, TheFlagIsUpWhileTheDialogIsOpen) {
  CLogin dialog(nullptr);
  SetAll(dialog);
  std::uint32_t during = 0;
  kit::DialogRobot robot({[&](kit::Dialog& shown) {
    during = g_PinManager->DialogFlag();
    shown.PressCancel();
    while (IsWindow(shown.window()))
      Sleep(1);
  }});
  EXPECT_EQ(g_PinManager->DialogFlag(), 0u);
  EXPECT_EQ(dialog.DoModal(), IDCANCEL);
  EXPECT_EQ(during, 1u);
  EXPECT_EQ(g_PinManager->DialogFlag(), 0u);
}

TEST_F(LoginDialogTest, ADialogThatFindsTheFlagUpEndsAndLeavesIt) {
  g_PinManager->DialogFlag() = 1;
  {
    CLogin dialog(nullptr);
    SetAll(dialog);
    EXPECT_EQ(dialog.DoModal(), IDCANCEL);
    EXPECT_EQ(TakeLines(), std::vector<std::string>{});
  }
  EXPECT_EQ(g_PinManager->DialogFlag(), 1u);
}

TEST_F(LoginDialogTest, LoginNamesWhatIsMissing) {
  CLogin dialog(nullptr);
  TakeLines();
  // In this order: all that follows is missing, too.
  EXPECT_EQ(dialog.Login(nullptr, 0), NTE_INTERNAL_ERROR);
  EXPECT_EQ(TakeLines(),
            (std::vector<std::string>{"Login - Entry", "NTE_INTERNAL_ERROR - Cryptographic library not set."}));
  SetAll(dialog);
  EXPECT_EQ(dialog.Login(nullptr, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Login - Entry", "NTE_INVALID_PARAMETER - PIN is NULL"}));
  EXPECT_EQ(dialog.Login(Bytes("1"), 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Login - Entry", "NTE_INVALID_PARAMETER - PIN length is zero"}));
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
}

TEST_F(LoginDialogTest, LoginTranslatesWhatTheTokenSays) {
  CLogin dialog(nullptr);
  SetAll(dialog);
  const std::vector<std::pair<CK_RV, SECURITY_STATUS>> table{{0, 0},
                                                             {0x100, 0},
                                                             {1, SCARD_W_WRONG_CHV},
                                                             {14, SCARD_W_WRONG_CHV},
                                                             {0xA4, SCARD_W_CHV_BLOCKED},
                                                             {15, NTE_FAIL},
                                                             {0x30, NTE_INTERNAL_ERROR},
                                                             {0xA0, ERROR_LOGON_FAILURE},
                                                             {0xA2, NTE_INVALID_PARAMETER},
                                                             {0xFFFFFFFF, NTE_FAIL}};
  for (const auto& [result, status] : table) {
    token().Fail("VendorLogin", result);
    EXPECT_EQ(dialog.Login(Bytes("1234"), 4), status) << result;
  }
}

TEST_F(LoginDialogTest, StoringNamesWhatIsMissing) {
  CLogin dialog(nullptr);
  const auto expect = [&](SECURITY_STATUS status, const unsigned char* pin, DWORD length, const char* line) {
    TakeLines();
    EXPECT_EQ(dialog.StorePinToCache(pin, length), status);
    EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Checking PIN cache setting", "Storing PIN to PIN cache", line}));
  };
  // In this order: all that follows is missing, too.
  expect(NTE_INTERNAL_ERROR, nullptr, 0, "NTE_INTERNAL_ERROR - pin cache is not set");
  dialog.SetPinManager(g_PinManager);
  expect(NTE_INTERNAL_ERROR, nullptr, 0, "NTE_INTERNAL_ERROR - slot serial number is not set");
  dialog.SetSerialNumber(kSerial);
  expect(NTE_INVALID_PARAMETER, nullptr, 0, "NTE_INVALID_PARAMETER - PIN is NULL");
  expect(NTE_INVALID_PARAMETER, Bytes("1"), 0, "NTE_INVALID_PARAMETER - PIN length is zero");
  EXPECT_EQ(dialog.StorePinToCache(Bytes("1"), 1), 0);
}

TEST_F(LoginDialogTest, StoringTakesTheCachesRefusalForSuccess) {
  CLogin dialog(nullptr);
  SetAll(dialog);
  kit::Registry::Get().SetString(kit::kSdkKey, L"PINCACHE", L"0");
  EXPECT_EQ(dialog.StorePinToCache(Bytes("1"), 1), 0);
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Checking PIN cache setting", "Storing PIN to PIN cache",
                                                   "Checking PIN caching setting"}));
  DWORD length = 0;
  EXPECT_EQ(g_PinManager->GetPin(kSerial, nullptr, &length), NTE_NOT_FOUND);
}

// The setting that would forbid caching has eight characters, and the buffer has room for seven.
TEST_F(LoginDialogTest, TheDialogsOwnGateOpensForEverySetting) {
  CLogin dialog(nullptr);
  for (const wchar_t* setting : {L"", L"0", L"0000000", L"00000000", L"000000000"}) {
    SetAll(dialog);
    kit::Registry::Get().SetString(kit::kSdkKey, L"PINCACHE", setting);
    EXPECT_EQ(dialog.StorePinToCache(Bytes("1"), 1), 0);
    EXPECT_TRUE(Holds(TakeLines(), {"Checking PIN cache setting", "Storing PIN to PIN cache"}));
  }
}

TEST_F(LoginDialogTest, TheDialogsOwnGateReadsATextOfTheSettingsKey) {
  CLogin dialog(nullptr);
  int reads = 0;
  kit::Hook<"RegGetValueW", decltype(&RegGetValueW)> hook(
      [&](auto, HKEY key, LPCWSTR subKey, LPCWSTR value, DWORD flags, LPDWORD, PVOID data, LPDWORD size) -> LSTATUS {
        ++reads;
        EXPECT_EQ(key, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(subKey, kit::kSdkKey);
        EXPECT_STREQ(value, L"PINCACHE");
        EXPECT_EQ(flags, DWORD{RRF_RT_REG_SZ});
        EXPECT_EQ(*size, 16u);
        // A text that never comes out of the registry.
        std::fill_n(static_cast<wchar_t*>(data), 7, L'0');
        return ERROR_SUCCESS;
      });
  TakeLines();
  EXPECT_EQ(dialog.StorePinToCache(Bytes("1"), 1), NTE_INTERNAL_ERROR) << "seven zeros do not forbid";
  EXPECT_EQ(reads, 1);
}

// Looks at the PIN while the dialog is open.
class LookingLogin : public CLogin {
 public:
  LookingLogin() : CLogin(nullptr) {}
  std::function<void()> look;

 protected:
  void OnOK() override {
    look();
    OnCancel();
  }
};

TEST_F(LoginDialogTest, RetrievesThePinIntoRoomEnough) {
  LookingLogin dialog;
  dialog.look = [&] {
    TakeLines();
    EXPECT_EQ(dialog.RetrievePIN(nullptr, nullptr), NTE_INVALID_PARAMETER);
    const std::vector<std::string> end{"Initiating cleanup routine - RetrievePIN",
                                       "Cleanup routine success - RetrievePIN", "Retrieve PIN - Exit"};
    EXPECT_TRUE(Holds(TakeLines(), {"Retrieve PIN - Enter", "NTE_INVALID_PARAMETER - PIN length buffer is null"}));
    char pin[6] = "-----";
    DWORD length = 3;
    EXPECT_EQ(dialog.RetrievePIN(pin, &length), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 4u);
    EXPECT_STREQ(pin, "-----");
    const std::vector<std::string> lines = TakeLines();
    EXPECT_TRUE(Holds(lines, {"Retrieve PIN - Enter", "NTE_BUFFER_TOO_SMALL - PIN buffer is too small", "*pcbPIN = 3",
                              "cchPIN = 4"}));
    EXPECT_TRUE(Holds(lines, end));
    length = 5;
    EXPECT_EQ(dialog.RetrievePIN(pin, &length), 0);
    EXPECT_STREQ(pin, "1234-");
    EXPECT_EQ(length, 5u) << "the length is the caller's";
  };
  EXPECT_EQ(Press(dialog, IDOK), IDCANCEL);
}

// A dialog whose field is an ordinary password field.
class PlainLogin : public CLogin {
 public:
  PlainLogin() : CLogin(nullptr) { pinField_.SetSecure(false); }
  CSecureEditEx& field() { return pinField_; }
};

TEST_F(LoginDialogTest, OutsideSecureModeTheFieldOnlyCounts) {
  PlainLogin dialog;
  TakeLines();
  kit::DialogRobot robot({[&](kit::Dialog& shown) {
    shown.Type(kit::kPinField, L"1234");
    EXPECT_EQ(shown.text(kit::kPinField), L"1234");
    EXPECT_EQ(dialog.field().Count(), 4u);
    EXPECT_STREQ(dialog.field().RealText().data(), L"1234");
    shown.Send(kit::kPinField, WM_CHAR, VK_BACK, 1);
    EXPECT_EQ(dialog.field().Count(), 3u);
    shown.PressCancel();
    EXPECT_EQ(dialog.field().Count(), 0u);
    EXPECT_EQ(shown.text(kit::kPinField), L"");
  }});
  EXPECT_EQ(dialog.DoModal(), IDCANCEL);
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"Login cancelled", "Releasing PIN cache lock"}));
}

// An exception in a message handler ends the dialog and comes out where it was shown.
class ThrowingLogin : public CLogin {
 public:
  ThrowingLogin() : CLogin(nullptr) {}

 protected:
  void OnOK() override { throw std::runtime_error("thrown in a handler"); }
};

TEST_F(LoginDialogTest, AnExceptionInAHandlerComesOutOfDoModal) {
  {
    ThrowingLogin dialog;
    SetAll(dialog);
    EXPECT_THROW(PressOk(dialog), std::runtime_error);
    EXPECT_EQ(g_PinManager->DialogFlag(), 1u);
  }
  EXPECT_EQ(g_PinManager->DialogFlag(), 0u) << "the dialog that raised the flag is gone";
}

// The controls of the first window are forgotten with it.
TEST_F(LoginDialogTest, CanBeShownAgain) {
  CLogin dialog(nullptr);
  SetAll(dialog);
  EXPECT_EQ(Press(dialog, IDCANCEL), IDCANCEL);
  EXPECT_EQ(dialog.Handle(), nullptr);
  EXPECT_EQ(PressOk(dialog), IDOK);
  EXPECT_EQ(token().Count("VendorLogin"), 1u);
  EXPECT_TRUE(token().SlotAt(0).loggedIn);
}

// Ends by an exception with the second press of the button.
class SecondPressThrows : public CLogin {
 public:
  SecondPressThrows() : CLogin(nullptr) {}

 protected:
  void OnOK() override {
    if (pressed_) throw std::runtime_error("thrown in a handler");
    pressed_ = true;
    CLogin::OnOK();
  }

 private:
  bool pressed_ = false;
};

TEST_F(LoginDialogTest, ADialogThatHasLoweredTheFlagLeavesItToOthers) {
  // By a wrong PIN; another dialog raises it then.
  {
    SecondPressThrows dialog;
    SetAll(dialog);
    token().Fail("VendorLogin", 3);
    kit::DialogRobot robot({[&](kit::Dialog& shown) {
      shown.Type(kit::kPinField, L"1234");
      shown.PressOk();
      EXPECT_EQ(g_PinManager->DialogFlag(), 0u);
      g_PinManager->DialogFlag() = 1;
      shown.PressOk();
    }});
    EXPECT_THROW(dialog.DoModal(), std::runtime_error);
  }
  EXPECT_EQ(g_PinManager->DialogFlag(), 1u);
  // By its end.
  for (const int button : {IDOK, IDCANCEL}) {
    g_PinManager->DialogFlag() = 0;
    {
      CLogin dialog(nullptr);
      SetAll(dialog);
      EXPECT_EQ(Press(dialog, button), button);
      EXPECT_EQ(g_PinManager->DialogFlag(), 0u);
      g_PinManager->DialogFlag() = 1;
    }
    EXPECT_EQ(g_PinManager->DialogFlag(), 1u);
  }
}

}  // namespace
