// The seeded generator behind a soak: the same seed gives the same sequence on every machine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace soak {

class Random {
 public:
  explicit Random(std::uint64_t seed = 0) : state_(seed) {}

  // SplitMix64 (Steele, Lea, Flood: Fast splittable pseudorandom number generators, 2014).
  std::uint64_t Next() {
    state_ += 0x9E3779B97F4A7C15U;
    std::uint64_t value = state_;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31);
  }
  // A number from 0 to limit - 1.
  std::uint32_t Below(std::uint32_t limit) { return static_cast<std::uint32_t>(Next() % limit); }
  bool OneIn(std::uint32_t count) { return Below(count) == 0; }
  template <typename Item, std::size_t N>
  const Item& Of(const Item (&items)[N]) {
    return items[Below(static_cast<std::uint32_t>(N))];
  }

 private:
  std::uint64_t state_;
};

}  // namespace soak
