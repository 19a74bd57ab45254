// Bytes to work on. Needs nothing of Windows: the tests that also run natively use it, too.
#pragma once

#include <cstddef>
#include <initializer_list>
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

inline Bytes Joined(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

}  // namespace kit
