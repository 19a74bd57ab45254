// Finds the first of a growing list of byte strings that a buffer begins with. Pure logic.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <span>

#include "support/wipe.h"

// Looks only where the hash of a beginning of the buffer leads, once for every length that the list has; the time does
// not grow with the number of strings. It keeps positions, not bytes: there is nothing to wipe, and the list may move.
class PrefixIndex {
 public:
  using Bytes = std::span<const unsigned char>;
  // The bytes of the string at a position of the list.
  using StringAt = Bytes (*)(const void* list, std::size_t position);

  static constexpr std::size_t kMaxLength = 200;
  static constexpr std::size_t kNotFound = static_cast<std::size_t>(-1);

  // Takes room for that many strings. False when there is no memory: then the list has to be walked.
  bool Reserve(std::size_t count) noexcept;
  bool usable() const noexcept { return !slots_.empty(); }

  // Takes the string at the position in: at most kMaxLength bytes, and no more strings than there is room for.
  void Add(Bytes string, std::size_t position) noexcept;

  // The lowest position whose string is what the buffer begins with; the buffer has kMaxLength bytes.
  std::size_t FirstPrefixOf(const unsigned char* buffer, const void* list, StringAt stringAt) const noexcept;

 private:
  WipedArray<std::uint32_t> slots_;  // position + 1, or 0; a power of two, at most half of them taken
  std::bitset<kMaxLength + 1> lengths_;
  std::size_t longest_ = 0;
};
