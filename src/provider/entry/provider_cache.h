// Remembers the reader of the provider opened last, so that an open that follows directly does not ask again.
#pragma once

#include <atomic>
#include <cstdint>

#include "provider/record/provider_record.h"

// One per process, used without a lock. The reader's name is kept here besides the record's address, so that a record
// freed meanwhile by another thread is never read.
struct ProviderCache {
  std::atomic<std::uint32_t> set{0};
  std::atomic<KELDAKSP_PROVIDER*> provider{nullptr};
  std::atomic<wchar_t> reader[kReaderNameSize] = {};
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
