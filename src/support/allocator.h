// The provider's own allocator.
#pragma once

#include <cstddef>

// As malloc, for blocks that are released with free: size bytes, null when there is no memory. What the provider asks
// for itself goes through here or through operator new; the runtime library's needs are served by malloc, which has a
// reserve (support/allocator.cpp).
void* AllocateBlock(std::size_t size) noexcept;
