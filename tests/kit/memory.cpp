#include "kit/memory.h"

#include <windows.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <set>

#include "kit/imports.h"

namespace kit {

// The provider takes all its blocks from the runtime library's heap, which is the test program's as well.
void* NewProviderBlock(const void* data, std::size_t size) {
  void* block = std::malloc(size);
  if (block) std::copy_n(static_cast<const std::uint8_t*>(data), size, static_cast<std::uint8_t*>(block));
  return block;
}

struct MemoryWatch::State {
  mutable std::recursive_mutex lock;
  std::size_t allocations = 0;
  std::function<bool(std::size_t, std::size_t)> fail;
  std::vector<FreedBlock> freed;
  std::map<const void*, std::size_t> live;
  std::set<const void*> released;  // without those that were handed out again since

  bool Refuse(std::size_t size) {
    const std::lock_guard guard(lock);
    ++allocations;
    return fail && fail(size, allocations);
  }
  void* Allocated(void* block, std::size_t size) {
    const std::lock_guard guard(lock);
    if (block) {
      live[block] = size;
      released.erase(block);
    }
    return block;
  }
  void Freeing(const void* block, std::size_t size) {
    const std::lock_guard guard(lock);
    if (!block) return;
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    freed.push_back({block, std::vector<std::uint8_t>(bytes, bytes + size)});
    live.erase(block);
    released.insert(block);
  }
};

namespace {
MemoryWatch::State* g_state = nullptr;

using MallocHook = Hook<"malloc", void* (*)(std::size_t)>;
using CallocHook = Hook<"calloc", void* (*)(std::size_t, std::size_t)>;
using ReallocHook = Hook<"realloc", void* (*)(void*, std::size_t)>;
using FreeHook = Hook<"free", void (*)(void*)>;
using HeapAllocHook = Hook<"HeapAlloc", decltype(&HeapAlloc)>;
using HeapFreeHook = Hook<"HeapFree", decltype(&HeapFree)>;

struct Hooks {
  MallocHook allocate{[](auto original, std::size_t size) -> void* {
    if (g_state->Refuse(size)) return nullptr;
    return g_state->Allocated(original(size), size);
  }};
  CallocHook allocateZeroed{[](auto original, std::size_t count, std::size_t size) -> void* {
    if (g_state->Refuse(count * size)) return nullptr;
    return g_state->Allocated(original(count, size), count * size);
  }};
  ReallocHook reallocate{[](auto original, void* block, std::size_t size) -> void* {
    if (g_state->Refuse(size)) return nullptr;
    if (block) g_state->Freeing(block, _msize(block));
    return g_state->Allocated(original(block, size), size);
  }};
  FreeHook release{[](auto original, void* block) {
    if (block) g_state->Freeing(block, _msize(block));
    original(block);
  }};
  HeapAllocHook heapAllocate{[](auto original, HANDLE heap, DWORD flags, SIZE_T size) -> LPVOID {
    if (g_state->Refuse(size)) return nullptr;
    return g_state->Allocated(original(heap, flags, size), size);
  }};
  HeapFreeHook heapRelease{[](auto original, HANDLE heap, DWORD flags, LPVOID block) -> BOOL {
    if (block) g_state->Freeing(block, HeapSize(heap, 0, block));
    return original(heap, flags, block);
  }};
};

std::unique_ptr<Hooks> g_hooks;

bool Contains(const std::vector<FreedBlock>& freed, const std::vector<std::uint8_t>& bytes) {
  return std::any_of(freed.begin(), freed.end(), [&](const FreedBlock& block) {
    return std::search(block.contents.begin(), block.contents.end(), bytes.begin(), bytes.end()) !=
           block.contents.end();
  });
}

}  // namespace

MemoryWatch::MemoryWatch() : state_(std::make_unique<State>()) {
  g_state = state_.get();
  g_hooks = std::make_unique<Hooks>();
}

MemoryWatch::~MemoryWatch() {
  g_hooks.reset();
  g_state = nullptr;
}

void MemoryWatch::FailAllocation(std::size_t nth) {
  const std::lock_guard guard(state_->lock);
  const std::size_t wanted = state_->allocations + nth;
  state_->fail = [wanted](std::size_t, std::size_t number) { return number == wanted; };
}

void MemoryWatch::FailWhen(std::function<bool(std::size_t, std::size_t)> predicate) {
  const std::lock_guard guard(state_->lock);
  state_->fail = std::move(predicate);
}

void MemoryWatch::StopFailing() {
  FailWhen(nullptr);
}

std::size_t MemoryWatch::Allocations() const {
  const std::lock_guard guard(state_->lock);
  return state_->allocations;
}

std::vector<FreedBlock> MemoryWatch::Freed() const {
  const std::lock_guard guard(state_->lock);
  return state_->freed;
}

std::map<const void*, std::size_t> MemoryWatch::Live() const {
  const std::lock_guard guard(state_->lock);
  return state_->live;
}

bool MemoryWatch::WasFreed(const void* address) const {
  const std::lock_guard guard(state_->lock);
  return state_->released.contains(address);
}

bool MemoryWatch::FreedContains(std::string_view bytes) const {
  return Contains(Freed(), std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

bool MemoryWatch::FreedContainsWide(std::string_view text) const {
  std::vector<std::uint8_t> bytes;
  for (char character : text) {
    bytes.push_back(static_cast<std::uint8_t>(character));
    bytes.push_back(0);
  }
  return Contains(Freed(), bytes);
}

}  // namespace kit
