// Key names written as hexadecimal text. Pure logic.
#pragma once

#include <cstddef>

// Reads name (length characters) as pairs of hexadecimal digits, either case, into converted, which has room for
// length / 2 + 1 characters and is always terminated. Each pair becomes the character of its value; a value of 0 adds
// nothing; a second character that is no digit ends the number after one digit. Returns false and leaves converted
// empty when the length is odd or a pair does not begin with a digit.
bool ParseHexName(const wchar_t* name, std::size_t length, wchar_t* converted) noexcept;
