// One allocator behind operator new and malloc: buffers from either are released through the one FreeBuffer entry, so
// both must come from the same heap whatever runtime library the compiler brings along.
//
// A block larger than any that an honest call asks for counts as "no memory" at once: a caller's length field at its
// maximum then ends in NTE_NO_MEMORY instead of in a copy from far behind the caller's buffer.
#include <cstdlib>
#include <new>

#include "support/limits.h"

namespace {

void* Allocate(std::size_t size) noexcept {
  if (size > kLargestBlock) return nullptr;
  return std::malloc(size != 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

void* operator new(std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}

void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
