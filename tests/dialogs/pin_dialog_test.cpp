// The PIN dialog: its looks, its field, its buttons.
#include <algorithm>
#include <array>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "login_fixture.h"

#include <wincrypt.h>

namespace {

using kit::Dialog;
using kit::Hook;
using kit::kPinField;
using kit::kStatusLine;
using kit::MemoryWatch;
using kit::Pin;

constexpr int kLogo = 1002;
constexpr int kCaption = 1003;

std::wstring ClassOf(HWND window) {
  wchar_t name[64] = {};
  GetClassNameW(window, name, 64);
  return name;
}

std::array<LONG, 4> PlaceOf(HWND dialog, HWND control) {
  RECT rect;
  GetWindowRect(control, &rect);
  MapWindowPoints(nullptr, dialog, reinterpret_cast<POINT*>(&rect), 2);
  return {rect.left, rect.top, rect.right - rect.left, rect.bottom - rect.top};
}

// Dialog units to pixels, with the dialog's own font.
std::array<LONG, 4> Pixels(HWND dialog, int x, int y, int width, int height) {
  RECT rect{x, y, width, height};
  MapDialogRect(dialog, &rect);
  return {rect.left, rect.top, rect.right, rect.bottom};
}

DWORD StyleOf(HWND window) {
  return static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE));
}

INT_PTR CALLBACK IgnoreEverything(HWND, UINT, WPARAM, LPARAM) {
  return FALSE;
}

class PinDialogTest : public LoginTest {
 protected:
  // Types the characters, does what the script does to the field, and expects the resulting PIN to reach the token.
  void ExpectPin(const std::wstring& typed, const std::function<void(Dialog&)>& script, const std::string& pin) {
    slot().loggedIn = false;
    slot().serial += "+";
    slot().pin = pin;
    Forget();
    const SECURITY_STATUS status = SignWith([&](Dialog& dialog) {
      dialog.Type(kPinField, typed);
      script(dialog);
      EXPECT_EQ(dialog.text(kPinField), std::wstring(pin.size(), L'*'));
      dialog.PressOk();
      EXPECT_FALSE(dialog.open()) << Narrow(dialog.text(kStatusLine));
    });
    EXPECT_EQ(status, 0);
    const std::vector<fake::Call> calls = token().Calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[1].function, "VendorLogin");
    EXPECT_EQ(std::string(calls[1].data.begin(), calls[1].data.end()), pin);
  }
  static std::string Narrow(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t c : text)
      narrow += static_cast<char>(c);
    return narrow;
  }
  static std::pair<DWORD, DWORD> Selection(const Dialog& dialog) {
    DWORD start = 0;
    DWORD end = 0;
    dialog.Send(kPinField, EM_GETSEL, reinterpret_cast<WPARAM>(&start), reinterpret_cast<LPARAM>(&end));
    return {start, end};
  }
  static void Select(const Dialog& dialog, int start, int end) {
    dialog.Send(kPinField, EM_SETSEL, static_cast<WPARAM>(start), end);
  }
  // The lines between "PIN cache is empty" and the end of the login.
  Lines AfterDialogShown() {
    Lines lines = LoginLines();
    const auto shown = std::find(lines.begin(), lines.end(), Pin("PIN cache is empty"));
    return shown == lines.end() ? lines : Lines(shown + 1, lines.end());
  }
  static Lines Cancelled() {
    return PinLines({"Login cancelled", "Releasing PIN cache lock",
                     "SCARD_W_CANCELLED_BY_USER: PIN submission has been cancelled by the user."}) +
           Cleanup();
  }
  static Lines WrongPin(const std::string& status) {
    Lines lines = AttemptLines() + PinLines({status}) + ButtonDone();
    lines.pop_back();  // the dialog stays open
    return lines;
  }
  static Lines ExitedWith(DWORD code) {
    return PinLines({kit::Hex32("Login dialog exited with code: ", code)}) + Cleanup();
  }
};

TEST_F(PinDialogTest, IsLaidOutAsDesigned) {
  struct Control {
    int id;
    const wchar_t* type;
    int x, y, width, height;
    const wchar_t* text;
    DWORD style;
  };
  const std::vector<Control> controls{
      {kLogo, L"Static", 17, 14, 54, 50, nullptr, SS_BITMAP | SS_REALSIZEIMAGE},
      {-1, L"Button", 6, 3, 230, 80, L"", BS_GROUPBOX},
      {kPinField, L"Edit", 97, 21, 125, 14, L"", ES_PASSWORD | ES_AUTOHSCROLL | WS_TABSTOP},
      {IDOK, L"Button", 97, 56, 56, 15, L"Login", BS_DEFPUSHBUTTON | WS_TABSTOP},
      {IDCANCEL, L"Button", 166, 56, 56, 15, L"Cancel", BS_PUSHBUTTON | WS_TABSTOP},
      {kCaption, L"Static", 80, 23, 15, 8, L"PIN:", SS_LEFT},
      {kStatusLine, L"Static", 98, 41, 124, 8, L"", SS_CENTER},
      {-1, L"Static", 12, 66, 68, 8, L"Key Storage Provider", SS_LEFTNOWORDWRAP}};
  SignWith([&](Dialog& dialog) {
    RECT client;
    GetClientRect(dialog.window(), &client);
    const auto size = Pixels(dialog.window(), 0, 0, 242, 90);
    EXPECT_EQ(client.right, size[2]);
    EXPECT_EQ(client.bottom, size[3]);
    HWND window = GetWindow(dialog.window(), GW_CHILD);
    for (const Control& control : controls) {
      SCOPED_TRACE("control " + std::to_string(control.id));
      ASSERT_NE(window, nullptr);
      EXPECT_EQ(GetDlgCtrlID(window), control.id);
      EXPECT_EQ(ClassOf(window), control.type);
      auto place = PlaceOf(dialog.window(), window);
      auto wanted = Pixels(dialog.window(), control.x, control.y, control.width, control.height);
      if (control.id == kLogo) {
        // A picture of real size makes its control as large as it is; the box is only roughly filled.
        EXPECT_EQ(dialog.Send(kLogo, STM_GETIMAGE, IMAGE_BITMAP) != 0, true);
        EXPECT_LE(place[2], wanted[2]);
        EXPECT_LE(place[3], wanted[3]);
        place[2] = wanted[2];
        place[3] = wanted[3];
      }
      EXPECT_EQ(place, wanted);
      if (control.text != nullptr) {
        EXPECT_EQ(Dialog::TextOf(window), control.text);
      }
      EXPECT_EQ(StyleOf(window) & control.style, control.style);
      EXPECT_TRUE(IsWindowVisible(window));
      if (control.id == kPinField) {
        // The platform may draw the border as an edge.
        EXPECT_TRUE((StyleOf(window) & WS_BORDER) != 0 ||
                    (GetWindowLongW(window, GWL_EXSTYLE) & WS_EX_CLIENTEDGE) != 0);
      }
      EXPECT_TRUE(IsWindowEnabled(window));
      window = GetWindow(window, GW_HWNDNEXT);
    }
    EXPECT_EQ(window, nullptr);

    LOGFONTW font{};
    const auto handle = reinterpret_cast<HFONT>(dialog.Send(0, WM_GETFONT));
    ASSERT_NE(GetObjectW(handle, sizeof font, &font), 0);
    EXPECT_STREQ(font.lfFaceName, L"MS Shell Dlg");
  });
}

TEST_F(PinDialogTest, TheSiblingsTemplateIsKept) {
  const HMODULE module = kit::Provider::Get().module();
  HWND dialog = CreateDialogParamW(module, MAKEINTRESOURCEW(112), nullptr, &IgnoreEverything, 0);
  ASSERT_NE(dialog, nullptr);
  RECT client;
  GetClientRect(dialog, &client);
  EXPECT_EQ(client.bottom, Pixels(dialog, 0, 0, 242, 93)[3]);
  std::vector<std::wstring> texts;
  std::vector<int> ids;
  for (HWND window = GetWindow(dialog, GW_CHILD); window != nullptr; window = GetWindow(window, GW_HWNDNEXT)) {
    ids.push_back(GetDlgCtrlID(window));
    if (ids.back() != kLogo) texts.push_back(Dialog::TextOf(window));
  }
  EXPECT_EQ(ids, (std::vector<int>{kLogo, -1, kPinField, IDOK, IDCANCEL, kCaption, kStatusLine, -1}));
  EXPECT_EQ(texts, (std::vector<std::wstring>{L"", L"", L"Login", L"Cancel", L"PIN:", L"Incorrect PIN. XX retries left",
                                              L" Cryptographic Service Provider"}));
  DestroyWindow(dialog);
}

TEST_F(PinDialogTest, CaptionNamesTheTokenWithoutItsPadding) {
  struct Case {
    std::string label;
    const wchar_t* caption;
  };
  for (const Case& c : {Case{"My token", L"Enter PIN for My token"}, Case{"", L"Enter PIN for "},
                        Case{"x", L"Enter PIN for x"}, Case{" a  b ", L"Enter PIN for  a  b"},
                        Case{"01234567890123456789012345678901", L"Enter PIN for 01234567890123456789012345678901"},
                        Case{"caf\xE9", L"Enter PIN for caf\xE9"},
                        // A zero byte ends the name, and is no padding.
                        Case{std::string("ab\0cd", 5), L"Enter PIN for ab"},
                        Case{"ab " + std::string(29, '\0'), L"Enter PIN for ab "}}) {
    slot().label = c.label;
    SignWith([&](Dialog& dialog) { EXPECT_EQ(dialog.caption(), c.caption); });
  }
}

TEST_F(PinDialogTest, HasItsIconInBothSizesAndAnEmptyStatusLine) {
  SignWith([](Dialog& dialog) {
    const LRESULT icon = dialog.Send(0, WM_GETICON, ICON_BIG);
    EXPECT_NE(icon, 0);
    const LRESULT smallIcon = dialog.Send(0, WM_GETICON, ICON_SMALL);
    EXPECT_NE(smallIcon, 0);
    const auto width = [](LRESULT of) {
      ICONINFO parts = {};
      BITMAP picture = {};
      EXPECT_TRUE(GetIconInfo(reinterpret_cast<HICON>(of), &parts));
      GetObjectW(parts.hbmMask, sizeof(picture), &picture);
      DeleteObject(parts.hbmMask);
      DeleteObject(parts.hbmColor);
      return picture.bmWidth;
    };
    EXPECT_EQ(width(icon), GetSystemMetrics(SM_CXICON));
    EXPECT_EQ(width(smallIcon), GetSystemMetrics(SM_CXSMICON));
    EXPECT_EQ(dialog.text(kStatusLine), L"");
    EXPECT_EQ(dialog.Send(kPinField, EM_GETLIMITTEXT), 16);
    EXPECT_EQ(dialog.Send(0, DM_GETDEFID), MAKELRESULT(IDOK, DC_HASDEFID));
  });
}

HWND FocusOf(const Dialog& dialog) {
  GUITHREADINFO info{};
  info.cbSize = sizeof info;
  GetGUIThreadInfo(GetWindowThreadProcessId(dialog.window(), nullptr), &info);
  return info.hwndFocus;
}

TEST_F(PinDialogTest, TheFieldHasTheKeyboard) {
  SignWith([](Dialog& dialog) { EXPECT_EQ(FocusOf(dialog), dialog.control(kPinField)); });
}

TEST_F(PinDialogTest, MakesOneFontAndReleasesIt) {
  std::vector<HFONT> made;
  std::vector<HGDIOBJ> released;
  Hook<"CreateFontIndirectW", decltype(&CreateFontIndirectW)> create([&](auto original, const LOGFONTW* font) -> HFONT {
    LOGFONTW wanted{};
    wanted.lfHeight = 16;
    wanted.lfWeight = 700;
    std::copy_n(L"Arial", 6, wanted.lfFaceName);
    EXPECT_EQ(std::memcmp(font, &wanted, sizeof wanted), 0);
    made.push_back(original(font));
    return made.back();
  });
  Hook<"DeleteObject", decltype(&DeleteObject)> release([&](auto original, HGDIOBJ object) -> BOOL {
    released.push_back(object);
    return original(object);
  });
  SignWith([&](Dialog&) { EXPECT_TRUE(released.empty()); });
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(released, std::vector<HGDIOBJ>{made[0]});
}

TEST_F(PinDialogTest, TheStatusLineAloneIsRedBoldArial) {
  SignWith([](Dialog& dialog) {
    HDC context = CreateCompatibleDC(nullptr);
    const auto paint = [&](int id) {
      SetTextColor(context, RGB(1, 2, 3));
      SelectObject(context, GetStockObject(SYSTEM_FONT));
      return dialog.Send(0, WM_CTLCOLORSTATIC, reinterpret_cast<WPARAM>(context),
                         reinterpret_cast<LPARAM>(dialog.control(id)));
    };
    const LRESULT other = paint(kCaption);
    EXPECT_NE(GetTextColor(context), RGB(250, 0, 0));
    EXPECT_EQ(GetCurrentObject(context, OBJ_FONT), GetStockObject(SYSTEM_FONT));

    EXPECT_EQ(paint(kStatusLine), other);
    EXPECT_NE(other, 0);
    EXPECT_EQ(GetTextColor(context), RGB(250, 0, 0));
    LOGFONTW font{};
    GetObjectW(GetCurrentObject(context, OBJ_FONT), sizeof font, &font);
    LOGFONTW wanted{};
    wanted.lfHeight = 16;
    wanted.lfWeight = 700;
    EXPECT_STREQ(font.lfFaceName, L"Arial");
    EXPECT_EQ(font.lfHeight, wanted.lfHeight);
    EXPECT_EQ(font.lfWeight, wanted.lfWeight);
    EXPECT_EQ(font.lfItalic, 0);
    EXPECT_EQ(font.lfWidth, 0);
    EXPECT_EQ(font.lfCharSet, 0);
    DeleteDC(context);
  });
}

TEST_F(PinDialogTest, BelongsToTheWindowOfTheProvider) {
  HWND owner =
      CreateWindowExW(0, L"STATIC", L"owner", WS_OVERLAPPEDWINDOW, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(owner, nullptr);
  kit::RecordOf(provider_)->hWnd = reinterpret_cast<ULONG_PTR>(owner);
  SignWith([&](Dialog& dialog) {
    EXPECT_EQ(GetWindow(dialog.window(), GW_OWNER), owner);
    EXPECT_FALSE(IsWindowEnabled(owner));
  });
  EXPECT_TRUE(IsWindowEnabled(owner));
  kit::RecordOf(provider_)->hWnd = 0;
  SignWith([&](Dialog& dialog) { EXPECT_EQ(GetWindow(dialog.window(), GW_OWNER), nullptr); });
  DestroyWindow(owner);
}

TEST_F(PinDialogTest, AWindowThatIsGoneIsNoOwner) {
  kit::RecordOf(provider_)->hWnd = 0x7FFFFFF0;
  SignWith([&](Dialog& dialog) { EXPECT_EQ(GetWindow(dialog.window(), GW_OWNER), nullptr); });
  kit::RecordOf(provider_)->hWnd = 0;
}

TEST_F(PinDialogTest, ADialogThatCannotBeShownReportsTheLastError) {
  {
    Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> hook(
        [](auto, HINSTANCE, LPCWSTR, HWND, DLGPROC, LPARAM) -> INT_PTR {
          SetLastError(ERROR_RESOURCE_TYPE_NOT_FOUND);
          return -1;
        });
    EXPECT_EQ(Sign(), NTE_NOT_FOUND);
  }
  EXPECT_TRUE(kit::SameLines(ExitedWith(ERROR_RESOURCE_TYPE_NOT_FOUND), AfterDialogShown()));
}

// --- the PIN field

TEST_F(PinDialogTest, ShowsOneAsteriskPerCharacterAndSendsWhatWasTyped) {
  slot().pin = "73914265";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              std::wstring shown;
              for (const wchar_t character : std::wstring(L"73914265")) {
                dialog.Type(kPinField, std::wstring(1, character));
                shown += L'*';
                EXPECT_EQ(dialog.text(kPinField), shown);
                EXPECT_EQ(Selection(dialog), std::make_pair(DWORD(shown.size()), DWORD(shown.size())));
                EXPECT_EQ(dialog.Send(kPinField, EM_CANUNDO), 0);
              }
              dialog.PressOk();
            }),
            0);
  EXPECT_TRUE(kit::SameLines(DialogLogin(), LoginLines()));
  const std::vector<fake::Call> calls = token().Calls();
  EXPECT_EQ(calls[1].text, "VendorLogin(session=0x51, user=1, pin=" + fake::HexOf(fake::Ascii("73914265")) + ")");
}

TEST_F(PinDialogTest, TakesSixteenCharactersAtMost) {
  ExpectPin(
      L"0123456789abcdefXYZ", [](Dialog&) {}, "0123456789abcdef");
}

TEST_F(PinDialogTest, KeepsTheRestWhenACharacterIsDeletedInTheMiddle) {
  // Backspace removes what stands before the caret, Delete what stands behind it.
  ExpectPin(
      L"123456",
      [](Dialog& dialog) {
        Select(dialog, 3, 3);
        dialog.Send(kPinField, WM_CHAR, VK_BACK, 1);
        EXPECT_EQ(Selection(dialog), std::make_pair(DWORD{2}, DWORD{2}));
      },
      "12456");
  ExpectPin(
      L"123456",
      [](Dialog& dialog) {
        Select(dialog, 3, 3);
        dialog.Key(kPinField, VK_DELETE);
      },
      "12356");
  ExpectPin(
      L"123456",
      [](Dialog& dialog) {
        Select(dialog, 0, 0);
        dialog.Key(kPinField, VK_DELETE);
        dialog.Key(kPinField, VK_DELETE);
      },
      "3456");
}

TEST_F(PinDialogTest, TakesCharactersInTheMiddle) {
  ExpectPin(
      L"1256",
      [](Dialog& dialog) {
        Select(dialog, 2, 2);
        dialog.Type(kPinField, L"34");
        EXPECT_EQ(Selection(dialog), std::make_pair(DWORD{4}, DWORD{4}));
        Select(dialog, 0, 0);
        dialog.Type(kPinField, L"0");
      },
      "0123456");
}

TEST_F(PinDialogTest, TakesSeveralCharactersAtOnce) {
  ExpectPin(
      L"16",
      [](Dialog& dialog) {
        Select(dialog, 1, 1);
        dialog.Send(kPinField, EM_REPLACESEL, TRUE, reinterpret_cast<LPARAM>(L"2345"));
      },
      "123456");
}

TEST_F(PinDialogTest, HasNothingToUndo) {
  ExpectPin(
      L"1234",
      [](Dialog& dialog) {
        dialog.Send(kPinField, WM_CHAR, VK_BACK, 1);
        EXPECT_EQ(dialog.Send(kPinField, EM_CANUNDO), 0);
        dialog.Send(kPinField, EM_UNDO);
        dialog.Send(kPinField, WM_UNDO);
      },
      "123");
}

TEST_F(PinDialogTest, HomeOrEndWithAnyShiftKeyEmptiesTheField) {
  for (const WPARAM key : {WPARAM{VK_HOME}, WPARAM{VK_END}}) {
    for (const int shift : {VK_SHIFT, VK_LSHIFT, VK_RSHIFT}) {
      Hook<"GetKeyState", decltype(&GetKeyState)> keys(
          [&](auto, int asked) -> SHORT { return asked == shift ? static_cast<SHORT>(0x8001) : SHORT{1}; });
      ExpectPin(
          L"999",
          [&](Dialog& dialog) {
            dialog.Key(kPinField, key);
            EXPECT_EQ(dialog.text(kPinField), L"");
            EXPECT_EQ(Selection(dialog), std::make_pair(DWORD{0}, DWORD{0}));
            EXPECT_EQ(dialog.Send(kPinField, EM_CANUNDO), 0);
            dialog.Type(kPinField, L"12");
          },
          "12");
    }
  }
}

TEST_F(PinDialogTest, HomeAndEndWithoutShiftOnlyMoveTheCaret) {
  // Up, and up but switched on as Caps Lock would be.
  for (const SHORT state : {SHORT{0}, SHORT{1}}) {
    Hook<"GetKeyState", decltype(&GetKeyState)> keys([=](auto, int) -> SHORT { return state; });
    ExpectPin(
        L"23",
        [](Dialog& dialog) {
          dialog.Key(kPinField, VK_HOME);
          dialog.Type(kPinField, L"1");
          dialog.Key(kPinField, VK_END);
          dialog.Type(kPinField, L"4");
        },
        "1234");
  }
}

TEST_F(PinDialogTest, OtherKeysWithShiftKeepTheField) {
  Hook<"GetKeyState", decltype(&GetKeyState)> keys([](auto, int) -> SHORT { return -1; });
  ExpectPin(
      L"1234", [](Dialog& dialog) { dialog.Key(kPinField, VK_LEFT); }, "1234");
}

TEST_F(PinDialogTest, ASelectionCollapsesToItsStartWithEveryKeyAndMouseMessage) {
  ExpectPin(
      L"1234",
      [](Dialog& dialog) {
        struct Message {
          UINT message;
          WPARAM wParam;
        };
        for (const Message& m :
             {Message{WM_KEYDOWN, VK_F5}, Message{WM_KEYUP, VK_F5}, Message{WM_CHAR, 0x1B}, Message{WM_DEADCHAR, 0x60},
              Message{WM_MOUSEMOVE, 0}, Message{WM_LBUTTONUP, 0}, Message{WM_LBUTTONDBLCLK, MK_LBUTTON},
              Message{WM_RBUTTONDBLCLK, MK_RBUTTON}, Message{WM_MBUTTONUP, 0}, Message{WM_MBUTTONDBLCLK, MK_MBUTTON}}) {
          Select(dialog, 1, 3);
          dialog.Send(kPinField, m.message, m.wParam, MAKELPARAM(3, 3));
          const auto selection = Selection(dialog);
          EXPECT_EQ(selection.first, selection.second) << "message " << std::hex << m.message;
          // A double click has first selected the whole word.
          EXPECT_EQ(selection.first, m.message == WM_LBUTTONDBLCLK ? 0u : 1u) << "message " << std::hex << m.message;
        }
        // Messages that are not looked at leave it. The screen's own mouse may move over the field meanwhile.
        bool left = false;
        for (int i = 0; i < 100 && !left; ++i) {
          Select(dialog, 1, 3);
          dialog.Send(kPinField, WM_NULL);
          left = Selection(dialog) == std::make_pair(DWORD{1}, DWORD{3});
        }
        EXPECT_TRUE(left);
      },
      "1234");
}

TEST_F(PinDialogTest, ASelectionCollapsesWhenTheContextMenuIsClosed) {
  ExpectPin(
      L"1234",
      [](Dialog& dialog) {
        Select(dialog, 1, 3);
        const DWORD thread = GetWindowThreadProcessId(dialog.window(), nullptr);
        SendNotifyMessageW(dialog.control(kPinField), WM_RBUTTONUP, 0, MAKELPARAM(3, 3));
        // The menu has a message loop of its own; wait until it runs, and close it.
        const auto inMenu = [&](HWND& owner) {
          GUITHREADINFO info{};
          info.cbSize = sizeof info;
          if (!GetGUIThreadInfo(thread, &info)) return false;
          owner = info.hwndMenuOwner;
          return (info.flags & GUI_INMENUMODE) != 0;
        };
        HWND owner = nullptr;
        while (!inMenu(owner))
          Sleep(1);
        while (inMenu(owner))
          SendMessageW(owner, WM_CANCELMODE, 0, 0);
        dialog.Send(kPinField, WM_NULL);
        EXPECT_EQ(Selection(dialog), std::make_pair(DWORD{1}, DWORD{1}));
      },
      "1234");
}

TEST_F(PinDialogTest, DraggingTheMouseSelectsNothing) {
  ExpectPin(
      L"1234",
      [](Dialog& dialog) {
        RECT client;
        GetClientRect(dialog.control(kPinField), &client);
        dialog.Send(kPinField, WM_LBUTTONDOWN, MK_LBUTTON, MAKELPARAM(1, 5));
        dialog.Send(kPinField, WM_MOUSEMOVE, MK_LBUTTON, MAKELPARAM(client.right - 2, 5));
        auto selection = Selection(dialog);
        EXPECT_EQ(selection.first, selection.second);
        dialog.Send(kPinField, WM_LBUTTONUP, 0, MAKELPARAM(client.right - 2, 5));
        selection = Selection(dialog);
        EXPECT_EQ(selection.first, selection.second);
      },
      "1234");
}

TEST_F(PinDialogTest, TextSetByAnotherProgramIsNotTaken) {
  // The caret stands before it, so nothing is known of it; the field shows it covered and knows no character.
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Send(kPinField, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L"1234"));
              EXPECT_EQ(dialog.text(kPinField), L"****");
              dialog.PressOk();
            }),
            NTE_NOT_FOUND);
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
}

TEST_F(PinDialogTest, TextOfTheSameLengthSetByAnotherProgramChangesNothing) {
  slot().pin = "1234";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"1234");
              dialog.Send(kPinField, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L"abcd"));
              dialog.PressOk();
            }),
            0);
}

TEST_F(PinDialogTest, ShorterTextSetByAnotherProgramTakesCellsFromTheStart) {
  ExpectPin(
      L"123456", [](Dialog& dialog) { dialog.Send(kPinField, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L"ab")); }, "56");
}

TEST_F(PinDialogTest, AnotherProgramCannotPutItsObjectInTheDialogsPlace) {
  slot().pin = "1234";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"12");
              for (const LPARAM object : {LPARAM{0}, LPARAM{0x10}, LPARAM{-1}})
                dialog.Send(0, WM_INITDIALOG, reinterpret_cast<WPARAM>(dialog.control(kPinField)), object);
              EXPECT_TRUE(dialog.open());
              EXPECT_EQ(dialog.text(kPinField), L"**");
              dialog.Type(kPinField, L"34");
              dialog.PressOk();
            }),
            0);
}

// Sent and posted: both come through the same window procedure, and nothing in them tells who made them.
void TellOfItsEnd(HWND window) {
  SendMessageW(window, WM_NCDESTROY, 0, 0);
  PostMessageW(window, WM_NCDESTROY, 0, 0);
  SendMessageW(window, WM_NULL, 0, 0);
}

TEST_F(PinDialogTest, AnotherProgramCannotTellTheDialogOfItsEnd) {
  slot().pin = "1234";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"12");
              TellOfItsEnd(dialog.window());
              EXPECT_TRUE(dialog.open());
              dialog.Type(kPinField, L"34");
              EXPECT_EQ(dialog.text(kPinField), L"****");
              dialog.PressOk();
            }),
            0);
}

// The platform's edit field believes it. The dialog can still be cancelled, and nothing lies open in it.
TEST_F(PinDialogTest, AFieldThatWasToldOfItsEndShowsNothing) {
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"12");
              TellOfItsEnd(dialog.control(kPinField));
              dialog.Type(kPinField, L"34");
              EXPECT_EQ(dialog.text(kPinField).find_first_not_of(L'*'), std::wstring::npos)
                  << "all that is there is covered";
              dialog.PressCancel();
            }),
            kCancelledByUser);
  EXPECT_EQ(SignTyping(L"1234"), 0) << "later dialogs are not harmed";
}

TEST_F(PinDialogTest, HugeTextSetByAnotherProgramDoesNoHarm) {
  const std::wstring text(100000, L'9');
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Send(kPinField, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(text.c_str()));
              EXPECT_EQ(dialog.text(kPinField), std::wstring(text.size(), L'*'));
              dialog.PressCancel();
            }),
            kCancelledByUser);
}

TEST_F(PinDialogTest, TheFieldsOwnAsterisksAreNoChange) {
  // The platform may notify of a text that the field sets itself while it handles a notification.
  Hook<"SetWindowTextW", decltype(&SetWindowTextW)> texts([](auto original, HWND window, LPCWSTR text) -> BOOL {
    const BOOL result = original(window, text);
    if (GetDlgCtrlID(window) == kPinField) {
      SendMessageW(GetParent(window), WM_COMMAND, MAKEWPARAM(kPinField, EN_UPDATE), reinterpret_cast<LPARAM>(window));
    }
    return result;
  });
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Send(kPinField, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(L"1234"));
              EXPECT_EQ(dialog.text(kPinField), L"****");
              dialog.PressCancel();
            }),
            kCancelledByUser);
  ExpectPin(
      L"1234", [](Dialog&) {}, "1234");
}

TEST_F(PinDialogTest, ACharacterThatCannotBeKeptDoesNotStayInTheWindow) {
  MemoryWatch memory;
  std::vector<std::wstring> shown;
  Hook<"SetWindowTextW", decltype(&SetWindowTextW)> texts([&](auto original, HWND window, LPCWSTR text) -> BOOL {
    if (GetDlgCtrlID(window) == kPinField) shown.emplace_back(text);
    return original(window, text);
  });
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Type(kPinField, L"73");
              memory.FailWhen([](std::size_t size, std::size_t) { return size == 2; });
              dialog.Type(kPinField, L"9");
              memory.StopFailing();
              EXPECT_FALSE(dialog.open());
            }),
            NTE_NO_MEMORY);
  EXPECT_EQ(shown, (std::vector<std::wstring>{L"*", L"**", L""}));
}

TEST_F(PinDialogTest, CellsHoldTheCharactersScrambledByPosition) {
  std::uint16_t next = 0x5A01;
  std::vector<std::uint16_t> mask;
  Hook<"CryptGenRandom", decltype(&CryptGenRandom)> random([&](auto, HCRYPTPROV, DWORD size, BYTE* out) -> BOOL {
    EXPECT_EQ(size, 2u);
    mask.push_back(next);
    *reinterpret_cast<std::uint16_t*>(out) = next;
    next = static_cast<std::uint16_t>(next + 0x0131);
    return TRUE;
  });
  MemoryWatch memory;
  slot().pin = "19971";
  const auto cells = [&] {
    std::multiset<unsigned> found;
    for (const auto& [address, size] : memory.Live()) {
      if (size == 2) found.insert(*static_cast<const std::uint16_t*>(address));
    }
    return found;
  };
  const auto scrambled = [&](const std::string& pin) {
    std::multiset<unsigned> values;
    for (std::size_t i = 0; i < pin.size(); ++i)
      values.insert(static_cast<unsigned>(pin[i]) ^ mask.at(i));
    return values;
  };
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              ASSERT_EQ(mask.size(), 32u);
              dialog.Type(kPinField, L"1997");
              EXPECT_EQ(cells(), scrambled("1997"));
              dialog.Type(kPinField, L"1");
              Select(dialog, 2, 2);
              dialog.Send(kPinField, WM_CHAR, VK_BACK, 1);
              EXPECT_EQ(cells(), scrambled("1971"));
              dialog.Type(kPinField, L"9");
              EXPECT_EQ(cells(), scrambled("19971"));
              dialog.PressOk();
            }),
            0);
  EXPECT_EQ(cells(), std::multiset<unsigned>{});
  // Cells and mask are wiped before they are released.
  int wipedCells = 0;
  int wipedMasks = 0;
  for (const kit::FreedBlock& block : memory.Freed()) {
    const bool wiped = std::all_of(block.contents.begin(), block.contents.end(), [](BYTE b) { return b == 0; });
    if (block.contents.size() == 2) {
      EXPECT_TRUE(wiped);
      ++wipedCells;
    } else if (block.contents.size() == 64) {
      EXPECT_TRUE(wiped);
      ++wipedMasks;
    }
  }
  EXPECT_EQ(wipedCells, 6);
  EXPECT_EQ(wipedMasks, 1);
}

// What the DLL does to the field: the text it writes, the caret it sets, the undo buffer it empties.
struct FieldWatch {
  std::vector<std::string> steps;
  Hook<"SetWindowTextW", decltype(&SetWindowTextW)> texts{[this](auto original, HWND window, LPCWSTR text) -> BOOL {
    if (GetDlgCtrlID(window) == kPinField) {
      std::string step = "text ";
      for (; *text != L'\0'; ++text)
        step += static_cast<char>(*text);
      steps.push_back(step);
      text -= step.size() - 5;
    }
    return original(window, text);
  }};
  Hook<"SendMessageW", decltype(&SendMessageW)> messages{
      [this](auto original, HWND window, UINT message, WPARAM wParam, LPARAM lParam) -> LRESULT {
        if (GetDlgCtrlID(window) == kPinField) {
          if (message == EM_SETSEL) steps.push_back("caret " + std::to_string(wParam) + "," + std::to_string(lParam));
          if (message == EM_EMPTYUNDOBUFFER) steps.emplace_back("no undo");
        }
        return original(window, message, wParam, lParam);
      }};

  std::vector<std::string> Take() { return std::exchange(steps, {}); }
};

TEST_F(PinDialogTest, CoversEveryChangeAndForgetsHowToUndoIt) {
  FieldWatch field;
  using Steps = std::vector<std::string>;
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              EXPECT_EQ(field.Take(), Steps{});
              dialog.Type(kPinField, L"1");
              EXPECT_EQ(field.Take(), (Steps{"text *", "caret 1,1", "no undo"}));
              dialog.Type(kPinField, L"2");
              EXPECT_EQ(field.Take(), (Steps{"text **", "caret 2,2", "no undo"}));
              Select(dialog, 0, 0);
              dialog.Key(kPinField, VK_DELETE);
              EXPECT_EQ(field.Take(), (Steps{"text *", "caret 0,0", "no undo"}));
              // A selection is taken back.
              Select(dialog, 0, 1);
              dialog.Send(kPinField, WM_KEYUP, VK_F5, 1);
              EXPECT_EQ(field.Take(), (Steps{"caret 0,0", "no undo"}));
              dialog.Send(kPinField, WM_KEYUP, VK_F5, 1);
              EXPECT_EQ(field.Take(), Steps{});
              // The field is emptied at once, not by way of its own text's change.
              {
                Hook<"GetKeyState", decltype(&GetKeyState)> keys([](auto, int) -> SHORT { return -1; });
                dialog.Send(kPinField, WM_KEYDOWN, VK_END, 1);
              }
              EXPECT_EQ(field.Take(), (Steps{"text ", "caret 0,0", "no undo"}));
              dialog.Type(kPinField, L"3");
              field.Take();
              dialog.PressCancel();
              EXPECT_EQ(field.Take(), Steps{"text "});
            }),
            kCancelledByUser);
  // A field that is empty is left alone.
  EXPECT_EQ(SignWith([](Dialog& dialog) { dialog.PressCancel(); }), kCancelledByUser);
  EXPECT_EQ(field.Take(), Steps{});
}

TEST_F(PinDialogTest, ThePinIsNowhereButInTheTokensHands) {
  const std::string pin = "73914265";
  slot().pin = pin;
  MemoryWatch memory;
  std::vector<std::wstring> shown;
  // The wide text of everything that the DLL writes into a window.
  Hook<"SetWindowTextW", decltype(&SetWindowTextW)> texts([&](auto original, HWND window, LPCWSTR text) -> BOOL {
    shown.emplace_back(text);
    return original(window, text);
  });
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Type(kPinField, L"0000");
              dialog.PressOk();
              Hook<"GetKeyState", decltype(&GetKeyState)> keys([](auto, int) -> SHORT { return -1; });
              dialog.Key(kPinField, VK_HOME);
              dialog.Type(kPinField, std::wstring(pin.begin(), pin.end()));
              dialog.PressOk();
            }),
            0);
  EXPECT_FALSE(memory.FreedContains(pin));
  EXPECT_FALSE(memory.FreedContainsWide(pin));
  for (const std::wstring& text : shown)
    EXPECT_EQ(text.find(L"7391"), std::wstring::npos);
  for (const kit::Line& line : kit::Log::Get().Take()) {
    EXPECT_EQ(line.text.find(pin), std::string::npos) << line.text;
    EXPECT_EQ(line.text.find("37 33 39 31"), std::string::npos) << line.text;
  }
}

TEST_F(PinDialogTest, ACancelledPinIsWiped) {
  MemoryWatch memory;
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Type(kPinField, L"73914265");
              dialog.PressCancel();
            }),
            kCancelledByUser);
  EXPECT_FALSE(memory.FreedContains("73914265"));
  EXPECT_FALSE(memory.FreedContainsWide("73914265"));
}

TEST_F(PinDialogTest, APinThatWasConvertedHalfwayIsWiped) {
  MemoryWatch memory;
  Hook<"WideCharToMultiByte", decltype(&WideCharToMultiByte)> hook(
      [](auto, UINT, DWORD, LPCWCH, int, LPSTR narrow, int, LPCCH, LPBOOL) {
        std::copy_n("7391426", 7, narrow);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
      });
  EXPECT_EQ(SignTyping(L"73914265"), NTE_NOT_FOUND);
  EXPECT_FALSE(memory.FreedContains("7391"));
  EXPECT_FALSE(memory.FreedContainsWide("7391"));
}

TEST_F(PinDialogTest, AWrongPinIsWipedAfterEachAttempt) {
  MemoryWatch memory;
  slot().triesLeft = 9;
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Type(kPinField, L"73914265");
              dialog.PressOk();
              ASSERT_TRUE(dialog.open());
              EXPECT_FALSE(memory.FreedContains("73914265"));
              EXPECT_FALSE(memory.FreedContainsWide("73914265"));
              // Only the scrambled cells keep it.
              for (const auto& [address, size] : memory.Live()) {
                const std::string contents(static_cast<const char*>(address), size);
                EXPECT_EQ(contents.find("7391"), std::string::npos) << "a block of " << size << " bytes";
                EXPECT_EQ(contents.find(std::string("7\0003\0009\0001\0", 8)), std::string::npos);
              }
            }),
            kCancelledByUser);
}

// --- the buttons

TEST_F(PinDialogTest, AWrongPinLeavesTheDialogOpenWithTheTriesLeft) {
  slot().triesLeft = 5;
  slot().maximumTries = 5;
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"999");
              dialog.PressOk();
              ASSERT_TRUE(dialog.open());
              EXPECT_EQ(dialog.text(kStatusLine), L"Incorrect PIN. Retries left: 4");
              EXPECT_TRUE(dialog.enabled(kPinField));
              EXPECT_TRUE(dialog.enabled(IDOK));
              // What was typed stays.
              EXPECT_EQ(dialog.text(kPinField), L"***");
              dialog.PressOk();
              EXPECT_EQ(dialog.text(kStatusLine), L"Incorrect PIN. Retries left: 3");
              for (int i = 0; i < 3; ++i)
                dialog.Send(kPinField, WM_CHAR, VK_BACK, 1);
              dialog.Type(kPinField, L"1234");
              dialog.PressOk();
              EXPECT_FALSE(dialog.open());
            }),
            0);
  EXPECT_TRUE(kit::SameLines(WrongPin("Incorrect PIN. Retries left: 4") + WrongPin("Incorrect PIN. Retries left: 3") +
                                 AttemptLines() + PinLines({"Login success"}) + StoredLines() + ButtonDone() +
                                 Cleanup(),
                             AfterDialogShown()));
  slot().loggedIn = false;
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinDialogTest, ResultsFromOneToFourteenAreTriesLeft) {
  EXPECT_EQ(SignWith([this](Dialog& dialog) {
              dialog.Type(kPinField, L"1");
              for (unsigned left = 1; left <= 14; ++left) {
                token().Fail("VendorLogin", left);
                dialog.PressOk();
                ASSERT_TRUE(dialog.open()) << left;
                EXPECT_EQ(dialog.text(kStatusLine), L"Incorrect PIN. Retries left: " + std::to_wstring(left));
              }
            }),
            kCancelledByUser);
}

TEST_F(PinDialogTest, ALockedPinLeavesOnlyCancel) {
  slot().triesLeft = 0;
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"1234");
              dialog.PressOk();
              ASSERT_TRUE(dialog.open());
              EXPECT_EQ(dialog.text(kStatusLine), L"Pin is locked");
              EXPECT_FALSE(dialog.enabled(kPinField));
              EXPECT_FALSE(dialog.enabled(IDOK));
              EXPECT_TRUE(dialog.enabled(IDCANCEL));
              EXPECT_EQ(FocusOf(dialog), dialog.control(IDCANCEL)) << "the keyboard reaches nothing else";
              dialog.PressCancel();
            }),
            kCancelledByUser);
  EXPECT_TRUE(kit::SameLines(WrongPin("Pin is locked") + Cancelled(), AfterDialogShown()));
}

TEST_F(PinDialogTest, AnyOtherFailureClosesTheDialogLikeASuccess) {
  for (const CK_RV result :
       {CK_RV{15}, CK_RV{0x30}, CK_RV{0xA0}, CK_RV{0xA1}, CK_RV{0xE0}, CK_RV{0x101}, CK_RV{0x80000001}}) {
    token().Fail("VendorLogin", result);
    slot().loggedIn = true;  // the operation itself goes on
    EXPECT_EQ(SignTyping(L"1234"), 0) << result;
    EXPECT_TRUE(kit::SameLines(
        AttemptLines() +
            PinLines({kit::Hex32("An unexpected error occured. Refer to PKCS logs for more info", result)}) +
            ButtonDone() + Cleanup(),
        AfterDialogShown()));
    EXPECT_FALSE(SignsFromCache()) << result;
    Forget();
  }
}

TEST_F(PinDialogTest, ASessionThatIsLoggedInCountsAsSuccessAndThePinIsStored) {
  slot().loggedIn = true;
  EXPECT_EQ(SignTyping(L"any"), 0);
  EXPECT_TRUE(kit::SameLines(AttemptLines() + PinLines({"User is already logged in", "Login success"}) + StoredLines() +
                                 ButtonDone() + Cleanup(),
                             AfterDialogShown()));
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinDialogTest, TheSilentFlagDoesNotSuppressTheDialog) {
  kit::DialogRobot robot;
  BYTE hash[20] = {};
  BYTE signature[256];
  DWORD length = 0;
  EXPECT_EQ(ksp().SignHash(provider_, key_, nullptr, hash, sizeof hash, signature, sizeof signature, &length,
                           NCRYPT_SILENT_FLAG),
            kCancelledByUser);
  EXPECT_EQ(robot.Finish(), 1u);
}

TEST_F(PinDialogTest, TheSettingIsReadByTheDialogAndByTheCacheBeforeTheEntrysLog) {
  EXPECT_EQ(SignTyping(L"1234"), 0);
  // The last two belong to the object that signs.
  EXPECT_EQ(kit::Registry::Get().TakeReads(),
            (std::vector<std::wstring>{L"PINCACHE", L"PINCACHE", L"KSPLOG", L"KSPDIR", L"KSPLOG", L"KSPDIR"}));
}

TEST_F(PinDialogTest, CancelEndsTheLogin) {
  EXPECT_EQ(SignWith([](Dialog& dialog) { dialog.PressCancel(); }), kCancelledByUser);
  EXPECT_TRUE(kit::SameLines(Cancelled(), AfterDialogShown()));
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"12");
              dialog.CloseBySystemMenu();
              while (dialog.open())
                Sleep(1);
            }),
            kCancelledByUser);
  EXPECT_TRUE(kit::SameLines(Cancelled(), AfterDialogShown()));
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
}

TEST_F(PinDialogTest, TheKeyboardWorksTheButtons) {
  slot().pin = "12";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              dialog.Type(kPinField, L"12");
              PostMessageW(dialog.control(kPinField), WM_KEYDOWN, VK_RETURN, 1);
              while (dialog.open())
                Sleep(1);
            }),
            0);
  slot().loggedIn = false;
  slot().serial += "+";
  EXPECT_EQ(SignWith([](Dialog& dialog) {
              PostMessageW(dialog.control(kPinField), WM_KEYDOWN, VK_ESCAPE, 1);
              while (dialog.open())
                Sleep(1);
            }),
            kCancelledByUser);
}

// The length is asked for before the text is; a text that then turns out to be shorter is not read beyond its end.
TEST_F(PinDialogTest, ATextThatDoesNotComeWholeEmptiesTheField) {
  FieldWatch field;
  ExpectPin(
      L"12",
      [&field](Dialog& dialog) {
        int asked = 0;
        field.Take();
        {
          Hook<"GetWindowTextLengthW", decltype(&GetWindowTextLengthW)> lengths(
              [&](auto original, HWND window) -> int { return ++asked == 2 ? 0 : original(window); });
          dialog.Type(kPinField, L"3");
        }
        EXPECT_GE(asked, 2);
        EXPECT_EQ(field.Take(), (std::vector<std::string>{"text ", "no undo"}));
        EXPECT_EQ(dialog.text(kPinField), L"");
        dialog.Type(kPinField, L"4567");
      },
      "4567");
}

TEST_F(PinDialogTest, AnEmptyPinEndsTheDialogWithTheConversionsError) {
  EXPECT_EQ(SignWith([](Dialog& dialog) { dialog.PressOk(); }), NTE_NOT_FOUND);
  Lines retrieval = RetrievePinLines(false);
  retrieval.insert(retrieval.begin() + 3, Pin("Failed to properly retrieve PIN. Error: 0x00000057"));
  EXPECT_TRUE(kit::SameLines(RetrievePinLines(true) + retrieval + PinLines({"Failed to retrieve PIN: 0x00000057"}) +
                                 ButtonDone() + ExitedWith(0x57),
                             AfterDialogShown()));
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
  // The flag is down again.
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

TEST_F(PinDialogTest, APinThatCannotBeConvertedEndsTheDialog) {
  {
    Hook<"WideCharToMultiByte", decltype(&WideCharToMultiByte)> hook(
        [](auto, UINT page, DWORD flags, LPCWCH, int cch, LPSTR, int cb, LPCCH, LPBOOL) {
          EXPECT_EQ(page, UINT{CP_ACP});
          EXPECT_EQ(flags, 0u);
          EXPECT_EQ(cch, 4);
          EXPECT_EQ(cb, 4);
          SetLastError(ERROR_NO_UNICODE_TRANSLATION);
          return 0;
        });
    EXPECT_EQ(SignTyping(L"1234"), NTE_NOT_FOUND);
  }
  Lines retrieval = RetrievePinLines(false);
  retrieval.insert(retrieval.begin() + 3, Pin("Failed to properly retrieve PIN. Error: 0x00000459"));
  EXPECT_TRUE(kit::SameLines(RetrievePinLines(true) + retrieval + PinLines({"Failed to retrieve PIN: 0x00000459"}) +
                                 ButtonDone() + ExitedWith(0x459),
                             AfterDialogShown()));
}

TEST_F(PinDialogTest, AConversionThatFailsWithoutAReasonTriesNoPin) {
  {
    Hook<"WideCharToMultiByte", decltype(&WideCharToMultiByte)> hook(
        [](auto, UINT, DWORD, LPCWCH, int, LPSTR, int, LPCCH, LPBOOL) {
          SetLastError(ERROR_SUCCESS);
          return 0;
        });
    EXPECT_EQ(SignTyping(L"1234"), NTE_NOT_FOUND);
  }
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
  EXPECT_EQ(slot().triesLeft, slot().maximumTries);
}

TEST_F(PinDialogTest, ASessionHandleOfZeroEndsTheDialog) {
  const ULONG session = kit::RecordOf(provider_)->hSession;
  kit::RecordOf(provider_)->hSession = 0;
  EXPECT_EQ(SignTyping(L"1234"), NTE_NOT_FOUND);
  kit::RecordOf(provider_)->hSession = session;
  Lines done = ButtonDone();
  done.erase(done.begin() + 1);  // there is no PIN buffer yet
  EXPECT_TRUE(kit::SameLines(PinLines({"NTE_INVALID_HANDLE - cryptoki session handle is not set"}) + done +
                                 ExitedWith(static_cast<DWORD>(NTE_INVALID_HANDLE)),
                             AfterDialogShown()));
}

TEST_F(PinDialogTest, WithoutMemoryForThePinTheDialogEnds) {
  // Nothing else in the attempt asks for exactly eleven bytes.
  MemoryWatch memory;
  memory.FailWhen([](std::size_t size, std::size_t) { return size == 11; });
  EXPECT_EQ(SignTyping(L"01234567890"), NTE_NOT_FOUND);
  Lines done = ButtonDone();
  done.erase(done.begin() + 1);
  EXPECT_TRUE(kit::SameLines(RetrievePinLines(true) + PinLines({"Not enough memory to continue operation."}) + done +
                                 ExitedWith(static_cast<DWORD>(NTE_NO_MEMORY)),
                             AfterDialogShown()));
}

// --- the dialog flag

TEST_F(PinDialogTest, ASecondDialogCancelsItselfWhileOneIsOpen) {
  const NCRYPT_PROV_HANDLE other = OpenProvider();
  const NCRYPT_KEY_HANDLE otherKey = OpenKey(other, L"K");
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              kit::DialogRobot robot({[](Dialog&) { ADD_FAILURE() << "a second dialog is shown"; }});
              EXPECT_EQ(Sign(other, otherKey), kCancelledByUser);
              robot.Finish();
              EXPECT_EQ(robot.created(), 1u);
              // It has not lowered the flag of the one that is open.
              EXPECT_EQ(Sign(other, otherKey), kCancelledByUser);
              dialog.Type(kPinField, L"1234");
              dialog.PressOk();
            }),
            0);
  ksp().FreeKey(other, otherKey);
  ksp().FreeProvider(other);
}

TEST_F(PinDialogTest, AfterAWrongPinASecondDialogMayOpenBesideTheFirst) {
  const NCRYPT_PROV_HANDLE other = OpenProvider();
  const NCRYPT_KEY_HANDLE otherKey = OpenKey(other, L"K");
  slot().triesLeft = 9;
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              dialog.Type(kPinField, L"1111");
              dialog.PressOk();
              ASSERT_TRUE(dialog.open());
              kit::DialogRobot robot({[&](Dialog& second) {
                second.Type(kPinField, L"1234");
                second.PressOk();
              }});
              EXPECT_EQ(Sign(other, otherKey), 0);
              EXPECT_EQ(robot.Finish(), 1u);
              // The first one goes on with a PIN of its own, which is cached behind the other's.
              slot().loggedIn = false;
              slot().pin = "1111";
              dialog.PressOk();
            }),
            0);
  slot().loggedIn = false;
  slot().pin = "1234";
  Forget();
  EXPECT_TRUE(SignsFromCache()) << "the first entry wins";
  ksp().FreeKey(other, otherKey);
  ksp().FreeProvider(other);
}

TEST_F(PinDialogTest, CancelLowersTheFlagWhoeverRaisedIt) {
  const NCRYPT_PROV_HANDLE other = OpenProvider();
  const NCRYPT_KEY_HANDLE otherKey = OpenKey(other, L"K");
  slot().triesLeft = 9;
  // Dialog 1 loses the flag by a wrong PIN, dialog 2 takes it, dialog 1 is cancelled: dialog 3 may open beside
  // dialog 2.
  std::size_t third = 0;
  SECURITY_STATUS second = 0;
  std::thread worker;
  HANDLE ended = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  SignWith([&](Dialog& first) {
    first.Type(kPinField, L"1");
    first.PressOk();
    HANDLE open = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    worker = std::thread([&, open] {
      kit::DialogRobot robot({[&, open](Dialog&) {
        SetEvent(open);
        WaitForSingleObject(ended, INFINITE);
      }});
      second = Sign(other, otherKey);
    });
    WaitForSingleObject(open, INFINITE);
    first.PressCancel();
    CloseHandle(open);
  });
  {
    kit::DialogRobot robot;
    EXPECT_EQ(Sign(), kCancelledByUser);
    third = robot.Finish();
  }
  SetEvent(ended);
  worker.join();
  CloseHandle(ended);
  EXPECT_EQ(third, 1u);
  EXPECT_EQ(second, kCancelledByUser);
  ksp().FreeKey(other, otherKey);
  ksp().FreeProvider(other);
}

constexpr UINT kDestroyYourself = WM_APP + 1;

LRESULT CALLBACK OwnerProcedure(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
  if (message == kDestroyYourself) {
    DestroyWindow(window);
    return 0;
  }
  return DefWindowProcW(window, message, wParam, lParam);
}

TEST_F(PinDialogTest, ADialogThatDiesWithItsOwnerDoesNotBlockLaterOnes) {
  HWND owner =
      CreateWindowExW(0, L"STATIC", L"owner", WS_OVERLAPPEDWINDOW, 0, 0, 10, 10, nullptr, nullptr, nullptr, nullptr);
  SetWindowLongPtrW(owner, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&OwnerProcedure));
  kit::RecordOf(provider_)->hWnd = reinterpret_cast<ULONG_PTR>(owner);
  const SECURITY_STATUS status = SignWith([&](Dialog& dialog) {
    dialog.Type(kPinField, L"12");
    const DWORD thread = GetWindowThreadProcessId(dialog.window(), nullptr);
    SendMessageW(owner, kDestroyYourself, 0, 0);
    EXPECT_FALSE(dialog.open());
    PostThreadMessageW(thread, WM_NULL, 0, 0);  // the dialog's loop looks up with the next message
  });
  EXPECT_NE(status, 0);
  kit::RecordOf(provider_)->hWnd = 0;
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

TEST_F(PinDialogTest, ADialogThatEndsWithItsThreadsMessageLoopDoesNotBlockLaterOnes) {
  EXPECT_NE(SignWith([&](Dialog& dialog) {
              PostThreadMessageW(GetWindowThreadProcessId(dialog.window(), nullptr), WM_QUIT, 7, 0);
              while (dialog.open())
                Sleep(1);
            }),
            0);
  MSG message;
  EXPECT_TRUE(PeekMessageW(&message, nullptr, WM_QUIT, WM_QUIT, PM_REMOVE)) << "the host's loop is to end as well";
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

// --- failures on the way

TEST_F(PinDialogTest, AnUnreadableTokenEndsTheLoginBeforeAnyDialog) {
  token().Fail("C_GetTokenInfo", 0xE0);
  kit::DialogRobot robot;
  EXPECT_EQ(Sign(), NTE_INTERNAL_ERROR);
  EXPECT_EQ(robot.Finish(), 0u);
  Lines cleanup = Cleanup();
  cleanup.erase(cleanup.begin() + 1);  // there is no dialog to delete
  EXPECT_TRUE(kit::SameLines(
      PinLines({"Retrieving token info", "\tNTE_INTERNAL_ERROR: Failed to retrieve token info"}) + cleanup,
      LoginLines()));
}

// The token module is foreign code. Only where the unwinder of the module that throws can walk through the provider's
// frames.
#ifdef _WIN64
TEST_F(PinDialogTest, WhatTheTokenThrowsEndsTheLoginAndLeavesNoPin) {
  slot().pin = "73914265";
  const Lines unexpected = PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."});
  {
    MemoryWatch memory;
    token().Before("VendorLogin", [](const fake::Call&) { throw 7; });
    EXPECT_EQ(SignTyping(L"73914265"), NTE_INTERNAL_ERROR);
    EXPECT_TRUE(kit::SameLines(AttemptLines() + unexpected + Cleanup(), AfterDialogShown()));
    EXPECT_FALSE(memory.FreedContains("73914265"));
    EXPECT_FALSE(memory.FreedContainsWide("73914265"));
  }
  token().ClearScript();
  // Neither the flag nor the section is left behind.
  EXPECT_EQ(SignTyping(L"73914265"), 0);
  slot().loggedIn = false;
  Forget();
  token().Before("VendorLogin", [](const fake::Call&) { throw 7; });
  EXPECT_EQ(Sign(), NTE_INTERNAL_ERROR);
  Lines expected = CachedLogin();
  expected.insert(expected.end() - 5, unexpected.begin(), unexpected.end());
  EXPECT_TRUE(kit::SameLines(expected, LoginLines()));
  token().ClearScript();
  std::thread other([&] { EXPECT_EQ(Sign(), 0); });
  other.join();
}
#endif

class RandomFailureTest : public PinDialogTest {
 protected:
  void TearDown() override {
    PinDialogTest::TearDown();
    // Lines that have been looked at aside from the log's instances would confuse the next test.
    kit::Provider::Get().Unload();
    kit::Log::Get().TakeDebuggerLines();
  }
  void ExpectFailure(const char* text) {
    Forget();
    kit::DialogRobot robot;
    EXPECT_EQ(Sign(), NTE_INTERNAL_ERROR);
    EXPECT_EQ(robot.created(), 0u);
    Lines cleanup = Cleanup();
    cleanup.erase(cleanup.begin() + 1);  // there is no dialog to delete
    EXPECT_TRUE(kit::SameLines(PinLines({"Retrieving token info", text}) + cleanup, LoginLines()));
  }
};

TEST_F(RandomFailureTest, NoContextEndsTheLogin) {
  std::vector<std::string> sent;
  {
    Hook<"CryptAcquireContextW", decltype(&CryptAcquireContextW)> acquire(
        [](auto, HCRYPTPROV*, LPCWSTR container, LPCWSTR, DWORD, DWORD flags) -> BOOL {
          EXPECT_EQ(container, nullptr);
          EXPECT_EQ(flags, DWORD{CRYPT_VERIFYCONTEXT});
          SetLastError(static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL));
          return FALSE;
        });
    Forget();
    EXPECT_EQ(Sign(), NTE_INTERNAL_ERROR);
  }
  // The error goes to the debugger only, not by the way of a log.
  for (const kit::DebuggerLine& line : kit::Log::Get().TakeDebuggerLines())
    sent.push_back(line.text);
  const auto error = std::find(sent.begin(), sent.end(), "0x8009001D");
  ASSERT_NE(error, sent.end());
  EXPECT_EQ(*(error - 1), "Retrieving token info");
  EXPECT_EQ(*(error + 1), "Failed to acquire cryptographic context");
  EXPECT_EQ(*(error + 2), "Initiating cleanup routine - Login");
}

TEST_F(RandomFailureTest, NoRandomNumberEndsTheLoginWithTheContextReleased) {
  for (const int failing : {1, 2, 32}) {
    int calls = 0;
    int released = 0;
    MemoryWatch memory;
    Hook<"CryptGenRandom", decltype(&CryptGenRandom)> generate([&](auto, HCRYPTPROV, DWORD size, BYTE* out) -> BOOL {
      std::fill_n(out, size, BYTE{0xC7});
      return ++calls != failing;
    });
    Hook<"CryptReleaseContext", decltype(&CryptReleaseContext)> release([&](auto original, HCRYPTPROV c, DWORD f) {
      ++released;
      EXPECT_EQ(f, 0u);
      return original(c, f);
    });
    ExpectFailure("Failed to generate random number");
    EXPECT_EQ(calls, failing);
    EXPECT_EQ(released, 1);
    EXPECT_FALSE(memory.FreedContains("\xC7\xC7"));
  }
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

TEST_F(RandomFailureTest, AContextThatCannotBeReleasedEndsTheLogin) {
  {
    Hook<"CryptReleaseContext", decltype(&CryptReleaseContext)> release(
        [](auto, HCRYPTPROV, DWORD) -> BOOL { return FALSE; });
    ExpectFailure("Failed to release cryptographic context");
  }
  EXPECT_EQ(SignTyping(L"1234"), 0);
}

TEST_F(PinDialogTest, NoAllocationThatFailsDoesHarm) {
  const std::string base = slot().serial;
  slot().pin = "7391426";
  std::size_t failed = 0;
  for (std::size_t nth = 1; nth < 500; ++nth) {
    slot().serial = base + "/" + std::to_string(nth);
    slot().loggedIn = false;
    SECURITY_STATUS status = 0;
    bool hit = false;
    {
      MemoryWatch memory;
      memory.FailWhen([&](std::size_t, std::size_t number) { return number == nth && (hit = true); });
      kit::DialogRobot robot({[](Dialog& dialog) {
        dialog.Type(kPinField, L"7391426");
        if (dialog.open()) dialog.PressOk();
      }});
      status = Sign();
      robot.Finish();
      EXPECT_FALSE(memory.FreedContains("7391426")) << nth;
      EXPECT_FALSE(memory.FreedContainsWide("7391426")) << nth;
    }
    Forget();
    if (!hit) break;
    ++failed;
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == NTE_NOT_FOUND || status == NTE_INTERNAL_ERROR ||
                status == kCancelledByUser)
        << nth << ": " << std::hex << status;
    // The next login is as good as ever.
    slot().serial = base + ":" + std::to_string(nth);
    slot().loggedIn = false;
    ASSERT_EQ(SignTyping(L"7391426"), 0) << "after failure " << nth;
    Forget();
  }
  EXPECT_GT(failed, 20u);
}

}  // namespace
