// What the tests of the PIN cache share: the calls with which it protects its memory, and serial numbers.
#pragma once

#include <windows.h>

#include <wincrypt.h>

#include <algorithm>
#include <array>
#include <string>

#include "kit/imports.h"
#include "login/pin_cache/pin_cache_entry.h"

using ProtectHook = kit::Hook<"CryptProtectMemory", decltype(&CryptProtectMemory)>;
using UnprotectHook = kit::Hook<"CryptUnprotectMemory", decltype(&CryptUnprotectMemory)>;
using LockHook = kit::Hook<"VirtualLock", decltype(&VirtualLock)>;
using UnlockHook = kit::Hook<"VirtualUnlock", decltype(&VirtualUnlock)>;

inline const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

using Serial = std::array<unsigned char, kSerialLength>;

inline Serial SerialOf(unsigned number) {
  Serial serial;
  serial.fill(' ');
  const std::string text = std::to_string(number);
  std::copy(text.begin(), text.end(), serial.begin());
  return serial;
}
