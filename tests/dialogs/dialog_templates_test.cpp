// The PIN dialog's templates as they lie in the DLL: what the platform makes of them may hide a difference.
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

struct Item {
  std::string type;  // "Button", ...
  int id;
  int x, y, width, height;
  std::wstring text;    // "#101" for a resource's number
  std::uint32_t style;  // expected: those that have to be set
};

struct Template {
  int width = 0;
  int height = 0;
  std::wstring caption;
  int fontSize = 0;
  std::wstring font;
  std::vector<Item> items;
};

// Reads a DLGTEMPLATEEX and its items.
class Reader {
 public:
  explicit Reader(const std::uint8_t* data) : begin_(data), at_(data) {}

  template <typename Value>
  Value Take() {
    Value value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  void Skip(std::size_t size) { at_ += size; }
  void Align() { at_ = begin_ + (at_ - begin_ + 3) / 4 * 4; }
  // A text, or "#" and a number.
  std::wstring TakeText() {
    std::wstring text;
    for (auto c = Take<std::uint16_t>(); c != 0; c = Take<std::uint16_t>()) {
      if (c == 0xFFFF) return L"#" + std::to_wstring(Take<std::uint16_t>());
      text += static_cast<wchar_t>(c);
    }
    return text;
  }

 private:
  const std::uint8_t* begin_;
  const std::uint8_t* at_;
};

// Window classes come by number or by name.
std::string ClassName(const std::wstring& text) {
  if (text == L"#128") return "Button";
  if (text == L"#129") return "Edit";
  if (text == L"#130") return "Static";
  return _wcsicmp(text.c_str(), L"Static") == 0 ? "Static" : "?";
}

Template Read(int id) {
  Template result;
  const HMODULE module = kit::Provider::Get().module();
  const HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(5));  // RT_DIALOG
  if (!found) return result;
  Reader reader(static_cast<const std::uint8_t*>(LockResource(LoadResource(module, found))));
  EXPECT_EQ(reader.Take<std::uint16_t>(), 1);
  EXPECT_EQ(reader.Take<std::uint16_t>(), 0xFFFF) << "no DLGTEMPLATEEX";
  reader.Skip(8);  // help, extended style
  EXPECT_NE(reader.Take<std::uint32_t>() & DS_SETFONT, 0u);
  const auto count = reader.Take<std::uint16_t>();
  reader.Skip(4);
  result.width = reader.Take<std::int16_t>();
  result.height = reader.Take<std::int16_t>();
  EXPECT_EQ(reader.TakeText(), L"") << "a menu";
  EXPECT_EQ(reader.TakeText(), L"") << "a window class";
  result.caption = reader.TakeText();
  result.fontSize = reader.Take<std::uint16_t>();
  reader.Skip(4);
  result.font = reader.TakeText();
  for (int i = 0; i < count; ++i) {
    Item item;
    reader.Align();
    reader.Skip(8);
    item.style = reader.Take<std::uint32_t>();
    item.x = reader.Take<std::int16_t>();
    item.y = reader.Take<std::int16_t>();
    item.width = reader.Take<std::int16_t>();
    item.height = reader.Take<std::int16_t>();
    item.id = reader.Take<std::int32_t>();
    item.type = ClassName(reader.TakeText());
    item.text = reader.TakeText();
    EXPECT_EQ(reader.Take<std::uint16_t>(), 0) << "creation data";
    result.items.push_back(item);
  }
  return result;
}

class DialogTemplatesTest : public kit::ProviderTest {
 protected:
  static void ExpectPinDialog(int id, int height, const std::wstring& product) {
    const Template actual = Read(id);
    EXPECT_EQ(actual.width, 242);
    EXPECT_EQ(actual.height, height);
    EXPECT_EQ(actual.caption, L"Enter PIN for <Token Name>");
    EXPECT_EQ(actual.fontSize, 8);
    EXPECT_EQ(actual.font, L"MS Shell Dlg");
    const std::vector<Item> items{
        {"Static", 1002, 17, 14, 54, 50, L"#101", SS_BITMAP | SS_REALSIZEIMAGE},
        {"Button", -1, 6, 3, 230, 80, L"", BS_GROUPBOX},
        {"Edit", 1001, 97, 21, 125, 14, L"", ES_PASSWORD | ES_AUTOHSCROLL | WS_BORDER | WS_TABSTOP},
        {"Button", 1, 97, 56, 56, 15, L"Login", BS_DEFPUSHBUTTON | WS_TABSTOP},
        {"Button", 2, 166, 56, 56, 15, L"Cancel", BS_PUSHBUTTON | WS_TABSTOP},
        {"Static", 1003, 80, 23, 15, 8, L"PIN:", SS_LEFT},
        {"Static", 1004, 98, 41, 124, 8, L"Incorrect PIN. XX retries left", SS_CENTER},
        {"Static", -1, 12, 66, 68, 8, product, 0}};
    ASSERT_EQ(actual.items.size(), items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
      SCOPED_TRACE("control " + std::to_string(items[i].id));
      EXPECT_EQ(actual.items[i].type, items[i].type);
      EXPECT_EQ(actual.items[i].id, items[i].id);
      EXPECT_EQ(actual.items[i].x, items[i].x);
      EXPECT_EQ(actual.items[i].y, items[i].y);
      EXPECT_EQ(actual.items[i].width, items[i].width);
      EXPECT_EQ(actual.items[i].height, items[i].height);
      EXPECT_EQ(actual.items[i].text, items[i].text);
      EXPECT_EQ(actual.items[i].style & items[i].style, items[i].style);
      EXPECT_NE(actual.items[i].style & WS_VISIBLE, 0u);
    }
  }
};

TEST_F(DialogTemplatesTest, ThePinDialog) {
  ExpectPinDialog(102, 90, L"Key Storage Provider");
}

TEST_F(DialogTemplatesTest, TheSiblingsPinDialog) {
  ExpectPinDialog(112, 93, L" Cryptographic Service Provider");
}

TEST_F(DialogTemplatesTest, ThePicturesAreThere) {
  const HMODULE module = kit::Provider::Get().module();
  EXPECT_NE(FindResourceW(module, MAKEINTRESOURCEW(101), MAKEINTRESOURCEW(2)), nullptr) << "RT_BITMAP";
  EXPECT_NE(FindResourceW(module, MAKEINTRESOURCEW(103), MAKEINTRESOURCEW(14)), nullptr) << "RT_GROUP_ICON";
}

}  // namespace
