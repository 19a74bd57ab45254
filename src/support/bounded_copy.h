// Bounded copy of wide strings.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint32_t kCopyInvalidArgument = 0x80070057;     // E_INVALIDARG
inline constexpr std::uint32_t kCopyInsufficientBuffer = 0x8007007A;  // HRESULT of ERROR_INSUFFICIENT_BUFFER

// Copies the zero-terminated string source into destination, which has room for cchDestination characters, the
// terminator counted. Returns 0; kCopyInvalidArgument for a room of 0 or above 0x7FFFFFFF characters (nothing is
// copied); kCopyInsufficientBuffer for a source that was cut (the last place then holds the terminator).
// A null source counts as an empty string.
std::uint32_t BoundedCopy(wchar_t* destination, std::size_t cchDestination, const wchar_t* source) noexcept;
