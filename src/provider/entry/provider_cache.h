// Remembers the reader of the provider opened last, so that an open that follows directly does not ask again.
#pragma once

#include <atomic>
#include <cstdint>

#include "provider/record/provider_record.h"

// One per process. The reader's name is kept here besides the record's address, so that a record freed meanwhile by
// another thread is never read; the lock is held for the copy only, so that opens on two readers do not mix the names.
// The flag is lowered without it.
struct ProviderCache {
  std::atomic<std::uint32_t> set{0};
  KELDAKSP_PROVIDER* provider = nullptr;
  wchar_t reader[kReaderNameSize] = {};
  SRWLOCK copying = SRWLOCK_INIT;
};

// Null when there was no memory for the object at load.
extern ProviderCache* g_ProviderCache;

// Lowers the flag. Every entry except OpenProvider, PromptUser and FreeSecret does so first.
void ClearProviderCache() noexcept;

// Copies the cached reader's name into reader (cchReader characters, terminator counted) and returns true, or returns
// false when no provider is cached.
bool ReadProviderCache(wchar_t* reader, std::size_t cchReader) noexcept;

// Puts a freshly opened provider into the cache, unless the registry value "dwUseProviderCache" switches the cache off.
void UpdateProviderCache(KELDAKSP_PROVIDER* provider) noexcept;
