#include "inside/freed_watch.h"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace {

FreedNotes* g_notes = nullptr;
bool g_noting = false;

}  // namespace

void* operator new(std::size_t size) {
  if (void* block = std::malloc(size != 0 ? size : 1)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  return operator new(size);
}
void operator delete(void* block) noexcept {
  if (block && g_notes && !g_noting) {
    g_noting = true;
    g_notes->Add(block, _msize(block));
    g_noting = false;
  }
  std::free(block);
}
void operator delete[](void* block) noexcept {
  operator delete(block);
}
void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  operator delete(block);
}

FreedWatch::FreedWatch() {
  g_notes = &notes_;
}

FreedWatch::~FreedWatch() {
  g_notes = nullptr;
}
