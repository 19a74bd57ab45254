#include "unicode.h"

#include "platform.h"

#include <algorithm>

namespace keldactl {

std::string Utf8(std::wstring_view wide) {
  const int characters = static_cast<int>(wide.size());
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide.data(), characters, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<size_t>(std::max(bytes, 0)), '\0');
  WideCharToMultiByte(CP_UTF8, 0, wide.data(), characters, utf8.data(), bytes, nullptr, nullptr);
  return utf8;
}

std::wstring Wide(std::string_view utf8) {
  const int bytes = static_cast<int>(utf8.size());
  const int characters = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, nullptr, 0);
  std::wstring wide(static_cast<size_t>(std::max(characters, 0)), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, utf8.data(), bytes, wide.data(), characters);
  return wide;
}

}  // namespace keldactl
