// KELDAKSPGetKeyProperty.
#include <cstring>

#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/result_length.h"
#include "provider/record/provider_record.h"
#include "support/text.h"

namespace {

// A property's value and the line that tells of its reading.
struct Value {
  const char* line = nullptr;
  const void* data = nullptr;
  DWORD size = 0;
  DWORD number = 0;
  NCRYPT_SUPPORTED_LENGTHS lengths = {};

  SECURITY_STATUS SetNumber(const char* text, DWORD value) noexcept {
    line = text;
    number = value;
    data = &number;
    size = sizeof(number);
    return ERROR_SUCCESS;
  }
  // A key without a name does not have the property.
  SECURITY_STATUS SetText(const char* text, const wchar_t* value) noexcept {
    if (value == nullptr) return NTE_NOT_SUPPORTED;
    line = text;
    data = value;
    size = static_cast<DWORD>((WideLength(value) + 1) * sizeof(wchar_t));
    return ERROR_SUCCESS;
  }
  SECURITY_STATUS SetLengths(const char* text) noexcept {
    line = text;
    // The default is fixed; the registry's "Default Key Length" plays no part here.
    lengths = {512, 4096, 512, 2048};
    data = &lengths;
    size = sizeof(lengths);
    return ERROR_SUCCESS;
  }
};

SECURITY_STATUS FindProperty(const KELDAKSP_KEY* key, const wchar_t* name, Value& value) noexcept {
  if (WideEqual(name, NCRYPT_ALGORITHM_PROPERTY)) {
    return value.SetText("dwProperty = KELDAKSP_ALGORITHM_PROPERTY", L"RSA");
  }
  if (WideEqual(name, NCRYPT_BLOCK_LENGTH_PROPERTY)) {
    // In 64 bits: a caller's blob may have brought any bit length.
    const auto bytes = static_cast<DWORD>((std::uint64_t{key->dwKeyBitLength} + 7) / 8);
    return value.SetNumber("dwProperty = KELDAKSP_BLOCK_LENGTH_PROPERTY", bytes);
  }
  if (WideEqual(name, NCRYPT_EXPORT_POLICY_PROPERTY)) {
    return value.SetNumber("dwProperty = KELDAKSP_EXPORT_POLICY_PROPERTY", key->dwExportPolicy);
  }
  if (WideEqual(name, NCRYPT_KEY_USAGE_PROPERTY)) {
    return value.SetNumber("dwProperty = KELDAKSP_KEY_USAGE_PROPERTY", key->dwKeyUsagePolicy);
  }
  if (WideEqual(name, NCRYPT_KEY_TYPE_PROPERTY)) {
    return value.SetNumber("dwProperty = KELDAKSP_KEY_TYPE_PROPERTY", 0);
  }
  if (WideEqual(name, NCRYPT_LENGTH_PROPERTY)) {
    return value.SetNumber("dwProperty = KELDAKSP_LENGTH_PROPERTY", key->dwKeyBitLength);
  }
  if (WideEqual(name, NCRYPT_LENGTHS_PROPERTY)) return value.SetLengths("dwProperty = KELDAKSP_LENGTHS_PROPERTY");
  if (WideEqual(name, NCRYPT_NAME_PROPERTY)) {
    return value.SetText("dwProperty = KELDAKSP_NAME_PROPERTY", key->pszKeyName);
  }
  if (WideEqual(name, NCRYPT_ALGORITHM_GROUP_PROPERTY)) {
    return value.SetText("dwProperty = KELDAKSP_ALGORITHM_GROUP_PROPERTY", L"RSA");
  }
  if (WideEqual(name, NCRYPT_UNIQUE_NAME_PROPERTY)) {
    return value.SetText("dwProperty = KELDAKSP_UNIQUE_NAME_PROPERTY", key->pszKeyName);
  }
  // Among them the certificate: it can be set and never read.
  return NTE_NOT_SUPPORTED;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                              PBYTE pbOutput, DWORD cbOutput, DWORD* pcbResult,
                                              DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPGetKeyProperty - Entry", "KELDAKSPGetKeyProperty - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider   : ", hProvider}, {"hKey        : ", hKey},     {"pszProperty : ", pszProperty},
      {"pbOutput    : ", pbOutput},  {"cbOutput    : ", cbOutput}, {"pcbResult   : ", pcbResult},
      {"dwFlags     : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    ResultLength resultLength(pcbResult);
    // This entry has its own wording of the two handle messages.
    if (ProviderFromHandle(hProvider) == nullptr) {
      return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: Invalid provider handle, pProvider is NULL");
    }
    const KELDAKSP_KEY* key = KeyFromHandle(hKey);
    if (key == nullptr) {
      return g_Log->Refuse(NTE_INVALID_HANDLE, "NTE_INVALID_HANDLE: Invalid key handle, pKey is NULL");
    }
    if (pszProperty == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
    }
    if (WideLength(pszProperty) > kMaxPropertyName) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER,
                           "NTE_INVALID_PARAMETER: Length of pszProperty is longer than NCRYPT_MAX_PROPERTY_NAME");
    }
    if (pcbResult == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
    if ((dwFlags & NCRYPT_PERSIST_ONLY_FLAG) != 0) return NTE_NOT_SUPPORTED;
    // Known, but never told: the size query alone answers, with a size of 0. The certificate has not even that.
    if (WideEqual(pszProperty, NCRYPT_SECURITY_DESCR_PROPERTY)) {
      return pbOutput == nullptr ? ERROR_SUCCESS : NTE_NOT_SUPPORTED;
    }
    Value value;
    const SECURITY_STATUS found = FindProperty(key, pszProperty, value);
    if (found != ERROR_SUCCESS) return found;
    resultLength.Set(value.size);
    if (pbOutput == nullptr) return ERROR_SUCCESS;
    if (cbOutput < value.size) return NTE_BUFFER_TOO_SMALL;
    g_Log->WriteLine(value.line);
    std::memcpy(pbOutput, value.data, value.size);
    return ERROR_SUCCESS;
  });
}
