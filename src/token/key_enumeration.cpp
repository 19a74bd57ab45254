#include "token/key_enumeration.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "diag/debug_log.h"
#include "support/allocator.h"
#include "support/bounded_copy.h"
#include "support/text.h"
#include "support/wipe.h"

namespace {

// Fills the next entry's name into a record; NTE_NO_MEMORY leaves nothing behind.
SECURITY_STATUS NewKeyName(const KELDAKSP_KEY& entry, NCryptKeyName** ppKeyName) noexcept {
  AllocatedBlock<void> record(AllocateBlock(sizeof(NCryptKeyName)));
  if (record == nullptr) return NTE_NO_MEMORY;
  const std::size_t cchName = WideLength(entry.pszKeyName) + 1;
  auto name = WipedArray<wchar_t>::Try(cchName);  // an identifier, as a rule: wiped unless it is handed out
  if (name.empty()) return NTE_NO_MEMORY;
  BoundedCopy(name.data(), cchName, entry.pszKeyName);
  g_KeyNameLog->WriteWide("KeyName = ", name.data());
  auto* pszAlgid = static_cast<wchar_t*>(HeapAlloc(GetProcessHeap(), 0, sizeof(L"RSA")));
  if (pszAlgid == nullptr) return NTE_NO_MEMORY;
  std::memcpy(pszAlgid, L"RSA", sizeof(L"RSA"));
  auto* keyName = static_cast<NCryptKeyName*>(record.release());
  keyName->pszName = name.Release();
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
