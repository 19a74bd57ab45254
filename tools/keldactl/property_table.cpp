#include "property_table.h"

#include "output.h"
#include "status.h"

#include <algorithm>
#include <cstring>

namespace keldactl {
namespace {

std::optional<DWORD> NumberOf(const Bytes& value) {
  DWORD number = 0;
  if (value.size() < sizeof number) return std::nullopt;
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

}  // namespace

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

std::wstring TextOfProperty(const Bytes& value) {
  std::wstring text(value.size() / sizeof(wchar_t), L'\0');
  std::memcpy(text.data(), value.data(), text.size() * sizeof(wchar_t));
  text.erase(std::min(text.find(L'\0'), text.size()));
  return text;
}

void PropertyTable::Add(const wchar_t* title, const char* member, const wchar_t* property,
                        const std::function<Shown(const Bytes&)>& show) {
  Bytes value;
  const SECURITY_STATUS status = ReadProperty(object_, property, &value);
  if (status == ERROR_SUCCESS) {
    Shown shown = show(value);
    Line(title, member, std::move(shown.text), std::move(shown.value));
  } else {
    Line(title, member, L"- " + DescribeStatus(status), nullptr);
    refused_[member] = Utf8(DescribeStatus(status));
  }
}

void PropertyTable::Text(const wchar_t* title, const char* member, const wchar_t* property) {
  Add(title, member, property, [](const Bytes& value) -> Shown {
    const std::wstring text = TextOfProperty(value);
    return {Printable(text), Utf8(text)};
  });
}

void PropertyTable::Number(const wchar_t* title, const char* member, const wchar_t* property,
                           std::wstring (*in_words)(DWORD)) {
  Add(title, member, property, [in_words](const Bytes& value) -> Shown {
    const std::optional<DWORD> number = NumberOf(value);
    if (!number) return {L"- (too short)", nullptr};
    return {in_words(*number), *number};
  });
}

void PropertyTable::Flags(const wchar_t* title, const char* member, const wchar_t* property,
                          std::wstring (*in_words)(DWORD)) {
  Number(title, member, property, in_words);
  if (!json_[member].is_null()) json_[std::string(member) + "_text"] = Utf8(rows_.back()[1]);
}

void PropertyTable::Line(const wchar_t* title, const char* member, std::wstring text, Json value) {
  rows_.push_back({title, std::move(text)});
  json_[member] = std::move(value);
}

Json PropertyTable::InJson() const {
  Json json = json_;
  if (!refused_.empty()) json["refused"] = refused_;
  return json;
}

}  // namespace keldactl
