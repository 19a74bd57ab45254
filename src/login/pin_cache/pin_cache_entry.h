// One cached PIN: the token's serial number and the PIN, encrypted and locked in memory.
#pragma once

#include <atomic>

#include "diag/debug_log.h"
#include "support/windows.h"
#include "support/wipe.h"

// Bytes of CK_TOKEN_INFO's serialNumber (PKCS#11 v2.40 3.2), padding blanks included.
inline constexpr DWORD kSerialLength = 16;

class PinCacheEntry {
 public:
  PinCacheEntry() noexcept;
  ~PinCacheEntry();
  PinCacheEntry(const PinCacheEntry&) = delete;
  PinCacheEntry& operator=(const PinCacheEntry&) = delete;

  // Copies the kSerialLength bytes at serial. Returns false when there is no memory.
  bool SetLabel(const unsigned char* serial) noexcept;
  // Whether the entry belongs to the token with this serial number (kSerialLength bytes, or null: never).
  bool HasLabel(const unsigned char* serial) const noexcept;

  // Encrypts the cbPin bytes at pin and locks them in memory. Returns 0, NTE_INVALID_PARAMETER, NTE_NO_MEMORY,
  // NTE_INTERNAL_ERROR (the block cannot be locked or unlocked) or the platform's error of the encryption.
  SECURITY_STATUS SetPin(const unsigned char* pin, DWORD cbPin) noexcept;

  // With pin null stores the PIN's length in bytes in *cbPin. Otherwise *cbPin is the room at pin; when it is too small
  // the PIN's length is stored and NTE_BUFFER_TOO_SMALL returned, else the PIN is copied and *cbPin left as it is.
  // Further statuses as for SetPin. After a pure length query the block stays unlocked; kept on purpose.
  SECURITY_STATUS GetPin(unsigned char* pin, DWORD* cbPin) noexcept;

  // The two operations on the block of login/pin_block.h: PIN to encrypted block and back. *cbOut is the room at out in
  // bytes; with out null, or too little room, the length needed is stored there (NTE_BUFFER_TOO_SMALL for the latter).
  // Further statuses: 0, NTE_INVALID_PARAMETER, NTE_NO_MEMORY, the platform's error of the encryption.
  SECURITY_STATUS Protect(const unsigned char* in, DWORD cbIn, unsigned char* out, DWORD* cbOut) noexcept;
  SECURITY_STATUS Unprotect(const unsigned char* block, DWORD cbBlock, unsigned char* out, DWORD* cbOut) noexcept;

 private:
  friend class PinManager;

  // Unlocks the block's pages. False (and a line) when that failed; pages that are not locked are no failure.
  bool UnlockBlock() noexcept;

  WipedBytes reserved_;  // never filled
  WipedBytes label_;
  WipedBytes block_;
  LogPointer log_;
  // Links of the PinManager's list.
  std::atomic<PinCacheEntry*> next_ = nullptr;
  PinCacheEntry* previous_ = nullptr;
};
