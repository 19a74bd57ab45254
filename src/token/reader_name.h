// From a slot's description to the name of its reader.
#pragma once

#include <cstddef>

// Bytes of a slot description that make up the reader's name.
inline constexpr std::size_t kReaderNameBytes = 32;

// Widens the first 32 bytes of a slot description (PKCS#11 v2.40, 3.2: padded with blanks, not terminated), each byte
// to the character of the same value, and cuts trailing blanks and zeros.
void ReaderNameFromDescription(wchar_t (&name)[kReaderNameBytes + 1], const unsigned char* description) noexcept;
