// The plaintext block in which a PIN is handed to the platform's memory protection. No platform calls.
#pragma once

#include <cstddef>

namespace pinblock {

// The memory protection works on whole units of this many bytes.
inline constexpr std::size_t kUnit = 16;
inline constexpr unsigned char kMarker = 0x81;
inline constexpr std::size_t kMarkerOffset = 0;
inline constexpr std::size_t kLengthOffset = 1;
inline constexpr std::size_t kPinOffset = 2;
// A shorter block is no PIN block.
inline constexpr std::size_t kMinimumLength = 8;

// Bytes of the block for a PIN of cbPin bytes: the next multiple of 16 above cbPin + 2. A PIN that would fill its block
// to the end gets a whole block of zeros more; kept on purpose. 0 when no length can hold the result.
std::size_t BlockLength(std::size_t cbPin) noexcept;

// Writes marker, length byte (the low 8 bits of cbPin) and PIN into block, which has BlockLength(cbPin) bytes, all
// zero.
void Pack(unsigned char* block, const unsigned char* pin, std::size_t cbPin) noexcept;

// Length in bytes of the PIN in a block of at least kMinimumLength bytes. The marker is not looked at.
std::size_t PinLength(const unsigned char* block) noexcept;

// Copies the PIN of a block of cbBlock bytes (at least kMinimumLength) into pin, which has room for PinLength bytes.
// Bytes that the length promises and the block does not hold are zero.
void Unpack(unsigned char* pin, const unsigned char* block, std::size_t cbBlock) noexcept;

}  // namespace pinblock
