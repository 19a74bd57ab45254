#include "token/prefix_index.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

// FNV-1a: the hash of a string's beginning is a step on the way to the hash of the whole.
constexpr std::uint32_t kHashOfNothing = 2166136261U;

std::uint32_t Extend(std::uint32_t hash, unsigned char byte) noexcept {
  return (hash ^ byte) * 16777619U;
}

std::size_t SlotOf(std::uint32_t hash, std::size_t slots) noexcept {
  return (hash ^ (hash >> 15)) & (slots - 1);  // the low bits of the hash alone depend on the bytes' low bits only
}

}  // namespace

bool PrefixIndex::Reserve(std::size_t count) noexcept {
  slots_ = WipedArray<std::uint32_t>::Try(std::bit_ceil(2 * count + 1));
  lengths_.reset();
  longest_ = 0;
  return usable();
}

void PrefixIndex::Add(Bytes string, std::size_t position) noexcept {
  std::uint32_t hash = kHashOfNothing;
  for (const unsigned char byte : string)
    hash = Extend(hash, byte);
  std::size_t slot = SlotOf(hash, slots_.size());
  while (slots_[slot] != 0)
    slot = (slot + 1) & (slots_.size() - 1);
  slots_[slot] = static_cast<std::uint32_t>(position + 1);
  lengths_.set(string.size());
  longest_ = std::max(longest_, string.size());
}

std::size_t PrefixIndex::FirstPrefixOf(const unsigned char* buffer, const void* list,
                                       StringAt stringAt) const noexcept {
  std::size_t first = kNotFound;
  std::uint32_t hash = kHashOfNothing;
  for (std::size_t length = 0;; hash = Extend(hash, buffer[length++])) {
    for (std::size_t slot = SlotOf(hash, slots_.size()); lengths_[length] && slots_[slot] != 0;
         slot = (slot + 1) & (slots_.size() - 1)) {
      const std::size_t position = slots_[slot] - 1;
      if (position >= first) continue;
      const Bytes string = stringAt(list, position);
      if (string.size() == length && (length == 0 || std::memcmp(string.data(), buffer, length) == 0)) first = position;
    }
    if (length == longest_) return first;
  }
}
