// Wide text for tests that also run natively, where the runtime library's wide characters are not 16 bits wide and
// std::wstring is of no use.
#pragma once

#include <string>
#include <string_view>
#include <vector>

using Wide = std::vector<wchar_t>;

// The characters of a narrow literal, the terminator not included.
inline Wide W(std::string_view text) {
  return Wide(text.begin(), text.end());
}

// The same with a terminator behind.
inline Wide Wz(std::string_view text) {
  Wide wide = W(text);
  wide.push_back(L'\0');
  return wide;
}

// The characters in front of the terminator.
inline Wide UpToTerminator(const wchar_t* text) {
  Wide wide;
  while (*text != L'\0')
    wide.push_back(*text++);
  return wide;
}
