// Provider properties. The reading and the writing entry word their messages differently for the same checks; both
// wordings are kept.
#include <algorithm>
#include <cstring>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "provider/record/provider_record.h"
#include "support/text.h"

namespace {

// Characters of a property name, the terminator not counted (NCRYPT_MAX_PROPERTY_NAME).
constexpr std::size_t kMaxPropertyName = 64;

// A property's value: a number or a text.
struct Value {
  DWORD number = 0;
  const wchar_t* text = nullptr;

  DWORD Size() const noexcept {
    if (text == nullptr) return sizeof(number);
    return static_cast<DWORD>((WideLength(text) + 1) * sizeof(wchar_t));
  }
  const void* Data() const noexcept { return text == nullptr ? static_cast<const void*>(&number) : text; }
};

// Finds the value; NTE_NOT_SUPPORTED for an unknown name, NTE_INTERNAL_ERROR for a context that was never set.
SECURITY_STATUS FindProperty(const KELDAKSP_PROVIDER* provider, const wchar_t* name, Value& value) noexcept {
  if (WideEqual(name, NCRYPT_IMPL_TYPE_PROPERTY)) {
    value.number = NCRYPT_IMPL_HARDWARE_FLAG | NCRYPT_IMPL_REMOVABLE_FLAG | NCRYPT_IMPL_HARDWARE_RNG_FLAG;
  } else if (WideEqual(name, NCRYPT_MAX_NAME_LENGTH_PROPERTY)) {
    value.number = 64;
  } else if (WideEqual(name, NCRYPT_NAME_PROPERTY)) {
    if (provider->pszName == nullptr) return NTE_INTERNAL_ERROR;  // a record whose session did not close
    value.text = provider->pszName;
  } else if (WideEqual(name, NCRYPT_VERSION_PROPERTY)) {
    value.number = 0x01000100;
  } else if (WideEqual(name, NCRYPT_USE_CONTEXT_PROPERTY)) {
    if (provider->pContext == nullptr) return NTE_INTERNAL_ERROR;
    value.text = provider->pContext;
  } else if (WideEqual(name, NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY)) {
    value.number = 0;
  } else {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: pszProperty is not supported");
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS GetProviderProperty(NCRYPT_PROV_HANDLE hProvider, const wchar_t* pszProperty, PBYTE pbOutput,
                                    DWORD cbOutput, const DWORD* pcbResult, DWORD dwFlags, DWORD& cbResult) noexcept {
  const KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL");
  if (pszProperty == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
  if (pcbResult == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
  if (WideLength(pszProperty) > kMaxPropertyName) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER,
                         "NTE_INVALID_PARAMETER: pszProperty length is greater than NCRYPT_MAX_PROPERTY_NAME");
  }
  if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is an acceptable value");
  }
  Value value;
  const SECURITY_STATUS found = FindProperty(provider, pszProperty, value);
  if (found != ERROR_SUCCESS) return found;
  cbResult = value.Size();
  if (pbOutput == nullptr) {
    g_Log->WriteLine("pbOutput is NULL, property length query succeeded.");
    return ERROR_SUCCESS;
  }
  if (cbOutput < cbResult) {
    return g_Log->Refuse(NTE_BUFFER_TOO_SMALL, "NTE_BUFFER_TOO_SMALL: cbOutput is less than cbResult");
  }
  std::memcpy(pbOutput, value.Data(), cbResult);
  return ERROR_SUCCESS;
}

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

SECURITY_STATUS SetProviderProperty(NCRYPT_PROV_HANDLE hProvider, const wchar_t* pszProperty, const BYTE* pbInput,
                                    DWORD cbInput, DWORD dwFlags) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: pProvider is NULL");
  if (pszProperty == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
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
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                                   DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPGetProviderProperty - Entry", "KELDAKSPGetProviderProperty - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider    : ", hProvider);
    frame.WideArgument("pszProperty  : ", pszProperty);
    frame.Argument("pbOutput     : ", pbOutput);
    frame.Argument("cbOutput     : ", cbOutput);
    frame.Argument("pcbResult    : ", pcbResult);
    frame.Argument("dwFlags      : ", dwFlags);
    ClearProviderCache();
    DWORD cbResult = 0;
    const SECURITY_STATUS status =
        GetProviderProperty(hProvider, pszProperty, pbOutput, cbOutput, pcbResult, dwFlags, cbResult);
    if (pcbResult != nullptr) *pcbResult = cbResult;
    return status;
  });
}

SECURITY_STATUS WINAPI KELDAKSPSetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbInput,
                                                   DWORD cbInput, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPSetProviderProperty - Entry", "KELDAKSPSetProviderProperty - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider   : ", hProvider);
    frame.WideArgument("pszProperty : ", pszProperty);
    frame.Argument("pbInput     : ", pbInput);
    frame.Argument("cbInput     : ", cbInput);
    frame.Argument("dwFlags     : ", dwFlags);
    ClearProviderCache();
    return SetProviderProperty(hProvider, pszProperty, pbInput, cbInput, dwFlags);
  });
}
