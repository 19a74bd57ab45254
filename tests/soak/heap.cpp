#include "soak/heap.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <unordered_map>

#include "kit/imports.h"
#include "soak/faults.h"

namespace soak {
namespace {

constexpr std::size_t kPage = 4096;
// A process in which larger blocks are to be had would only make the soak slow.
constexpr std::size_t kLargest = 8U << 20;
constexpr std::size_t kFilledBytes = 1U << 16;
constexpr std::size_t kDelayedSlots = 256;  // released pages rest for so many releases before they are used again
constexpr std::size_t kArena = 64U << 20;   // a 32-bit process has no large range in one piece

// Pages of reserved ranges, committed for one block at a time. The page behind each block is never committed.
class GuardPages {
 public:
  void* Allocate(std::size_t size) {
    const std::size_t pages = PagesFor(size);
    std::uint8_t* slot = Slot(pages);
    if (!slot || !VirtualAlloc(slot, pages * kPage, MEM_COMMIT, PAGE_READWRITE)) return nullptr;
    const std::size_t used = Used(size);
    std::uint8_t* const end = slot + pages * kPage;
    std::memset(end - used + size, kBehind, used - size);
    return end - used;
  }
  // Whether nothing was written behind the block, where its alignment leaves a few bytes before the page's end.
  static bool Intact(const void* block, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(block);
    return std::all_of(bytes + size, bytes + Used(size), [](std::uint8_t byte) { return byte == kBehind; });
  }
  // Takes no lock: it is asked while an exception is handled.
  bool Holds(std::uintptr_t address) const {
    return std::any_of(arenas_.begin(), arenas_.begin() + static_cast<std::ptrdiff_t>(arenaCount_.load()),
                       [&](std::uintptr_t arena) { return address >= arena && address - arena < kArena; });
  }
  void Release(void* block, std::size_t size) {
    const std::size_t pages = PagesFor(size);
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(block) + Used(size);
    auto* slot = reinterpret_cast<std::uint8_t*>(end - pages * kPage);
    VirtualFree(slot, pages * kPage, MEM_DECOMMIT);
    free_[pages].push_back(slot);
  }

 private:
  static constexpr std::uint8_t kBehind = 0xBE;
  static constexpr std::size_t kSmall = 72;  // no record with a text behind it is as small

  // As near to the page's end as the alignment allows. A small block is aligned as its size says: the size of a type is
  // a multiple of its alignment. A larger one may be a record with a text behind it.
  static std::size_t Used(std::size_t size) {
    const std::size_t natural = size ? std::min<std::size_t>(size & (~size + 1), 16) : 1;
    const std::size_t alignment = size <= kSmall ? natural : 16;
    return (size + alignment - 1) / alignment * alignment;
  }
  static std::size_t PagesFor(std::size_t size) { return std::max<std::size_t>((size + kPage - 1) / kPage, 1); }
  std::uint8_t* Slot(std::size_t pages) {
    std::deque<std::uint8_t*>& free = free_[pages];
    // Large slots are few, and not worth the address space that a rest would cost.
    if (free.size() > (pages <= 4 ? kDelayedSlots : 0)) {
      std::uint8_t* slot = free.front();
      free.pop_front();
      return slot;
    }
    const std::size_t bytes = (pages + 1) * kPage;
    if (left_ < bytes) {
      arena_ = static_cast<std::uint8_t*>(VirtualAlloc(nullptr, kArena, MEM_RESERVE, PAGE_NOACCESS));
      left_ = arena_ ? kArena : 0;
      if (arena_ && arenaCount_ < kArenas) arenas_[arenaCount_++] = reinterpret_cast<std::uintptr_t>(arena_);
    }
    if (left_ < bytes) return nullptr;
    std::uint8_t* slot = arena_;
    arena_ += bytes;
    left_ -= bytes;
    return slot;
  }

  static constexpr std::size_t kArenas = 256;
  std::array<std::uintptr_t, kArenas> arenas_{};
  std::atomic<std::size_t> arenaCount_{0};
  std::uint8_t* arena_ = nullptr;
  std::size_t left_ = 0;
  std::map<std::size_t, std::deque<std::uint8_t*>> free_;
};

struct Block {
  std::size_t size;
  std::uint64_t serial;
  std::uint32_t tag;
  HeapKind kind;
  bool ofTheDll;
};

struct State {
  mutable std::recursive_mutex lock;
  HeapKind kind = HeapKind::Plain;
  GuardPages pages;
  std::unordered_map<const void*, Block> blocks;
  struct Fresh {
    void* address;
    std::uint64_t serial;
  };
  std::vector<Fresh> fresh;
  std::uint64_t serial = 0;
  std::uint32_t tag = 0;
  std::size_t liveBytes = 0;
  std::string violation;
};

// Never destroyed: the DLL releases its last blocks while the process ends.
State& S() {
  static State& state = *new State;
  return state;
}

void* Take(std::size_t size, bool ofTheDll) {
  State& state = S();
  const std::lock_guard guard(state.lock);
  if (size > kLargest) return nullptr;
  void* block = state.kind == HeapKind::Guard ? state.pages.Allocate(size) : std::malloc(size ? size : 1);
  if (!block) return nullptr;
  std::memset(block, 0xDB, std::min(size, kFilledBytes));
  state.blocks[block] = Block{size, ++state.serial, state.tag, state.kind, ofTheDll};
  if (ofTheDll) {
    state.fresh.push_back({block, state.serial});
    state.liveBytes += size;
  }
  return block;
}

// False for an address that is no block of this heap.
bool Give(void* address, bool ofTheDll, bool looked = true) {
  State& state = S();
  const std::lock_guard guard(state.lock);
  const auto found = state.blocks.find(address);
  if (found == state.blocks.end()) return false;
  const Block block = found->second;
  state.blocks.erase(found);
  if (looked && ofTheDll && state.violation.empty() && HoldsPin(address, block.size)) {
    state.violation = "a released block of " + std::to_string(block.size) + " bytes holds a PIN";
  }
  if (block.kind == HeapKind::Guard && state.violation.empty() && !GuardPages::Intact(address, block.size)) {
    state.violation = "the bytes behind a block of " + std::to_string(block.size) + " bytes were written";
  }
  if (ofTheDll) state.liveBytes -= block.size;
  if (block.kind == HeapKind::Guard) {
    state.pages.Release(address, block.size);
  } else {
    std::memset(address, 0xDD, std::min(block.size, kFilledBytes));
    std::free(address);
  }
  return true;
}

void* __cdecl Malloc(std::size_t size) {
  if (Faults::Get().Fail(Fault::Allocation)) return nullptr;
  return Take(size, true);
}

void* __cdecl Calloc(std::size_t count, std::size_t size) {
  if (size && count > kLargest / size) return nullptr;
  void* block = Malloc(count * size);
  if (block) std::memset(block, 0, count * size);
  return block;
}

void __cdecl Free(void* block) {
  if (!block || Give(block, true)) return;
  State& state = S();
  const std::lock_guard guard(state.lock);
  if (state.violation.empty()) state.violation = "the DLL released what is no block of its heap";
}

void* __cdecl Realloc(void* block, std::size_t size) {
  if (!block) return Malloc(size);
  std::size_t old = 0;
  {
    State& state = S();
    const std::lock_guard guard(state.lock);
    const auto found = state.blocks.find(block);
    if (found == state.blocks.end()) return nullptr;
    old = found->second.size;
  }
  void* grown = Malloc(size);
  if (!grown) return nullptr;
  std::memcpy(grown, block, std::min(old, size));
  Free(block);
  return grown;
}

char* __cdecl Strdup(const char* text) {
  const std::size_t size = std::strlen(text) + 1;
  auto* copy = static_cast<char*>(Malloc(size));
  if (copy) std::memcpy(copy, text, size);
  return copy;
}

LPVOID WINAPI TakeFromProcessHeap(HANDLE, DWORD flags, SIZE_T size) {
  void* block = Malloc(size);
  if (block && (flags & HEAP_ZERO_MEMORY)) std::memset(block, 0, size);
  return block;
}

BOOL WINAPI GiveToProcessHeap(HANDLE, DWORD, LPVOID block) {
  Free(block);
  return TRUE;
}

bool Holds(const std::uint8_t* bytes, std::size_t size, const std::vector<std::uint8_t>& wanted) {
  if (size < wanted.size()) return false;
  const std::uint8_t* const last = bytes + (size - wanted.size());
  for (const std::uint8_t* at = bytes; at <= last; ++at) {
    at = static_cast<const std::uint8_t*>(std::memchr(at, wanted[0], static_cast<std::size_t>(last - at) + 1));
    if (!at) return false;
    if (std::memcmp(at, wanted.data(), wanted.size()) == 0) return true;
  }
  return false;
}

struct Marks {
  std::vector<std::uint8_t> narrow;
  std::vector<std::uint8_t> wide;
  std::vector<std::uint8_t> dump;
  std::vector<std::uint8_t> wideDump;
  Marks() {
    static const char digits[] = "0123456789ABCDEF";
    for (const char* at = kPinMark; *at; ++at) {
      const auto byte = static_cast<std::uint8_t>(*at);
      narrow.push_back(byte);
      wide.insert(wide.end(), {byte, 0});
      const std::uint8_t text[] = {static_cast<std::uint8_t>(digits[byte >> 4]),
                                   static_cast<std::uint8_t>(digits[byte & 15]), ' '};
      dump.insert(dump.end(), text, text + 3);
      wideDump.insert(wideDump.end(), text, text + 3);
      wideDump.insert(wideDump.end(), {'0', '0', ' '});
    }
    wide.pop_back();
  }
};

}  // namespace

bool HoldsPin(const void* bytes, std::size_t size) {
  static const Marks& marks = *new Marks;
  const auto* start = static_cast<const std::uint8_t*>(bytes);
  if (Holds(start, size, marks.narrow) || Holds(start, size, marks.wide)) return true;
  return Holds(start, size, marks.dump) || Holds(start, size, marks.wideDump);
}

Heap& Heap::Get() {
  static Heap heap;
  return heap;
}

void Heap::Install() {
  kit::Imports& imports = kit::Imports::Get();
  imports.Replace("malloc", reinterpret_cast<void*>(&Malloc));
  imports.Replace("calloc", reinterpret_cast<void*>(&Calloc));
  imports.Replace("realloc", reinterpret_cast<void*>(&Realloc));
  imports.Replace("free", reinterpret_cast<void*>(&Free));
  imports.Replace("_strdup", reinterpret_cast<void*>(&Strdup));
  imports.Replace("HeapAlloc", reinterpret_cast<void*>(&TakeFromProcessHeap));
  imports.Replace("HeapFree", reinterpret_cast<void*>(&GiveToProcessHeap));
}

void Heap::SetKind(HeapKind kind) {
  const std::lock_guard guard(S().lock);
  S().kind = kind;
}

HeapKind Heap::kind() const {
  const std::lock_guard guard(S().lock);
  return S().kind;
}

void Heap::SetTag(std::uint32_t tag) {
  const std::lock_guard guard(S().lock);
  S().tag = tag;
}

std::vector<LiveBlock> Heap::TakeLive() {
  State& state = S();
  const std::lock_guard guard(state.lock);
  std::vector<LiveBlock> live;
  for (const State::Fresh& fresh : state.fresh) {
    const auto found = state.blocks.find(fresh.address);
    if (found != state.blocks.end() && found->second.serial == fresh.serial) {
      live.push_back({fresh.address, found->second.size, found->second.tag});
    }
  }
  state.fresh.clear();
  return live;
}

std::vector<LiveBlock> Heap::AllLive() const {
  const std::lock_guard guard(S().lock);
  std::vector<LiveBlock> live;
  for (const auto& [address, block] : S().blocks) {
    if (block.ofTheDll) live.push_back({const_cast<void*>(address), block.size, block.tag});
  }
  return live;
}

void Heap::Reclaim(void* address) {
  Give(address, true, false);
}

std::size_t Heap::LiveBytes() const {
  const std::lock_guard guard(S().lock);
  return S().liveBytes;
}

bool Heap::Guards(std::uintptr_t address) const {
  return S().pages.Holds(address);
}

std::string Heap::TakeViolation() {
  const std::lock_guard guard(S().lock);
  return std::exchange(S().violation, {});
}

void* Heap::Allocate(std::size_t size) {
  void* block = Take(size, false);
  if (!block) throw std::bad_alloc();
  return block;
}

void Heap::Release(void* address) {
  if (address) Give(address, false);
}

}  // namespace soak
