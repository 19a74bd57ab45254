#include "provider/entry/provider_cache.h"

#include <new>

#include "support/bounded_copy.h"

ProviderCache* g_ProviderCache = nullptr;

namespace {

// kSettingsKey in the spelling in which this value has always been asked for; the registry itself ignores the case.
constexpr wchar_t kCacheSettingKey[] = L"SOFTWARE\\Norvale Token Works Ltd.\\KELDA SDK";

// Only the lowest byte of the value decides: 256 switches the cache off like 0. The key's handle and the buffer stay
// behind on every open; both leaks are known and kept (docs/kept-oddities.md).
bool SwitchedOff() noexcept {
  HKEY key = nullptr;
  if (RegOpenKeyW(HKEY_LOCAL_MACHINE, kCacheSettingKey, &key) != ERROR_SUCCESS) {
    return false;
  }
  constexpr DWORD kValueSize = sizeof(DWORD);
  BYTE* value = new (std::nothrow) BYTE[kValueSize]();
  if (value == nullptr) return false;
  DWORD cbValue = kValueSize;
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
  return RegQueryValueExW(key, L"dwUseProviderCache", nullptr, nullptr, value, &cbValue) == ERROR_SUCCESS &&
         value[0] == 0;
}

}  // namespace

void ClearProviderCache() noexcept {
  if (g_ProviderCache != nullptr) g_ProviderCache->set.store(0, std::memory_order_relaxed);
}

bool ReadProviderCache(wchar_t* reader, std::size_t cchReader) noexcept {
  ProviderCache* cache = g_ProviderCache;
  if (cache == nullptr) return false;
  AcquireSRWLockShared(&cache->copying);
  const bool set = cache->set.load(std::memory_order_relaxed) != 0;
  if (set) BoundedCopy(reader, cchReader, cache->reader);
  ReleaseSRWLockShared(&cache->copying);
  return set;
}

void UpdateProviderCache(KELDAKSP_PROVIDER* provider) noexcept {
  ProviderCache* cache = g_ProviderCache;
  if (SwitchedOff() || cache == nullptr) return;
  AcquireSRWLockExclusive(&cache->copying);
  cache->provider = provider;
  BoundedCopy(cache->reader, kReaderNameSize, provider->pszReader);
  cache->set.store(1, std::memory_order_relaxed);
  ReleaseSRWLockExclusive(&cache->copying);
}
