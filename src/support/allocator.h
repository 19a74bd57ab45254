// The provider's own allocator.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

// As malloc, for blocks that are released with free: size bytes, null when there is no memory. What the provider asks
// for itself goes through here or through operator new; the runtime library's needs are served by malloc, which has a
// reserve (support/allocator.cpp).
void* AllocateBlock(std::size_t size) noexcept;

struct FreeBlock {
  void operator()(void* block) const noexcept { std::free(block); }
};
// Owns a block from AllocateBlock.
template <class T>
using AllocatedBlock = std::unique_ptr<T, FreeBlock>;
