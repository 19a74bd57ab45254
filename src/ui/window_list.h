// Which object stands behind a window. Kept inside the DLL: what is stored in a window itself can be overwritten by any
// other program of the user.
#pragma once

#include "support/windows.h"

// Entries belong to their objects; the list is used by all threads.
template <class Object>
class WindowList {
 public:
  struct Entry {
    explicit Entry(Object* owner) noexcept : object(owner) {}

    Object* object;
    HWND window = nullptr;  // null: not known yet
    DWORD thread = 0;
    Entry* next = nullptr;
  };

  // window may be null: Bind then tells it, on this thread.
  void Add(Entry& entry, HWND window) noexcept {
    const Lock lock(lock_);
    entry.window = window;
    entry.thread = GetCurrentThreadId();
    entry.next = first_;
    first_ = &entry;
  }
  // An entry that is not in the list is ignored.
  void Remove(Entry& entry) noexcept {
    const Lock lock(lock_);
    for (Entry** place = &first_; *place != nullptr; place = &(*place)->next) {
      if (*place != &entry) continue;
      *place = entry.next;
      return;
    }
  }
  // The window of an object that waits for it on this thread. Null when this object does not; it is not touched then.
  Object* Bind(const Object* waiting, HWND window) noexcept {
    const Lock lock(lock_);
    for (Entry* entry = first_; entry != nullptr; entry = entry->next) {
      if (entry->object != waiting || entry->window != nullptr || entry->thread != GetCurrentThreadId()) continue;
      entry->window = window;
      return entry->object;
    }
    return nullptr;
  }
  // Null for a window that is nobody's. Asked by window procedures, which run on their window's thread: what another
  // thread has not forgotten yet of a window that is gone is not met when the number returns.
  Object* Find(HWND window) noexcept {
    const Lock lock(lock_);
    for (Entry* entry = first_; entry != nullptr; entry = entry->next) {
      if (entry->window == window && entry->thread == GetCurrentThreadId()) return entry->object;
    }
    return nullptr;
  }

 private:
  class Lock {
   public:
    explicit Lock(SRWLOCK& lock) noexcept : lock_(lock) { AcquireSRWLockExclusive(&lock_); }
    ~Lock() { ReleaseSRWLockExclusive(&lock_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    SRWLOCK& lock_;
  };

  SRWLOCK lock_ = SRWLOCK_INIT;
  Entry* first_ = nullptr;
};
