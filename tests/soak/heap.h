// The DLL's heap during a soak: every block it asks for comes from here, so that each can be refused, guarded, looked
// at when it is released, and accounted for when it stays behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

// What every PIN of a soak is made of. Part of one is found as well as the whole.
inline constexpr char kPinMark[] = "~Pn7";

// Whether the bytes hold the mark, as narrow or as 16-bit characters or as a hex dump of either.
bool HoldsPin(const void* bytes, std::size_t size);

enum class HeapKind {
  Plain,
  Guard,  // each block ends where an inaccessible page begins; a released block is inaccessible
};

struct LiveBlock {
  void* address;
  std::size_t size;   // bytes
  std::uint32_t tag;  // what SetTag said when it was allocated
};

class Heap {
 public:
  static Heap& Get();

  // Takes over malloc, calloc, realloc, free, HeapAlloc, HeapFree and _strdup of the DLL, from its next load on.
  void Install();
  void SetKind(HeapKind kind);
  HeapKind kind() const;

  void SetTag(std::uint32_t tag);
  // Blocks allocated since the last call of this function that are still there.
  std::vector<LiveBlock> TakeLive();
  // All blocks that the DLL holds now.
  std::vector<LiveBlock> AllLive() const;
  // Releases a block in the DLL's place, without a look at what it holds.
  void Reclaim(void* address);
  // Bytes that the DLL holds now.
  std::size_t LiveBytes() const;
  // The first thing found wrong since the last call (a PIN in a released block, a block released twice); empty for
  // nothing.
  std::string TakeViolation();

  // Whether the address lies where the guard heap keeps its blocks and the inaccessible pages between them.
  bool Guards(std::uintptr_t address) const;

  // The same functions for the harness itself: buffers for callers' arguments, guarded like the DLL's blocks.
  void* Allocate(std::size_t size);
  void Release(void* address);
};

}  // namespace soak
