// A key name that a caller may have written in hexadecimal digits.
#include "token/hex_name.h"

#include "support/text.h"
#include "target.h"

namespace {

bool IsDigit(wchar_t c) {
  return (c >= L'0' && c <= L'9') || (c >= L'A' && c <= L'F') || (c >= L'a' && c <= L'f');
}

}  // namespace

FUZZ_TARGET(hex_name) {
  fuzz::Parts parts(input);
  // Narrow input lets the fuzzer hit digits more often.
  const bool narrow = (parts.Byte() & 1) != 0;
  std::vector<wchar_t> name;
  if (narrow) {
    for (const std::uint8_t byte : parts.Rest())
      name.push_back(byte);
  } else {
    name = parts.Characters(static_cast<std::size_t>(-1));
  }
  std::vector<wchar_t> converted(name.size() / 2 + 1, L'#');
  const bool valid = ParseHexName(name.data(), name.size(), converted.data());

  bool expected = name.size() % 2 == 0;
  for (std::size_t i = 0; expected && i < name.size(); i += 2)
    expected = IsDigit(name[i]);
  FUZZ_CHECK(valid == expected);
  const std::size_t length = WideLength(converted.data());
  if (!valid) {
    FUZZ_CHECK(length == 0);
    return;
  }
  FUZZ_CHECK(length <= name.size() / 2);

  // Written in digits again, the converted name gives itself.
  static const char digits[] = "0123456789abcdef";
  std::vector<wchar_t> text;
  for (std::size_t i = 0; i < length; ++i) {
    FUZZ_CHECK(converted[i] >= 1 && converted[i] <= 0xFF);
    text.push_back(static_cast<wchar_t>(digits[converted[i] >> 4]));
    text.push_back(static_cast<wchar_t>(digits[converted[i] & 15]));
  }
  std::vector<wchar_t> again(length + 1);
  FUZZ_CHECK(ParseHexName(text.data(), text.size(), again.data()));
  FUZZ_CHECK(WideEqual(again.data(), converted.data()));
}
