// A slot description as a token module gives it.
#include "token/reader_name.h"

#include <algorithm>

#include "support/text.h"
#include "target.h"

FUZZ_TARGET(reader_name) {
  std::vector<std::uint8_t> description(input.begin(), input.end());
  description.resize(kReaderNameBytes, ' ');
  wchar_t name[kReaderNameBytes + 1];
  std::fill(std::begin(name), std::end(name), L'#');
  ReaderNameFromDescription(name, description.data());
  std::size_t length = kReaderNameBytes;
  while (length != 0 && (description[length - 1] == ' ' || description[length - 1] == 0))
    --length;
  FUZZ_CHECK(name[length] == L'\0');
  for (std::size_t i = 0; i < length; ++i)
    FUZZ_CHECK(name[i] == description[i]);
}
