// KELDAKSPEnumKeys: the names of the token's keys, one a call.
#include <memory>

#include "keys/handle_checks.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "token/cryptoki_module.h"
#include "token/key_object_list.h"

namespace {

SECURITY_STATUS EnumKeys(NCRYPT_PROV_HANDLE hProvider, NCryptKeyName** ppKeyName, PVOID* ppEnumState, DWORD dwFlags) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider == NULL");
  if (ppKeyName == nullptr || ppEnumState == nullptr) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: ppKeyName == NULL || ppEnumState == NULL");
  }
  if ((dwFlags & ~DWORD{NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, kOpenBadFlags);
  }
  if ((dwFlags & NCRYPT_MACHINE_KEY_FLAG) != 0) return g_Log->Refuse(NTE_NOT_SUPPORTED, kOpenMachineKey);

  auto* state = static_cast<KELDAKSP_ENUM_STATE*>(*ppEnumState);
  if (state != nullptr) {
    g_Log->WriteLine("EnumState is initialized");
  } else {
    g_Log->WriteLine("EnumState is null");
    const SECURITY_STATUS loaded = InitializeObjectList(provider, g_Cryptoki);
    if (loaded != ERROR_SUCCESS) return g_Log->Refuse(loaded, "LoadTokenKeys error ");
  }
  NCryptKeyName* keyName = nullptr;
  const SECURITY_STATUS status = ReadKeyNameFromKeyObjectList(provider, &state, &keyName);
  if (status == ERROR_SUCCESS) {
    *ppKeyName = keyName;
    *ppEnumState = state;
  } else if (*ppEnumState == nullptr) {
    delete state;  // made for a list that turned out to be empty; the caller's pointers stay as they are
  }
  return status;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR, NCryptKeyName** ppKeyName,
                                        PVOID* ppEnumState, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPEnumKeys - Entry", "KELDAKSPEnumKeys - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider   : ", hProvider);
    g_Log->WriteLine("pszScope    : NULL");  // the scope is ignored, whatever it is
    frame.Argument("ppKeyName   : ", ppKeyName);
    frame.Argument("ppEnumState : ", ppEnumState);
    frame.Argument("dwFlags     : ", dwFlags);
    ClearProviderCache();
    return EnumKeys(hProvider, ppKeyName, ppEnumState, dwFlags);
  });
}
