// The block in which a PIN is cached.
#include "login/pin_cache/pin_block.h"

#include <algorithm>

#include "target.h"

FUZZ_TARGET(pin_block) {
  const std::vector<std::uint8_t> pin(input.begin(), input.end());
  std::vector<std::uint8_t> block(pinblock::BlockLength(pin.size()));
  FUZZ_CHECK(block.size() % pinblock::kUnit == 0 && block.size() > pin.size() + pinblock::kPinOffset);
  pinblock::Pack(block.data(), pin.data(), pin.size());
  FUZZ_CHECK(pinblock::PinLength(block.data()) == pin.size() % 256);
  std::vector<std::uint8_t> back(pinblock::PinLength(block.data()));
  pinblock::Unpack(back.data(), block.data(), block.size());
  FUZZ_CHECK(std::equal(back.begin(), back.end(), pin.begin()));

  // The input itself as a block, whatever it promises.
  if (pin.size() < pinblock::kMinimumLength) return;
  std::vector<std::uint8_t> other(pinblock::PinLength(pin.data()), 0xEE);
  pinblock::Unpack(other.data(), pin.data(), pin.size());
  for (std::size_t i = 0; i < other.size(); ++i) {
    const std::size_t place = pinblock::kPinOffset + i;
    FUZZ_CHECK(other[i] == (place < pin.size() ? pin[place] : 0));
  }
}
