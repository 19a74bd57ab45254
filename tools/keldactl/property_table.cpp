#include "property_table.h"

#include "output.h"
#include "status.h"

#include <cstring>

namespace keldactl {

std::wstring FlagsInWords(DWORD flags, const std::vector<FlagName>& names, const wchar_t* none) {
  std::wstring text;
  for (const FlagName& name : names) {
    if ((flags & name.flag) == 0) continue;
    text += (text.empty() ? L"" : L", ") + std::wstring(name.meaning);
    flags &= ~name.flag;
  }
  if (flags) text += (text.empty() ? L"" : L", ") + Hex32(flags);
  return text.empty() ? none : text;
}

std::wstring TextInWords(const Bytes& value) {
  std::wstring text(value.size() / sizeof(wchar_t), L'\0');
  std::memcpy(text.data(), value.data(), text.size() * sizeof(wchar_t));
  return Printable(text.c_str());
}

void PropertyTable::Number(const wchar_t* title, const wchar_t* property, std::wstring (*in_words)(DWORD)) {
  Add(title, property, [in_words](const Bytes& value) {
    DWORD number = 0;
    if (value.size() < sizeof number) return std::wstring(L"(too short)");
    std::memcpy(&number, value.data(), sizeof number);
    return in_words(number);
  });
}

std::wstring PropertyTable::Refusal(SECURITY_STATUS status) {
  return L"- " + DescribeStatus(status);
}

}  // namespace keldactl
