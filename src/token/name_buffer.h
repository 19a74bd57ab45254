// The key name in a buffer of an import's parameter list. Pure logic.
#pragma once

#include <cstddef>

// Measures the name in size bytes of 16-bit characters (any alignment): cbName becomes the number of bytes in front of
// its terminator. A name without a terminator of its own reaches to the end of the data, an odd last byte included, as
// long as there is a zero byte anywhere, as in the high half of a Latin letter. False without such a byte.
bool MeasureName(const unsigned char* data, std::size_t size, std::size_t& cbName) noexcept;
