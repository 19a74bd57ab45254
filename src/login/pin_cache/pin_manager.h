// The process-wide PIN cache, keyed by the token's serial number, and the lock that serialises logins.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "diag/debug_log.h"
#include "login/pin_cache/pin_cache_entry.h"
#include "support/windows.h"

// Entries are only ever added. Login holds the critical section around its lookups; a store made from the PIN dialog
// runs without it, and the operations take no lock of their own. The list is therefore append-only and publishes each
// finished entry atomically.
class PinManager {
 public:
  PinManager() noexcept;
  ~PinManager();
  PinManager(const PinManager&) = delete;
  PinManager& operator=(const PinManager&) = delete;

  void Enter() noexcept;
  // Ignored when the calling thread is not inside: a login leaves a second time after a lookup that found nothing.
  void Leave() noexcept;

  // serial has kSerialLength bytes. With pin null stores the length in bytes of the PIN in *cbPin; otherwise copies the
  // PIN to pin, which is trusted to have room for *cbPin bytes. Returns 0, NTE_INVALID_PARAMETER, NTE_NO_MEMORY, or
  // NTE_NOT_FOUND: nothing is cached for this token - then the critical section, which the caller has entered, has
  // been left - or the PIN could not be read.
  SECURITY_STATUS GetPin(const unsigned char* serial, unsigned char* pin, DWORD* cbPin) noexcept;

  // Adds an entry, even when there is one for the token already. serial has kSerialLength bytes, whatever cbSerial
  // says. Returns 1 when the PIN is stored, 0 when an argument is missing, an error status otherwise. The sense is
  // unusual and kept on purpose.
  std::uint32_t SetPin(const unsigned char* serial, DWORD cbSerial, const unsigned char* pin, DWORD cbPin) noexcept;

  // Not 0 while a PIN dialog is open.
  std::atomic<std::uint32_t>& DialogFlag() noexcept { return dialogFlag_; }

 private:
  // Takes the entry over unless the list is full.
  bool Append(std::unique_ptr<PinCacheEntry>& entry) noexcept;

  CRITICAL_SECTION lock_ = {};
  std::atomic<std::uint32_t> dialogFlag_ = 0;
  std::atomic<PinCacheEntry*> first_ = nullptr;
  std::atomic<PinCacheEntry*> last_ = nullptr;
  std::atomic<std::uint32_t> count_ = 0;
  LogPointer log_;
  // Who is inside the critical section, and how often; a thread may leave only what it holds.
  std::atomic<DWORD> owner_ = 0;
  std::uint32_t depth_ = 0;
};

// Null when there was no memory for the object at load.
extern PinManager* g_PinManager;
