#include "provider/record/provider_record.h"

#include <cstring>

#include "diag/debug_log.h"
#include "support/allocator.h"
#include "support/bounded_copy.h"

KELDAKSP_PROVIDER* ProviderFromHandle(NCRYPT_PROV_HANDLE hProvider) noexcept {
  auto* provider = reinterpret_cast<KELDAKSP_PROVIDER*>(hProvider);
  if (provider == nullptr || provider->cbLength < sizeof(KELDAKSP_PROVIDER)) return nullptr;
  if (std::memcmp(provider->signature, kProviderSignature, sizeof(kProviderSignature)) != 0) return nullptr;
  return provider;
}

bool CheckProvider(NCRYPT_PROV_HANDLE hProvider, KELDAKSP_PROVIDER*& provider) noexcept {
  provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) g_Log->WriteLine("NTE_INVALID_HANDLE: pProvider is NULL");
  return provider != nullptr;
}

KELDAKSP_PROVIDER* NewProviderRecord(const wchar_t* name, DWORD cbName) {
  auto* provider = static_cast<KELDAKSP_PROVIDER*>(AllocateBlock(sizeof(KELDAKSP_PROVIDER) + cbName));
  if (provider == nullptr) return nullptr;
  provider->cbLength = static_cast<DWORD>(sizeof(KELDAKSP_PROVIDER)) + cbName;
  std::memcpy(provider->signature, kProviderSignature, sizeof(kProviderSignature));
  provider->dwReserved1 = 0;
  provider->pszName = nullptr;
  provider->pContext = nullptr;
  provider->hSession = 0;
  provider->pKeyObjects = nullptr;
  provider->cKeyObjects = 0;
  provider->pPinCache = nullptr;
  provider->cchPinCache = 0;
  provider->loginState = 0;
  provider->pszReader = nullptr;
  provider->slotId = 0;
  provider->hWnd = 0;
  provider->pLock = new CRITICAL_SECTION();
  const std::size_t cchName = (std::size_t{2} * cbName + 2) / sizeof(wchar_t);
  provider->pszName = new wchar_t[cchName];
  std::memset(provider->pszName, 0, std::size_t{cbName} + 1);
  BoundedCopy(provider->pszName, cchName, name);
  return provider;
}
