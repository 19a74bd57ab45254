#include "token/reader_name.h"

void ReaderNameFromDescription(wchar_t (&name)[kReaderNameBytes + 1], const unsigned char* description) noexcept {
  for (std::size_t i = 0; i < kReaderNameBytes; ++i)
    name[i] = description[i];
  std::size_t length = kReaderNameBytes;
  while (length != 0 && (name[length - 1] == L' ' || name[length - 1] == L'\0'))
    --length;
  name[length] = L'\0';
}
