// Byte strings that leave nothing behind. Files that are read may hold private keys, and decrypted text is somebody's
// secret: whatever a buffer held is overwritten before its memory is released, also when it grows and moves. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

namespace keldactl {

// Writes that no compiler may drop.
inline void Wipe(void* data, std::size_t size) noexcept {
  volatile auto* bytes = static_cast<volatile unsigned char*>(data);
  for (std::size_t i = 0; i < size; ++i)
    bytes[i] = 0;
}

template <typename T, typename Memory = std::allocator<T>>
class WipingAllocator {
 public:
  using value_type = T;
  template <typename Other>
  struct rebind {
    using other = WipingAllocator<Other, typename std::allocator_traits<Memory>::template rebind_alloc<Other>>;
  };

  WipingAllocator() noexcept = default;
  template <typename Other, typename OtherMemory>
  explicit WipingAllocator(const WipingAllocator<Other, OtherMemory>& /*other*/) noexcept {}

  T* allocate(std::size_t count) { return Memory().allocate(count); }
  void deallocate(T* memory, std::size_t count) noexcept {
    static_assert(std::is_trivially_destructible_v<T>);
    Wipe(memory, count * sizeof(T));
    Memory().deallocate(memory, count);
  }

  friend bool operator==(const WipingAllocator& /*left*/, const WipingAllocator& /*right*/) noexcept { return true; }
};

using Bytes = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

}  // namespace keldactl
