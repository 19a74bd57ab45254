#include "token/hex_name.h"

namespace {

constexpr unsigned kNoDigit = 16;

unsigned DigitValue(wchar_t c) noexcept {
  if (c >= L'0' && c <= L'9') return static_cast<unsigned>(c - L'0');
  if (c >= L'A' && c <= L'F') return static_cast<unsigned>(c - L'A' + 10);
  if (c >= L'a' && c <= L'f') return static_cast<unsigned>(c - L'a' + 10);
  return kNoDigit;
}

}  // namespace

bool ParseHexName(const wchar_t* name, std::size_t length, wchar_t* converted) noexcept {
  std::size_t written = 0;
  bool valid = length % 2 == 0;
  for (std::size_t i = 0; valid && i < length; i += 2) {
    const unsigned first = DigitValue(name[i]);
    const unsigned second = DigitValue(name[i + 1]);
    valid = first != kNoDigit;
    if (!valid) break;
    const unsigned value = second != kNoDigit ? first * 16 + second : first;
    if (value != 0) converted[written++] = static_cast<wchar_t>(value);
  }
  if (!valid) written = 0;
  converted[written] = L'\0';
  return valid;
}
