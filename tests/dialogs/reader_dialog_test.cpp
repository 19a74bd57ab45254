// The reader selection dialog, reached through OpenProvider with a choice of readers.
#include <cwchar>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kit/dialogs.h"
#include "kit/provider.h"

#include <winscard.h>

namespace {

using kit::Dialog;
using kit::Hook;
using kit::KeyName;
using kit::kReaderList;
using kit::Line;

constexpr SCARDCONTEXT kContext = 0x5CA12345;

// The smart card service, with the readers that a test wants.
struct CardService {
  std::wstring readers = std::wstring(L"B reader\0A reader\0", 18) + L'\0';
  LONG establishResult = SCARD_S_SUCCESS;
  LONG listResult = SCARD_S_SUCCESS;
  bool handsOutNothing = false;
  std::function<void()> duringList;  // runs once, before the answer
  int established = 0;
  int listed = 0;
  std::vector<SCARDCONTEXT> released;

  void SetReaders(const std::vector<std::wstring>& names) {
    readers.clear();
    for (const std::wstring& name : names)
      readers += name + L'\0';
    readers += L'\0';
  }

  Hook<"SCardEstablishContext", decltype(&SCardEstablishContext)> establish{
      [this](auto, DWORD scope, LPCVOID reserved1, LPCVOID reserved2, SCARDCONTEXT* context) -> LONG {
        EXPECT_EQ(scope, DWORD{SCARD_SCOPE_USER});
        EXPECT_EQ(reserved1, nullptr);
        EXPECT_EQ(reserved2, nullptr);
        ++established;
        *context = kContext;  // which means nothing after a failure
        return establishResult;
      }};
  Hook<"SCardListReadersW", decltype(&SCardListReadersW)> list{
      [this](auto, SCARDCONTEXT context, LPCWSTR groups, LPWSTR names, LPDWORD count) -> LONG {
        EXPECT_EQ(context, kContext);
        EXPECT_EQ(groups, nullptr);
        EXPECT_EQ(*count, SCARD_AUTOALLOCATE);
        ++listed;
        if (duringList) std::exchange(duringList, nullptr)();
        if (listResult != SCARD_S_SUCCESS) return listResult;
        *reinterpret_cast<const wchar_t**>(names) = handsOutNothing ? nullptr : readers.c_str();
        *count = static_cast<DWORD>(readers.size());
        return SCARD_S_SUCCESS;
      }};
  Hook<"SCardReleaseContext", decltype(&SCardReleaseContext)> release{[this](auto, SCARDCONTEXT context) -> LONG {
    released.push_back(context);
    return SCARD_S_SUCCESS;
  }};
};

std::wstring ClassOf(HWND window) {
  wchar_t name[64] = {};
  GetClassNameW(window, name, 64);
  return name;
}

class ReaderDialogTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    ProviderTest::SetUp();
    token().AddSlot("A reader");
    token().AddSlot("B reader");
  }

  // Opens a provider while the script answers the dialog. There is exactly one; a dialog that ends while it is
  // initialised is never answered.
  SECURITY_STATUS Open(const std::function<void(Dialog&)>& script) {
    Forget();
    handle_ = 0;
    kit::DialogRobot robot({script});
    const SECURITY_STATUS status = ksp().OpenProvider(&handle_, kit::kProviderName, 0);
    robot.Finish();
    EXPECT_EQ(robot.created(), 1u);
    return status;
  }
  // Throws, and so fails the test, when the open before has failed.
  const kit::ProviderRecord& Record() const {
    if (handle_ == 0) throw std::runtime_error("no provider is open");
    return *kit::RecordOf(handle_);
  }
  void Close() {
    if (handle_ != 0) {
      EXPECT_EQ(ksp().FreeProvider(handle_), 0);
    }
    handle_ = 0;
    ksp().FreeBuffer(nullptr);  // the chosen reader is not remembered
  }
  void TearDown() override {
    Close();
    ProviderTest::TearDown();
  }

  // The lines of the open between its decision to ask and its exit.
  std::vector<Line> ChoiceLines() {
    std::vector<Line> lines = kit::Log::Get().Take();
    std::vector<Line> choice;
    bool inside = false;
    for (const Line& line : lines) {
      if (line.text.starts_with("KELDAKSPOpenProvider - Exit")) inside = false;
      if (inside) choice.push_back(line);
      if (line == Line("Provider not set")) inside = true;
    }
    return choice;
  }
  static std::vector<Line> Shown() {
    return {KeyName("Loading resources"), KeyName("Loading Dialog"), KeyName("Dialog Loaded")};
  }
  void ExpectChoice(std::vector<Line> rest) {
    std::vector<Line> expected = Shown();
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_TRUE(kit::SameLines(expected, ChoiceLines()));
  }
  static std::vector<std::wstring> Items(const Dialog& dialog) {
    std::vector<std::wstring> items;
    const auto count = static_cast<WPARAM>(dialog.Send(kReaderList, CB_GETCOUNT));
    for (WPARAM i = 0; i < count; ++i) {
      std::wstring item(static_cast<std::size_t>(dialog.Send(kReaderList, CB_GETLBTEXTLEN, i)) + 1, L'\0');
      item.resize(
          static_cast<std::size_t>(dialog.Send(kReaderList, CB_GETLBTEXT, i, reinterpret_cast<LPARAM>(item.data()))));
      items.push_back(item);
    }
    return items;
  }
  // As the user opens the list; the dialog hears of it before the list appears.
  static void DropDown(const Dialog& dialog) {
    dialog.Send(kReaderList, CB_SHOWDROPDOWN, TRUE);
    if (dialog.open()) dialog.Send(kReaderList, CB_SHOWDROPDOWN, FALSE);
  }

  NCRYPT_PROV_HANDLE handle_ = 0;
};

TEST_F(ReaderDialogTest, IsLaidOutAsDesigned) {
  struct Control {
    int id;
    const wchar_t* type;
    int x, y, width, height;
    const wchar_t* text;
    DWORD style;
  };
  const std::vector<Control> controls{
      {-1, L"Static", 7, 7, 236, 8, L"Please select a smart card", SS_LEFT},
      {kReaderList, L"ComboBox", 7, 19, 236, 30, nullptr, CBS_DROPDOWNLIST | CBS_SORT | WS_TABSTOP},
      {IDOK, L"Button", 72, 34, 50, 14, L"OK", BS_DEFPUSHBUTTON | WS_TABSTOP},
      {IDCANCEL, L"Button", 127, 34, 50, 14, L"Cancel", BS_PUSHBUTTON | WS_TABSTOP}};
  CardService service;
  Open([&](Dialog& dialog) {
    EXPECT_EQ(dialog.caption(), L"Norvale Token Works KSP v4.2");
    RECT size{250, 55, 0, 0};
    MapDialogRect(dialog.window(), &size);
    RECT client;
    GetClientRect(dialog.window(), &client);
    EXPECT_EQ(client.right, size.left);
    EXPECT_EQ(client.bottom, size.top);
    HWND window = GetWindow(dialog.window(), GW_CHILD);
    for (const Control& control : controls) {
      SCOPED_TRACE("control " + std::to_string(control.id));
      ASSERT_NE(window, nullptr);
      EXPECT_EQ(GetDlgCtrlID(window), control.id);
      EXPECT_EQ(ClassOf(window), control.type);
      RECT place;
      GetWindowRect(window, &place);
      if (control.id == kReaderList) {
        // Closed, the box is as high as its text; the height given is that of the open list.
        dialog.Send(kReaderList, CB_GETDROPPEDCONTROLRECT, 0, reinterpret_cast<LPARAM>(&place));
        // The scroll bar is the list's.
        COMBOBOXINFO info{};
        info.cbSize = sizeof info;
        EXPECT_TRUE(GetComboBoxInfo(window, &info));
        EXPECT_NE(GetWindowLongW(info.hwndList, GWL_STYLE) & WS_VSCROLL, 0);
      }
      MapWindowPoints(nullptr, dialog.window(), reinterpret_cast<POINT*>(&place), 2);
      RECT wanted{control.x, control.y, control.width, control.height};
      MapDialogRect(dialog.window(), &wanted);
      EXPECT_EQ(place.left, wanted.left);
      EXPECT_EQ(place.top, wanted.top);
      EXPECT_EQ(place.right - place.left, wanted.right);
      if (control.id != kReaderList) {
        EXPECT_EQ(place.bottom - place.top, wanted.bottom);
      }
      if (control.text != nullptr) {
        EXPECT_EQ(Dialog::TextOf(window), control.text);
      }
      EXPECT_EQ(static_cast<DWORD>(GetWindowLongW(window, GWL_STYLE)) & control.style, control.style);
      window = GetWindow(window, GW_HWNDNEXT);
    }
    EXPECT_EQ(window, nullptr);
    LOGFONTW font{};
    ASSERT_NE(GetObjectW(reinterpret_cast<HFONT>(dialog.Send(0, WM_GETFONT)), sizeof font, &font), 0);
    EXPECT_STREQ(font.lfFaceName, L"MS Shell Dlg");
    EXPECT_EQ(GetWindow(dialog.window(), GW_OWNER), nullptr);
    EXPECT_NE(dialog.Send(0, WM_GETICON, ICON_SMALL), 0);
    EXPECT_EQ(dialog.Send(0, WM_GETICON, ICON_BIG), 0);
  });
}

// Reads a dialog template, word by word.
class Template {
 public:
  explicit Template(int id) {
    const HMODULE module = kit::Provider::Get().module();
    const HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(5));
    if (resource == nullptr) throw std::runtime_error("no such template");
    const auto* words = static_cast<const WORD*>(LockResource(LoadResource(module, resource)));
    words_.assign(words, words + SizeofResource(module, resource) / sizeof(WORD));
  }
  WORD Word() { return words_.at(position_++); }
  DWORD Number() {
    const DWORD low = Word();
    return low | static_cast<DWORD>(Word()) << 16;
  }
  // A text, or the number of a class or resource in "#80" form.
  std::wstring Text() {
    if (words_.at(position_) == 0xFFFF) {
      ++position_;
      wchar_t text[8];
      std::swprintf(text, 8, L"#%X", static_cast<unsigned>(Word()));
      return text;
    }
    std::wstring text;
    for (WORD character = Word(); character != 0; character = Word())
      text += static_cast<wchar_t>(character);
    return text;
  }
  std::vector<int> Place() {
    std::vector<int> place;
    for (int i = 0; i < 4; ++i)
      place.push_back(static_cast<short>(Word()));
    return place;
  }
  void Align() { position_ += position_ % 2; }

 private:
  std::vector<WORD> words_;
  std::size_t position_ = 0;
};

// What a window on the screen does not tell: the font's size and the height of the opened list.
TEST_F(ReaderDialogTest, TemplateIsTheDesignedOne) {
  Template words(105);
  EXPECT_EQ(words.Number(), 0xFFFF0001u) << "an extended template";
  words.Number();
  EXPECT_EQ(words.Number(), 0u) << "no extended style";
  EXPECT_EQ(words.Number() & (WS_CAPTION | WS_SYSMENU), DWORD{WS_CAPTION | WS_SYSMENU});
  EXPECT_EQ(words.Word(), 4);
  EXPECT_EQ(words.Place(), (std::vector<int>{0, 0, 250, 55}));
  EXPECT_EQ(words.Text(), L"") << "no menu";
  EXPECT_EQ(words.Text(), L"") << "no class of its own";
  EXPECT_EQ(words.Text(), L"Norvale Token Works KSP v4.2");
  EXPECT_EQ(words.Word(), 8);
  words.Number();  // weight, slant and character set
  EXPECT_EQ(words.Text(), L"MS Shell Dlg");
  struct Control {
    std::wstring type, text;
    DWORD id;
    std::vector<int> place;
    DWORD style;
  };
  const std::wstring button = L"#80", text = L"#82", comboBox = L"#85";
  for (const Control& control :
       {Control{text, L"Please select a smart card", 0xFFFFFFFF, {7, 7, 236, 8}, WS_GROUP},
        Control{comboBox, L"", 1005, {7, 19, 236, 30}, CBS_DROPDOWNLIST | CBS_SORT | WS_VSCROLL | WS_TABSTOP},
        Control{button, L"OK", IDOK, {72, 34, 50, 14}, BS_DEFPUSHBUTTON | WS_TABSTOP},
        Control{button, L"Cancel", IDCANCEL, {127, 34, 50, 14}, WS_TABSTOP}}) {
    words.Align();
    words.Number();
    EXPECT_EQ(words.Number(), 0u) << "no extended style";
    EXPECT_EQ(words.Number(), control.style | WS_CHILD | WS_VISIBLE);
    EXPECT_EQ(words.Place(), control.place);
    EXPECT_EQ(words.Number(), control.id);
    EXPECT_EQ(words.Text(), control.type);
    EXPECT_EQ(words.Text(), control.text);
    EXPECT_EQ(words.Word(), 0) << "no data of its own";
  }
}

TEST_F(ReaderDialogTest, SmallIconIsTheDllsOwn) {
  CardService service;
  HANDLE loaded = nullptr;
  const Hook<"LoadImageW", decltype(&LoadImageW)> load(
      [&](auto original, HINSTANCE module, LPCWSTR name, UINT type, int width, int height, UINT flags) -> HANDLE {
        EXPECT_EQ(module, kit::Provider::Get().module());
        EXPECT_EQ(name, MAKEINTRESOURCEW(103));
        EXPECT_EQ(type, UINT{IMAGE_ICON});
        EXPECT_EQ(width, GetSystemMetrics(SM_CXSMICON));
        EXPECT_EQ(height, GetSystemMetrics(SM_CYSMICON));
        return loaded = original(module, name, type, width, height, flags);
      });
  Open([&](Dialog& dialog) {
    EXPECT_NE(loaded, nullptr);
    EXPECT_EQ(reinterpret_cast<HANDLE>(dialog.Send(0, WM_GETICON, ICON_SMALL)), loaded);
  });
}

// The lists of the service stay allocated; that is kept.
TEST_F(ReaderDialogTest, ListsAreNotReleased) {
  EXPECT_TRUE(kit::Imports::Get().Has("SCardListReadersW"));
  EXPECT_FALSE(kit::Imports::Get().Has("SCardFreeMemory"));
}

TEST_F(ReaderDialogTest, OnlyAClickPressesAButtonAndOnlyTheListListsAgain) {
  CardService service;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              const auto notify = [&](int id, UINT code) {
                SendMessageW(dialog.window(), WM_COMMAND, MAKEWPARAM(id, code),
                             reinterpret_cast<LPARAM>(dialog.control(id)));
              };
              notify(IDOK, BN_DBLCLK);
              notify(IDCANCEL, BN_DBLCLK);
              notify(IDOK, CBN_DROPDOWN);
              notify(1006, CBN_DROPDOWN);
              notify(kReaderList, CBN_SELCHANGE);
              notify(kReaderList, BN_CLICKED);
              EXPECT_TRUE(dialog.open());
              EXPECT_EQ(service.listed, 1);
              notify(kReaderList, CBN_DROPDOWN);
              EXPECT_EQ(service.listed, 2);
              dialog.PressOk();
            }),
            0);
}

TEST_F(ReaderDialogTest, TheFirstOfTwoFailuresCounts) {
  CardService service;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              service.listResult = static_cast<LONG>(0x8010001E);
              service.duringList = [&] {
                SendMessageW(dialog.window(), WM_COMMAND, MAKEWPARAM(kReaderList, CBN_DROPDOWN),
                             reinterpret_cast<LPARAM>(dialog.control(kReaderList)));
                service.listResult = static_cast<LONG>(0x8010002E);
              };
              DropDown(dialog);
            }),
            NTE_FAIL);
  ExpectChoice({"NTE_FAIL: SCardListReaders Failed: 0x8010001E"});
  EXPECT_EQ(service.listed, 3);
}

TEST_F(ReaderDialogTest, ADialogConfirmedWithoutItsButtonHasNoReader) {
  const Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> hook(
      [](auto, HINSTANCE module, LPCWSTR name, HWND parent, DLGPROC, LPARAM) -> INT_PTR {
        EXPECT_EQ(module, kit::Provider::Get().module());
        EXPECT_EQ(name, MAKEINTRESOURCEW(105));
        EXPECT_EQ(parent, nullptr);
        return IDOK;
      });
  Forget();
  EXPECT_EQ(ksp().OpenProvider(&handle_, kit::kProviderName, 0), NTE_INTERNAL_ERROR);
  ExpectChoice({KeyName("Retrieving data"), "Acquired ", "Iterating through slot list", "Found slot: A reader",
                "Found slot: B reader", "NTE_INTERNAL_ERROR: Selected reader not found."});
}

TEST_F(ReaderDialogTest, SortsTheReadersAndPreselectsTheFirst) {
  CardService service;
  EXPECT_EQ(Open([](Dialog& dialog) {
              EXPECT_EQ(Items(dialog), (std::vector<std::wstring>{L"A reader", L"B reader"}));
              EXPECT_EQ(dialog.Send(kReaderList, CB_GETCURSEL), 0);
              EXPECT_EQ(dialog.text(kReaderList), L"A reader");
              dialog.PressOk();
              EXPECT_FALSE(dialog.open());
            }),
            0);
  EXPECT_STREQ(Record().pszReader, L"A reader");
  EXPECT_EQ(Record().slotId, token().SlotAt(0).id);
  ExpectChoice({KeyName("Retrieving data"), KeyName("Data Retrieved"), "Acquired A reader",
                "Iterating through slot list", "Found slot: A reader",
                "Reader name acquired. Setting active slot to A reader", "Caching provider instance",
                kit::Hex32("Provider handle retrieved: ", handle_)});
  EXPECT_EQ(service.established, 1);
  EXPECT_EQ(service.listed, 1);
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>{kContext});
}

TEST_F(ReaderDialogTest, TakesTheReaderThatTheUserChose) {
  CardService service;
  EXPECT_EQ(Open([](Dialog& dialog) {
              dialog.Send(kReaderList, CB_SETCURSEL, 1);
              dialog.PressOk();
            }),
            0);
  EXPECT_STREQ(Record().pszReader, L"B reader");
  EXPECT_EQ(Record().slotId, token().SlotAt(1).id);
}

TEST_F(ReaderDialogTest, OpeningTheListShowsReadersThatHaveComeAndGone) {
  CardService service;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              dialog.Send(kReaderList, CB_SETCURSEL, 1);
              service.SetReaders({L"Z reader", L"B reader", L"AA reader"});
              DropDown(dialog);
              EXPECT_EQ(Items(dialog), (std::vector<std::wstring>{L"AA reader", L"B reader", L"Z reader"}));
              EXPECT_EQ(dialog.Send(kReaderList, CB_GETCURSEL), 0);
              service.SetReaders({L"B reader"});
              DropDown(dialog);
              EXPECT_EQ(Items(dialog), std::vector<std::wstring>{L"B reader"});
              dialog.PressOk();
            }),
            0);
  EXPECT_STREQ(Record().pszReader, L"B reader");
  EXPECT_EQ(service.established, 1);
  EXPECT_EQ(service.listed, 3);
}

TEST_F(ReaderDialogTest, CancelEndsTheOpen) {
  CardService service;
  const std::vector<Line> cancelled{KeyName("Action was cancelled by the user"),
                                    "ERROR_CANCELLED: The operation was cancelled."};
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressCancel(); }), SECURITY_STATUS{ERROR_CANCELLED});
  EXPECT_EQ(handle_, 0u);
  ExpectChoice(cancelled);
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>{kContext});

  EXPECT_EQ(Open([](Dialog& dialog) {
              dialog.CloseBySystemMenu();
              while (dialog.open())
                Sleep(1);
            }),
            SECURITY_STATUS{ERROR_CANCELLED});
  ExpectChoice(cancelled);

  EXPECT_EQ(Open([](Dialog& dialog) {
              PostMessageW(dialog.control(kReaderList), WM_KEYDOWN, VK_ESCAPE, 1);
              while (dialog.open())
                Sleep(1);
            }),
            SECURITY_STATUS{ERROR_CANCELLED});
  ExpectChoice(cancelled);
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>(3, kContext));
}

TEST_F(ReaderDialogTest, ADialogThatCannotBeShownCountsAsCancelled) {
  Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> hook(
      [](auto, HINSTANCE, LPCWSTR, HWND, DLGPROC, LPARAM) -> INT_PTR { return -1; });
  Forget();
  EXPECT_EQ(ksp().OpenProvider(&handle_, kit::kProviderName, 0), SECURITY_STATUS{ERROR_CANCELLED});
  ExpectChoice({KeyName("Action was cancelled by the user"), "ERROR_CANCELLED: The operation was cancelled."});
}

TEST_F(ReaderDialogTest, ANameOf1023CharactersIsTaken) {
  CardService service;
  service.SetReaders({std::wstring(1023, L'n')});
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressOk(); }), NTE_INTERNAL_ERROR);
  // Too long for a line of the log, and no slot's.
  ExpectChoice({KeyName("Retrieving data"), KeyName("Data Retrieved"), "Acquired ", "Iterating through slot list",
                "Found slot: A reader", "Found slot: B reader", "NTE_INTERNAL_ERROR: Selected reader not found."});
}

TEST_F(ReaderDialogTest, ANameOf1024CharactersLeavesTheBufferAlone) {
  CardService service;
  service.SetReaders({std::wstring(1024, L'n')});
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressOk(); }), NTE_INTERNAL_ERROR);
  ExpectChoice({KeyName("Retrieving data"), "Acquired ", "Iterating through slot list", "Found slot: A reader",
                "Found slot: B reader", "NTE_INTERNAL_ERROR: Selected reader not found."});
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>{kContext});
}

TEST_F(ReaderDialogTest, AReaderThatIsGoneIsNotFound) {
  CardService service;
  service.SetReaders({L"C reader"});
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressOk(); }), NTE_INTERNAL_ERROR);
}

TEST_F(ReaderDialogTest, AServiceThatCannotBeReachedEndsTheOpen) {
  CardService service;
  service.establishResult = static_cast<LONG>(0x8010001D);
  EXPECT_EQ(Open([](Dialog&) { ADD_FAILURE() << "the dialog is shown"; }), NTE_FAIL);
  EXPECT_EQ(handle_, 0u);
  ExpectChoice({"NTE_FAIL: SCardEstablishContext Failed: 0x8010001D"});
  EXPECT_EQ(service.listed, 0);
  EXPECT_TRUE(service.released.empty()) << "there is nothing to release";
  // Nothing lasts.
  service.establishResult = SCARD_S_SUCCESS;
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressOk(); }), 0);
}

TEST_F(ReaderDialogTest, ReadersThatCannotBeListedEndTheOpen) {
  CardService service;
  service.listResult = static_cast<LONG>(0x8010002E);
  EXPECT_EQ(Open([](Dialog&) { ADD_FAILURE() << "the dialog is shown"; }), NTE_FAIL);
  ExpectChoice({"NTE_FAIL: SCardListReaders Failed: 0x8010002E"});
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>{kContext});
}

TEST_F(ReaderDialogTest, AFirstNameOfLessThanTwoCharactersMeansNoReader) {
  CardService service;
  for (const std::vector<std::wstring>& names :
       {std::vector<std::wstring>{}, std::vector<std::wstring>{L"X"}, std::vector<std::wstring>{L"X", L"A reader"}}) {
    service.SetReaders(names);
    EXPECT_EQ(Open([](Dialog&) { ADD_FAILURE() << "the dialog is shown"; }), NTE_FAIL);
    ExpectChoice({"NTE_FAIL: No cards/tokens were detected."});
  }
  service.handsOutNothing = true;
  EXPECT_EQ(Open([](Dialog&) { ADD_FAILURE() << "the dialog is shown"; }), NTE_FAIL);
  ExpectChoice({"NTE_FAIL: No cards/tokens were detected."});
  service.handsOutNothing = false;
  service.SetReaders({L"XY"});
  EXPECT_EQ(Open([](Dialog& dialog) { EXPECT_EQ(Items(dialog), std::vector<std::wstring>{L"XY"}); }),
            SECURITY_STATUS{ERROR_CANCELLED});
}

TEST_F(ReaderDialogTest, AFailureWhileTheListIsOpenedEndsTheOpen) {
  CardService service;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              service.listResult = static_cast<LONG>(0x8010001E);
              DropDown(dialog);
              EXPECT_FALSE(dialog.open());
            }),
            NTE_FAIL);
  ExpectChoice({"NTE_FAIL: SCardListReaders Failed: 0x8010001E"});
  EXPECT_EQ(service.released, std::vector<SCARDCONTEXT>{kContext});

  service.listResult = SCARD_S_SUCCESS;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              service.SetReaders({});
              DropDown(dialog);
              EXPECT_FALSE(dialog.open());
            }),
            NTE_FAIL);
  ExpectChoice({"NTE_FAIL: No cards/tokens were detected."});
}

TEST_F(ReaderDialogTest, WithoutMemoryForTheChoiceTheOpenEnds) {
  CardService service;
  service.SetReaders({L"A reader"});
  kit::MemoryWatch memory;
  EXPECT_EQ(Open([&](Dialog& dialog) {
              // Nine characters of two bytes; nothing else that happens then asks for memory.
              memory.FailWhen([](std::size_t size, std::size_t) { return size == 18; });
              dialog.PressOk();
              EXPECT_FALSE(dialog.open());
            }),
            NTE_NO_MEMORY);
  memory.StopFailing();
  EXPECT_EQ(Open([](Dialog& dialog) { dialog.PressOk(); }), 0);
}

}  // namespace
