#include "support/exceptions.h"

#include <cxxabi.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

namespace {

// A thread's caught and uncaught exceptions (the structure is the runtime library's own, of two words).
struct ThreadExceptions {
  std::atomic<DWORD> thread;  // 0: nobody's
  ThreadExceptions* next;
  void* words[2];
};

std::atomic<ThreadExceptions*> g_First{nullptr};

ThreadExceptions* Find(DWORD thread) noexcept {
  ThreadExceptions* entry = g_First.load(std::memory_order_acquire);
  while (entry != nullptr && entry->thread.load(std::memory_order_relaxed) != thread)
    entry = entry->next;
  return entry;
}

// Takes over an entry that a thread has left, or adds one.
ThreadExceptions* Add(DWORD thread) noexcept {
  for (ThreadExceptions* entry = g_First.load(std::memory_order_acquire); entry != nullptr; entry = entry->next) {
    DWORD nobody = 0;
    if (entry->thread.compare_exchange_strong(nobody, thread, std::memory_order_acquire)) return entry;
  }
  void* block = std::malloc(sizeof(ThreadExceptions));
  if (block == nullptr) std::terminate();  // as the runtime library's own would
  auto* added = new (block) ThreadExceptions{{thread}, g_First.load(std::memory_order_relaxed), {}};
  while (!g_First.compare_exchange_weak(added->next, added, std::memory_order_release, std::memory_order_relaxed)) {
  }
  return added;
}

}  // namespace

// The runtime library finds a thread's exceptions here. Its own way is thread-local storage by way of winpthreads,
// which takes an index of the process (there are 1088), two handles and memory at the first exception and gives none of
// them back: a program that loads and unloads this DLL often would run out of indexes, and be aborted.
namespace __cxxabiv1 {

extern "C" __cxa_eh_globals* __cxa_get_globals() noexcept {
  const DWORD thread = GetCurrentThreadId();
  ThreadExceptions* entry = Find(thread);
  if (entry == nullptr) entry = Add(thread);
  return reinterpret_cast<__cxa_eh_globals*>(entry->words);
}

extern "C" __cxa_eh_globals* __cxa_get_globals_fast() noexcept {
  return __cxa_get_globals();
}

}  // namespace __cxxabiv1

// The linker (--wrap) sends the runtime library here with its locks and with what it does once, for the same reason:
// winpthreads' own ways allocate and make the calling thread one of its threads. Nothing of it is left in this DLL.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

int __wrap_pthread_once(long* state, void (*function)()) noexcept {  // NOLINT(google-runtime-int): a pthread_once_t
  enum : long { kNew, kRunning, kDone };                             // NOLINT(google-runtime-int)
  const std::atomic_ref progress(*state);
  long seen = kNew;  // NOLINT(google-runtime-int)
  if (progress.compare_exchange_strong(seen, kRunning)) {
    function();
    progress.store(kDone);
  }
  while (progress.load() != kDone) {
    // not reached: the first exceptions of two threads would have to meet
    SwitchToThread();
  }
  return 0;
}

// A pthread_mutex_t has the size of a pointer, like the platform's lock. None of the runtime library's is recursive.
int __wrap_pthread_mutex_init(SRWLOCK* mutex, const void* /*attributes*/) noexcept {
  InitializeSRWLock(mutex);
  return 0;
}

int __wrap_pthread_mutex_lock(SRWLOCK* mutex) noexcept {
  // PTHREAD_MUTEX_INITIALIZER, which is no state that the platform's lock has.
  void* const untouched = reinterpret_cast<void*>(std::intptr_t{-1});
  InterlockedCompareExchangePointer(&mutex->Ptr, SRWLOCK(SRWLOCK_INIT).Ptr, untouched);
  AcquireSRWLockExclusive(mutex);
  return 0;
}

int __wrap_pthread_mutex_unlock(SRWLOCK* mutex) noexcept {
  ReleaseSRWLockExclusive(mutex);
  return 0;
}

// The platform's lock holds nothing that could be released. winpthreads' own would take a lock that is held (by another
// thread, when the process ends in the middle of an exception) for the address of what it has allocated.
// Not counted when lines are: it is called when the counts have been written.
__attribute__((no_profile_instrument_function)) int __wrap_pthread_mutex_destroy(SRWLOCK* /*mutex*/) noexcept {
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

// Releases the memory from which exceptions are made when there is no other (libstdc++'s own, meant for memory
// checkers).
namespace __gnu_cxx {
void __freeres();
}

#ifdef __i386__

// The 32-bit unwinder finds its way by frame tables that are registered with it. GCC's start-up code gives those of
// this DLL to a shared libgcc when the program has one, and then the unwinder linked into this DLL knows nothing of
// them: the first exception would end the process.
extern "C" {
void __register_frame_info(const void* begin, void* object);
void* __deregister_frame_info(const void* begin);
// A place among the frame tables.
extern const unsigned char kelda_among_frames[];
}
__asm__(
    ".section .eh_frame,\"dr\"\n"
    ".globl _kelda_among_frames\n"
    "_kelda_among_frames:\n"
    ".text\n");

namespace {

const void* g_Frames = nullptr;
void* g_FramesObject[16];  // libgcc's "struct object" takes less

// The section of the frame tables. Its name tells nothing: it is cut to eight characters in an image without a symbol
// table, and in one with symbols stands in a table that is not loaded.
const void* FindFrames(HMODULE module) noexcept {
  const auto* base = reinterpret_cast<const unsigned char*>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const auto* section = reinterpret_cast<const IMAGE_SECTION_HEADER*>(
      reinterpret_cast<const unsigned char*>(&headers->OptionalHeader) + headers->FileHeader.SizeOfOptionalHeader);
  for (WORD i = 0; i < headers->FileHeader.NumberOfSections; ++i) {
    const unsigned char* const begin = base + section[i].VirtualAddress;
    if (begin <= kelda_among_frames && kelda_among_frames < begin + section[i].Misc.VirtualSize) return begin;
  }
  // not reached: the label lies in one of the sections
  return nullptr;
}

}  // namespace

static void RegisterFrames(HMODULE module) noexcept {
  if (GetModuleHandleW(L"libgcc_s_dw2-1.dll") == nullptr) return;
  g_Frames = FindFrames(module);
  if (g_Frames != nullptr) __register_frame_info(g_Frames, g_FramesObject);
}

static void DeregisterFrames() noexcept {
  if (g_Frames != nullptr) __deregister_frame_info(g_Frames);
  g_Frames = nullptr;
}

#else

// x64 needs no registration: the platform knows the frames of every module.
static void RegisterFrames(HMODULE) noexcept {}
static void DeregisterFrames() noexcept {}

#endif

void PrepareExceptions(HMODULE module) noexcept {
  RegisterFrames(module);
}

void EndThreadExceptions() noexcept {
  ThreadExceptions* entry = Find(GetCurrentThreadId());
  if (entry == nullptr) return;
  std::memset(entry->words, 0, sizeof(entry->words));
  entry->thread.store(0, std::memory_order_release);
}

void EndExceptions() noexcept {
  DeregisterFrames();
  ThreadExceptions* entry = g_First.exchange(nullptr, std::memory_order_acquire);
  while (entry != nullptr) {
    ThreadExceptions* next = entry->next;
    std::free(entry);
    entry = next;
  }
  __gnu_cxx::__freeres();
}
