// One allocator behind operator new and malloc: buffers from either are released through the one FreeBuffer entry, so
// both must come from the same heap whatever runtime library the compiler brings along.
//
// A block larger than any that an honest call asks for counts as "no memory" at once: a caller's length field at its
// maximum then ends in NTE_NO_MEMORY instead of in a copy from far behind the caller's buffer.
//
// The runtime library needs memory of its own to report that there is none: the exception object, each thread's list of
// exceptions. Without it, it ends the host process. The linker (--wrap) therefore
// sends its calls of malloc through here, where a reserve stands in for a heap that has nothing left.
#include "support/allocator.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "support/limits.h"
#include "support/wrapped_malloc.h"

namespace {

// Blocks of one size: an exception object takes less than 200 bytes, what is kept for a thread less than 400.
class Reserve {
 public:
  static constexpr std::size_t kBlockSize = 512;

  void* Take(std::size_t size) noexcept {
    if (size > kBlockSize) return nullptr;
    for (std::size_t i = 0; i < kBlocks; ++i) {
      if (!taken_[i].exchange(true)) return blocks_[i].bytes;
    }
    return nullptr;
  }
  bool Holds(const void* block) const noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const auto begin = reinterpret_cast<std::uintptr_t>(blocks_.data());
    return address >= begin && address - begin < sizeof(blocks_);
  }
  void Release(const void* block) noexcept {
    taken_[(reinterpret_cast<std::uintptr_t>(block) - reinterpret_cast<std::uintptr_t>(blocks_.data())) / kBlockSize] =
        false;
  }

 private:
  static constexpr std::size_t kBlocks = 128;
  struct Block {
    alignas(std::max_align_t) unsigned char bytes[kBlockSize];
  };

  std::array<Block, kBlocks> blocks_ = {};
  std::array<std::atomic<bool>, kBlocks> taken_ = {};
};

constinit Reserve g_Reserve;

void* Allocate(std::size_t size) noexcept {
  if (size > kLargestBlock) return nullptr;
  return AllocateBlock(size != 0 ? size : 1);
}

void* AllocateOrThrow(std::size_t size) {
  void* block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void* __wrap_malloc(std::size_t size) {
  void* block = __real_malloc(size);
  return block != nullptr ? block : g_Reserve.Take(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  void* block = __real_calloc(count, size);
  if (block != nullptr || (count != 0 && size > Reserve::kBlockSize / count)) return block;
  block = g_Reserve.Take(count * size);
  if (block != nullptr) std::memset(block, 0, count * size);
  return block;
}

void* __wrap_realloc(void* block, std::size_t size) {
  if (block == nullptr) return __wrap_malloc(size);
  if (!g_Reserve.Holds(block)) return __real_realloc(block, size);
  void* grown = __wrap_malloc(size);
  if (grown == nullptr) return nullptr;
  std::memcpy(grown, block, size < Reserve::kBlockSize ? size : Reserve::kBlockSize);
  g_Reserve.Release(block);
  return grown;
}

void __wrap_free(void* block) {
  if (g_Reserve.Holds(block)) {
    g_Reserve.Release(block);
  } else {
    __real_free(block);
  }
}

void* AllocateBlock(std::size_t size) noexcept {
  return __real_malloc(size);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

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
