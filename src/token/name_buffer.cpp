#include "token/name_buffer.h"

#include <cstring>

bool MeasureName(const unsigned char* data, std::size_t size, std::size_t& cbName) noexcept {
  if (std::memchr(data, 0, size) == nullptr) return false;
  for (std::size_t i = 0; size - i >= sizeof(wchar_t); i += sizeof(wchar_t)) {
    if (data[i] != 0 || data[i + 1] != 0) continue;
    cbName = i;
    return true;
  }
  cbName = size;
  return true;
}
