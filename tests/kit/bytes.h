// Bytes to work on. Needs nothing of Windows: the tests that also run natively use it, too.
#pragma once

#include <cstddef>
#include <vector>

namespace kit {

using Bytes = std::vector<unsigned char>;

// first, first + 1, ...
inline Bytes Counting(std::size_t count, unsigned char first = 1) {
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; ++i)
    bytes[i] = static_cast<unsigned char>(first + i);
  return bytes;
}

inline Bytes Joined(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

}  // namespace kit
