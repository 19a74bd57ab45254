// KELDAKSPGetProviderProperty. It and its writing counterpart word their messages differently for the same checks; both
// wordings are kept.
#include <cstring>

#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/result_length.h"
#include "provider/record/provider_record.h"
#include "support/text.h"

namespace {

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

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPGetProviderProperty(NCRYPT_PROV_HANDLE hProvider, LPCWSTR pszProperty, PBYTE pbOutput,
                                                   DWORD cbOutput, DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPGetProviderProperty - Entry", "KELDAKSPGetProviderProperty - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider    : ", hProvider}, {"pszProperty  : ", pszProperty}, {"pbOutput     : ", pbOutput},
      {"cbOutput     : ", cbOutput},  {"pcbResult    : ", pcbResult},   {"dwFlags      : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    ResultLength resultLength(pcbResult);
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    if (pszProperty == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
    }
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
    resultLength.Set(value.Size());
    if (pbOutput == nullptr) {
      g_Log->WriteLine("pbOutput is NULL, property length query succeeded.");
      return ERROR_SUCCESS;
    }
    if (cbOutput < value.Size()) {
      return g_Log->Refuse(NTE_BUFFER_TOO_SMALL, "NTE_BUFFER_TOO_SMALL: cbOutput is less than cbResult");
    }
    std::memcpy(pbOutput, value.Data(), value.Size());
    return ERROR_SUCCESS;
  });
}
