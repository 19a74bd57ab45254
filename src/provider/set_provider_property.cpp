// KELDAKSPSetProviderProperty. It and its reading counterpart word their messages differently for the same checks; both
// wordings are kept.
#include <algorithm>
#include <cstring>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/text.h"

namespace {

bool IsReadOnly(const wchar_t* name) noexcept {
  return WideEqual(name, NCRYPT_IMPL_TYPE_PROPERTY) || WideEqual(name, NCRYPT_MAX_NAME_LENGTH_PROPERTY) ||
         WideEqual(name, NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY) || WideEqual(name, NCRYPT_VERSION_PROPERTY) ||
         WideEqual(name, NCRYPT_NAME_PROPERTY);
}

// The copy takes twice the input's size, zero-filled, so that a text that comes without a terminator has one; at least
// two characters, because twice a single byte would leave no room for it.
void SetUseContext(KELDAKSP_PROVIDER* provider, const BYTE* pbInput, DWORD cbInput) {
  const std::size_t cchContext = std::max<std::size_t>(cbInput, 2);
  wchar_t* context = new wchar_t[cchContext]();
  std::memcpy(context, pbInput, cbInput);
  delete[] provider->pContext;
  provider->pContext = context;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                                   DWORD cbInput, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPSetProviderProperty - Entry", "KELDAKSPSetProviderProperty - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider   : ", hProvider}, {"pszProperty : ", pszProperty}, {"pbInput     : ", pbInput},
      {"cbInput     : ", cbInput},   {"dwFlags     : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    if (pszProperty == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
    }
    if (WideLength(pszProperty) > kMaxPropertyName) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER,
                           "NTE_INVALID_PARAMETER: The length of pszProperty is greater than NCRYPT_MAX_PROPERTY_NAME");
    }
    if (pbInput == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbInput is NULL");
    if ((dwFlags & NCRYPT_PERSIST_ONLY_FLAG) != 0) {
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: NCRYPT_PERSIST_ONLY_FLAG is currently not supported");
    }
    if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is currently supported");
    }
    if (IsReadOnly(pszProperty)) {
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: The specified property is read-only");
    }
    if (!WideEqual(pszProperty, NCRYPT_USE_CONTEXT_PROPERTY)) {
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: pszProperty is not supported");
    }
    SetUseContext(provider, pbInput, cbInput);
    return ERROR_SUCCESS;
  });
}
