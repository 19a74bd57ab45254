#include "token/key_enumeration.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "diag/debug_log.h"
#include "support/allocator.h"
#include "support/bounded_copy.h"
#include "support/text.h"

namespace {

// Fills the next entry's name into a record; NTE_NO_MEMORY leaves nothing behind.
SECURITY_STATUS NewKeyName(const KELDAKSP_KEY& entry, NCryptKeyName** ppKeyName) noexcept {
  AllocatedBlock<void> record(AllocateBlock(sizeof(NCryptKeyName)));
  if (record == nullptr) return NTE_NO_MEMORY;
  const std::size_t cchName = WideLength(entry.pszKeyName) + 1;
  AllocatedBlock<void> name(AllocateBlock(cchName * sizeof(wchar_t)));
  if (name == nullptr) return NTE_NO_MEMORY;
  auto* pszName = static_cast<wchar_t*>(name.get());
  BoundedCopy(pszName, cchName, entry.pszKeyName);
  g_KeyNameLog->WriteWide("KeyName = ", pszName);
  auto* pszAlgid = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, sizeof(L"RSA")));
  if (pszAlgid == nullptr) return NTE_NO_MEMORY;
  std::memcpy(pszAlgid, L"RSA", sizeof(L"RSA"));
  auto* keyName = static_cast<NCryptKeyName*>(record.release());
  keyName->pszName = static_cast<wchar_t*>(name.release());
  keyName->pszAlgid = pszAlgid;
  keyName->dwLegacyKeySpec = 0;
  keyName->dwFlags = 0;
  *ppKeyName = keyName;
  return ERROR_SUCCESS;
}

SECURITY_STATUS ReadNextKeyName(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                NCryptKeyName** ppKeyName) noexcept {
  if (*ppState == nullptr) {
    *ppState = new (std::nothrow) KELDAKSP_ENUM_STATE();
    if (*ppState == nullptr) return NTE_NO_MEMORY;
  }
  KELDAKSP_ENUM_STATE& state = **ppState;
  g_KeyNameLog->WriteInt("EnumState index = ", static_cast<std::int32_t>(state.index));
  if (state.index >= provider->cKeyObjects) {
    std::free(*ppKeyName);
    *ppKeyName = nullptr;
    g_KeyNameLog->WriteLine("NTE_NO_MORE_ITEMS");
    return NTE_NO_MORE_ITEMS;
  }
  const SECURITY_STATUS status = NewKeyName(provider->pKeyObjects[state.index], ppKeyName);
  if (status == ERROR_SUCCESS) ++state.index;
  return status;
}

}  // namespace

SECURITY_STATUS ReadKeyNameFromKeyObjectList(const KELDAKSP_PROVIDER* provider, KELDAKSP_ENUM_STATE** ppState,
                                             NCryptKeyName** ppKeyName) {
  g_KeyNameLog->WriteLine("ReadKeyNameFromKeyObjectList - Entry");
  const SECURITY_STATUS status = ReadNextKeyName(provider, ppState, ppKeyName);
  g_KeyNameLog->WriteLine("ReadKeyNameFromKeyObjectList - Exit");
  return status;
}
