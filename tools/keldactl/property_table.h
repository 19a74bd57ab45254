// Properties of a provider or key, put into words.
#pragma once

#include "cng.h"

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

// The bytes of a wide string property up to its terminator, as it can be shown.
std::wstring TextInWords(const Bytes& value);

// A property in words, or why there is none.
class PropertyTable {
 public:
  explicit PropertyTable(ULONG_PTR object) : object_(object) {}

  void Text(const wchar_t* title, const wchar_t* property) { Add(title, property, TextInWords); }

  void Number(const wchar_t* title, const wchar_t* property, std::wstring (*in_words)(DWORD));

  template <typename InWords>
  void Add(const wchar_t* title, const wchar_t* property, InWords in_words) {
    Bytes value;
    const SECURITY_STATUS status = ReadProperty(object_, property, &value);
    rows_.push_back({title, status == ERROR_SUCCESS ? in_words(value) : Refusal(status)});
  }

  void Line(const wchar_t* title, std::wstring value) { rows_.push_back({title, std::move(value)}); }
  const std::vector<std::vector<std::wstring>>& rows() const { return rows_; }

 private:
  static std::wstring Refusal(SECURITY_STATUS status);

  ULONG_PTR object_;
  std::vector<std::vector<std::wstring>> rows_;
};

}  // namespace keldactl
