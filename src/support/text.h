// Text helpers that need no runtime library and no locale: the provider's text has the same form whatever locale
// the host process has set.
#pragma once

#include <cstddef>

// Length in characters, the terminator not counted; 0 for a null pointer.
std::size_t WideLength(const wchar_t* text) noexcept;

// Exact comparison, terminator included. A null pointer equals nothing.
bool WideEqual(const wchar_t* left, const wchar_t* right) noexcept;

// Compares at most count characters, ignoring the case of A to Z only (as _wcsnicmp does in the "C" locale), and
// stops at a terminator that both have. A null pointer equals nothing.
bool WideEqualIgnoringCase(const wchar_t* left, const wchar_t* right, std::size_t count) noexcept;

// Position of the first occurrence of part in text (exact), or kNotFound. An empty part is found at 0.
inline constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);
std::size_t WideFind(const wchar_t* text, const wchar_t* part) noexcept;

// Narrows text into destination (cbDestination bytes, the terminator counted): each character of at most 0xFF
// becomes the byte of the same value. When a character is larger or the text does not fit, destination is left
// empty, with no part of the text in it. Returns the number of bytes written, the terminator counted; 0 on failure. A
// null text is empty.
std::size_t NarrowText(char* destination, std::size_t cbDestination, const wchar_t* text) noexcept;

// Widens count bytes, stopping behind the first zero byte: each byte becomes the character of the same value.
// destination needs room for count + 1 characters and is always terminated. Returns the length, terminator not counted.
std::size_t WidenBytes(wchar_t* destination, const unsigned char* bytes, std::size_t count) noexcept;
