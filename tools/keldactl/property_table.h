// Properties of a provider or key, put into words and into JSON.
#pragma once

#include "cng.h"
#include "json.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace keldactl {

struct FlagName {
  DWORD flag;
  const wchar_t* meaning;
};

// The meanings of the flags that are set, joined; flags without a name as a number.
std::wstring FlagsInWords(DWORD flags, const std::vector<FlagName>& names, const wchar_t* none);

// The bytes of a wide string property up to its terminator.
std::wstring TextOfProperty(const Bytes& value);

// A value as it is shown and as it stands in JSON.
struct Shown {
  std::wstring text;
  Json value;
};

// Properties one below the other, each with its value or with the reason why the provider does not tell it. In JSON, a
// property that is not told is null, and its reason stands in "refused".
class PropertyTable {
 public:
  explicit PropertyTable(ULONG_PTR object) : object_(object) {}

  void Add(const wchar_t* title, const char* member, const wchar_t* property,
           const std::function<Shown(const Bytes&)>& show);
  void Text(const wchar_t* title, const char* member, const wchar_t* property);
  // A number, shown in words.
  void Number(const wchar_t* title, const char* member, const wchar_t* property, std::wstring (*in_words)(DWORD));
  // The same, with the words in JSON too, as "<member>_text".
  void Flags(const wchar_t* title, const char* member, const wchar_t* property, std::wstring (*in_words)(DWORD));
  // What is not a property.
  void Line(const wchar_t* title, const char* member, std::wstring text, Json value);

  const std::vector<std::vector<std::wstring>>& rows() const { return rows_; }
  Json InJson() const;

 private:
  ULONG_PTR object_;
  std::vector<std::vector<std::wstring>> rows_;
  Json json_ = Json::object();
  Json refused_ = Json::object();
};

}  // namespace keldactl
