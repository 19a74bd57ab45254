// The provider's heap in the hands of the tests: what it allocates, what a block holds at the moment it is released,
// and allocations that fail.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace kit {

// A copy of the bytes in a block that the provider can release as one of its own. nullptr when memory runs out.
void* NewProviderBlock(const void* data, std::size_t size);

struct FreedBlock {
  const void* address;
  std::vector<std::uint8_t> contents;
};

// Watches malloc, calloc, realloc, free, HeapAlloc and HeapFree of keldaksp.dll while it lives (one at a time).
class MemoryWatch {
 public:
  MemoryWatch();
  ~MemoryWatch();
  MemoryWatch(const MemoryWatch&) = delete;
  MemoryWatch& operator=(const MemoryWatch&) = delete;

  // The nth allocation from now on (1 = the next one) fails.
  void FailAllocation(std::size_t nth);
  // Allocations for which the predicate says so fail: (bytes, number of the allocation since the watch began).
  void FailWhen(std::function<bool(std::size_t size, std::size_t number)> predicate);
  void StopFailing();

  std::size_t Allocations() const;  // allocations asked for so far, failed ones included
  std::vector<FreedBlock> Freed() const;
  // Blocks that were allocated under this watch and not released: address and size.
  std::map<const void*, std::size_t> Live() const;
  // Whether the block at the address was released under this watch and not handed out again since.
  bool WasFreed(const void* address) const;

  // Whether a released block held these bytes, or the text as 16-bit characters.
  bool FreedContains(std::string_view bytes) const;
  bool FreedContainsWide(std::string_view text) const;

  struct State;

 private:
  std::unique_ptr<State> state_;
};

}  // namespace kit
