// Wide text of the tests that run as Windows programs only: as narrow text, and as the bytes of a buffer.
#pragma once

#include <string>

#include "kit/bytes.h"

namespace kit {

// Character by character.
inline std::string Narrow(const std::wstring& text) {
  return std::string(text.begin(), text.end());
}

// Two bytes a character, with or without a terminator behind.
inline Bytes WideBytes(const std::wstring& text, bool terminated = true) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.c_str());
  return Bytes(bytes, bytes + (text.size() + (terminated ? 1 : 0)) * sizeof(wchar_t));
}

}  // namespace kit
