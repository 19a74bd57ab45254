#include "login/pin_cache/pin_block.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace pinblock {

std::size_t BlockLength(std::size_t cbPin) noexcept {
  if (cbPin > std::numeric_limits<std::size_t>::max() - kPinOffset - kUnit) return 0;
  const std::size_t used = cbPin + kPinOffset;
  return used - used % kUnit + kUnit;
}

void Pack(unsigned char* block, const unsigned char* pin, std::size_t cbPin) noexcept {
  block[kMarkerOffset] = kMarker;
  block[kLengthOffset] = static_cast<unsigned char>(cbPin & 0xFF);
  if (cbPin != 0) std::memcpy(block + kPinOffset, pin, cbPin);
}

std::size_t PinLength(const unsigned char* block) noexcept {
  return block[kLengthOffset];
}

void Unpack(unsigned char* pin, const unsigned char* block, std::size_t cbBlock) noexcept {
  const std::size_t length = PinLength(block);
  const std::size_t held = std::min(length, cbBlock - kPinOffset);
  if (held != 0) std::memcpy(pin, block + kPinOffset, held);
  if (held < length) std::memset(pin + held, 0, length - held);
}

}  // namespace pinblock
