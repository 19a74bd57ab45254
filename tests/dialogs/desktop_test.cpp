// Where dialogs are shown at all: not in a session without a desktop that anybody sees, and not under an owner that is
// gone.
#include <optional>
#include <string>
#include <vector>

#include "kit/readers.h"
#include "login_fixture.h"

namespace {

using kit::Hook;
using kit::Line;

// The window station of a service, or one that cannot be asked.
class Station {
 public:
  explicit Station(std::optional<DWORD> flags)
      : flags_(flags), information_([this](auto, HANDLE station, int index, PVOID data, DWORD size, LPDWORD) -> BOOL {
          EXPECT_EQ(station, GetProcessWindowStation());
          EXPECT_EQ(index, UOI_FLAGS);
          EXPECT_EQ(size, DWORD{sizeof(USEROBJECTFLAGS)});
          if (!flags_) return FALSE;
          static_cast<USEROBJECTFLAGS*>(data)->dwFlags = *flags_;
          return TRUE;
        }) {}

 private:
  std::optional<DWORD> flags_;
  Hook<"GetUserObjectInformationW", decltype(&GetUserObjectInformationW)> information_;
};

bool Holds(const std::string& text) {
  for (const Line& line : kit::Log::Get().Take()) {
    if (line.text == text) return true;
  }
  return false;
}

class DesktopTest : public LoginTest {};

TEST_F(DesktopTest, WithoutAVisibleDesktopNoPinDialogWaits) {
  const Station station(DWORD{0});
  kit::DialogRobot robot;
  EXPECT_EQ(Sign(), NTE_NOT_FOUND);
  EXPECT_EQ(robot.Finish(), 0u);
  EXPECT_EQ(robot.created(), 0u);
  EXPECT_TRUE(Holds("Login dialog exited with code: 0x000005B3"));
}

TEST_F(DesktopTest, WithoutAVisibleDesktopNoReaderDialogWaits) {
  AddReader("Reader 1");
  const kit::Readers readers({L"Reader 0", L"Reader 1"});
  const Station station(DWORD{0});
  kit::DialogRobot robot;
  NCRYPT_PROV_HANDLE provider = 0;
  EXPECT_EQ(ksp().OpenProvider(&provider, kit::kProviderName, 0), NTE_FAIL);
  EXPECT_EQ(robot.Finish(), 0u);
  EXPECT_EQ(robot.created(), 0u);
  EXPECT_TRUE(Holds("NTE_FAIL: Dialog Failed: 0x000005B3"));
  EXPECT_EQ(readers.released, 0);  // nor was a context established
}

TEST_F(DesktopTest, AVisibleDesktopOrOneThatCannotBeAskedShowsTheDialog) {
  for (const std::optional<DWORD> flags : {std::optional<DWORD>(WSF_VISIBLE), std::optional<DWORD>()}) {
    const Station station(flags);
    EXPECT_EQ(SignWith([](kit::Dialog& dialog) { dialog.PressCancel(); }), kCancelledByUser);
  }
}

// The platform answers 0 for an owner that ends while the dialog is made.
TEST_F(DesktopTest, AnOwnerThatGoesWhileTheDialogIsMadeIsAFailureWithItsCode) {
  const Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> hook(
      [](auto, HINSTANCE, LPCWSTR, HWND, DLGPROC, LPARAM) -> INT_PTR {
        SetLastError(ERROR_INVALID_WINDOW_HANDLE);
        return 0;
      });
  EXPECT_EQ(Sign(), NTE_NOT_FOUND);
  EXPECT_TRUE(Holds("Login dialog exited with code: 0x00000578"));
}

TEST_F(DesktopTest, TheDialogAsksForTheForeground) {
  std::vector<HWND> raised;
  const Hook<"SetForegroundWindow", decltype(&SetForegroundWindow)> hook([&](auto original, HWND window) {
    raised.push_back(window);
    return original(window);
  });
  HWND shown = nullptr;
  SignWith([&](kit::Dialog& dialog) { shown = dialog.window(); });
  EXPECT_EQ(raised, std::vector<HWND>{shown});
}

// Any program of the user can write into a window: what the DLL knows of its windows does not lie there.
TEST_F(DesktopTest, WhatAnotherProgramStoresInTheWindowsIsNotBelieved) {
  EXPECT_EQ(SignWith([](kit::Dialog& dialog) {
              constexpr LONG_PTR kAnywhere = 0x1234;
              SetWindowLongPtrW(dialog.window(), DWLP_USER, kAnywhere);
              for (const int control : {kit::kPinField, kit::kStatusLine, IDOK})
                SetWindowLongPtrW(dialog.control(control), GWLP_USERDATA, kAnywhere);
              dialog.Send(0, WM_INITDIALOG, 0, kAnywhere);
              dialog.Type(kit::kPinField, L"1234");
              dialog.PressOk();
            }),
            0);
}

// ... nor what it sends before the platform has told the dialog who it belongs to.
TEST_F(DesktopTest, AnObjectOfNobodysIsNotBelieved) {
  const Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> hook(
      [](auto original, HINSTANCE module, LPCWSTR name, HWND parent, DLGPROC procedure, LPARAM object) -> INT_PTR {
        EXPECT_EQ(procedure(GetDesktopWindow(), WM_INITDIALOG, 0, 0x1234), 0);
        EXPECT_EQ(procedure(GetDesktopWindow(), WM_COMMAND, IDOK, 0), 0);
        return original(module, name, parent, procedure, object);
      });
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

}  // namespace
