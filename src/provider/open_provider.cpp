// KELDAKSPOpenProvider: a provider handle on one token.
#include "provider/entry/entry_frame.h"
#include "provider/entry/identity.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "provider/record/provider_record.h"
#include "provider/slot_choice.h"
#include "support/text.h"
#include "token/cryptoki_module.h"

namespace {

// Whether name is one of the strings of a multi-string of cbAliases bytes. Every string that is met is compared, empty
// ones included.
bool IsAlias(const wchar_t* aliases, DWORD cbAliases, const wchar_t* name) noexcept {
  for (std::size_t position = 0; position < cbAliases / sizeof(wchar_t);
       position += WideLength(aliases + position) + 1) {
    if (WideEqual(aliases + position, name)) return true;
  }
  return false;
}

// Whether the provider is registered under this name; 0 or a status.
SECURITY_STATUS CheckAlias(const wchar_t* name) noexcept {
  // Two characters more than are read, so that a walk over the strings always meets a terminator.
  wchar_t aliases[1024 + 2] = {};
  DWORD cbAliases = 2048;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kRegistrationKey, L"Aliases", RRF_RT_REG_MULTI_SZ, nullptr, aliases,
                   &cbAliases) != ERROR_SUCCESS) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: OpenProvider::RegGetValue");
  }
  if (!IsAlias(aliases, cbAliases, name)) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER,
                         "NTE_INVALID_PARAMETER: pszProviderName does not match the registered provider name");
  }
  return ERROR_SUCCESS;
}

}  // namespace

// What a failed open has allocated stays behind; kept on purpose (docs/kept-oddities.md).
SECURITY_STATUS WINAPI KELDAKSPOpenProvider(NCRYPT_PROV_HANDLE* phProvider, LPCWSTR pszProviderName,
                                            DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {
      .entry = "KELDAKSPOpenProvider - Entry", .exit = "KELDAKSPOpenProvider - Exit: ", .keepsProviderCache = true};
  const EntryArgument arguments[] = {
      {"phProvider       : ", phProvider},
      {"pszProviderName  : ", pszProviderName},
      {"dwFlags          : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    if (phProvider == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phProvider is NULL");
    if (pszProviderName == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProviderName is NULL");
    }
    SECURITY_STATUS status = CheckAlias(pszProviderName);
    if (status != ERROR_SUCCESS) return status;
    const std::size_t cbName = (WideLength(pszProviderName) + 1) * sizeof(wchar_t);
    if (cbName >= 65536) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: cbProvider is greater than MAXUSHORT");
    }
    KELDAKSP_PROVIDER* provider = NewProviderRecord(pszProviderName, static_cast<DWORD>(cbName));
    if (provider == nullptr) {
      return g_Log->Refuse(NTE_NO_MEMORY, "NTE_NO_MEMORY: Not enough memory to allocate for pProvider");
    }
    status = ChooseSlot(provider, (dwFlags & NCRYPT_SILENT_FLAG) != 0);
    if (status != ERROR_SUCCESS) return status;
    if (g_Cryptoki->Functions().C_OpenSession(provider->slotId, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr,
                                              &provider->hSession) != CKR_OK) {
      return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Error in opening PKCS#11 session");
    }
    g_Log->WriteLine("Caching provider instance");
    UpdateProviderCache(provider);
    InitializeCriticalSectionAndSpinCount(provider->pLock, 1024);
    *phProvider = reinterpret_cast<NCRYPT_PROV_HANDLE>(provider);
    g_Log->WriteHex32("Provider handle retrieved: ", static_cast<std::uint32_t>(*phProvider));
    return ERROR_SUCCESS;
  });
}
