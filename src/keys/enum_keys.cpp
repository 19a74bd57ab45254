// KELDAKSPEnumKeys: the names of the token's keys, one a call.
#include "keys/open_flags.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "token/cryptoki_module.h"
#include "token/key_enumeration.h"
#include "token/key_object_list.h"

SECURITY_STATUS WINAPI KELDAKSPEnumKeys(NCRYPT_PROV_HANDLE hProvider, LPCWSTR, NCryptKeyName** ppKeyName,
                                        PVOID* ppEnumState, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPEnumKeys - Entry", "KELDAKSPEnumKeys - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider   : ", hProvider},
      EntryArgument("pszScope    : NULL"),  // the scope is ignored, whatever it is
      {"ppKeyName   : ", ppKeyName},       {"ppEnumState : ", ppEnumState}, {"dwFlags     : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
    if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider == NULL");
    if (ppKeyName == nullptr || ppEnumState == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: ppKeyName == NULL || ppEnumState == NULL");
    }
    SECURITY_STATUS status = CheckOpenFlags(dwFlags);
    if (status != ERROR_SUCCESS) return status;

    auto* state = static_cast<KELDAKSP_ENUM_STATE*>(*ppEnumState);
    if (state != nullptr) {
      g_Log->WriteLine("EnumState is initialized");
    } else {
      g_Log->WriteLine("EnumState is null");
      status = InitializeObjectList(provider, g_Cryptoki);
      if (status != ERROR_SUCCESS) return g_Log->Refuse(status, "LoadTokenKeys error ");
    }
    NCryptKeyName* keyName = nullptr;
    status = ReadKeyNameFromKeyObjectList(provider, &state, &keyName);
    if (status == ERROR_SUCCESS) {
      *ppKeyName = keyName;
      *ppEnumState = state;
    } else if (*ppEnumState == nullptr) {
      delete state;  // made for a list that turned out to be empty; the caller's pointers stay as they are
    }
    return status;
  });
}
