// KELDAKSPCreatePersistedKey: a key record that FinalizeKey will turn into a key on the token.
#include "keys/handle_checks.h"
#include "keys/key_record.h"
#include "provider/entry_frame.h"
#include "provider/identity.h"
#include "provider/key_storage_interface.h"
#include "provider/provider_cache.h"
#include "support/text.h"

namespace {

DWORD AlgIdFromLegacyKeySpec(DWORD dwLegacyKeySpec) noexcept {
  switch (dwLegacyKeySpec) {
    case AT_KEYEXCHANGE:
      return CALG_RSA_KEYX;
    case AT_SIGNATURE:
      return CALG_RSA_SIGN;
    default:
      return 0;
  }
}

// Whether a key of the record's name is in the way. Without one, or when it is to be overwritten, 0.
SECURITY_STATUS CheckExistingKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider, DWORD dwFlags) {
  g_Log->WriteLine("Validating key file existence");
  const SECURITY_STATUS status = CheckKeyExists(key, provider);
  if (status == NTE_NOT_FOUND) return ERROR_SUCCESS;
  if (status != NTE_EXISTS) return Refuse(status, "Failed to validate key file existence");
  if ((dwFlags & NCRYPT_OVERWRITE_KEY_FLAG) == 0) {
    return Refuse(NTE_EXISTS, "NTE_EXISTS: A key with the same name already exists");
  }
  // FinalizeKey destroys the objects whose handles were found.
  g_Log->WriteLine("NTE_EXISTS: A key with same name exists and will be overwritten");
  key->fOverwrite = 1;
  return ERROR_SUCCESS;
}

SECURITY_STATUS CreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey, const wchar_t* pszAlgId,
                                   const wchar_t* pszKeyName, DWORD dwLegacyKeySpec, DWORD dwFlags) {
  const KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  if (phKey == nullptr) return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phKey is NULL");
  if (pszAlgId == nullptr) return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszAlgID is NULL");
  // The silent flag passes although the message does not name it; the machine-key flag passes and does nothing.
  constexpr DWORD kAccepted = NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG;
  if ((dwFlags & ~kAccepted) != 0) {
    return Refuse(NTE_BAD_FLAGS,
                  "NTE_BAD_FLAGS: Only NCRYPT_MACHINE_KEY_FLAG and NCRYPT_OVERWIRTE_KEY_FLAG is acceptable.");
  }
  if (!WideEqual(pszAlgId, BCRYPT_RSA_ALGORITHM)) {
    return Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: This KSP only supports NCRYPT_RSA_ALGORITHM");
  }
  if (dwLegacyKeySpec >= 3) {
    return Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: Invalid dwLegacyKeySpec value");
  }
  KELDAKSP_KEY* record = nullptr;
  const SECURITY_STATUS created = NewKeyObject(pszKeyName, &record);
  if (created != ERROR_SUCCESS) return Refuse(created, "Failed to create new key object");
  KeyObjectOwner key(record);

  if (pszKeyName != nullptr) {
    const SECURITY_STATUS existing = CheckExistingKey(key.get(), provider, dwFlags);
    if (existing != ERROR_SUCCESS) return existing;
  }
  // The installation provides the value; without it no key can be made. Its range is the token's business.
  DWORD bitLength = 0;
  DWORD cbBitLength = sizeof(bitLength);
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kRegistrationKey, L"Default Key Length", RRF_RT_REG_DWORD, nullptr, &bitLength,
                   &cbBitLength) != ERROR_SUCCESS) {
    return Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Failed to get registry key");
  }
  key->dwKeyBitLength = bitLength;
  key->pszKeyBlobType = BCRYPT_RSAPRIVATE_BLOB;
  key->dwAlgID = AlgIdFromLegacyKeySpec(dwLegacyKeySpec);
  *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                  LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                  DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPCreatePersistedKey - Entry", "KELDAKSPCreatePersistedKey - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider       : ", hProvider);
    frame.Argument("phKey           : ", phKey);
    frame.WideArgument("pszAlgId        : ", pszAlgId);
    frame.WideArgument("pszKeyName      : ", pszKeyName);
    frame.Argument("dwLegacyKeySpec : ", dwLegacyKeySpec);
    frame.Argument("dwFlags         : ", dwFlags);
    ClearProviderCache();
    SECURITY_STATUS status = NTE_INTERNAL_ERROR;
    try {
      status = CreatePersistedKey(hProvider, phKey, pszAlgId, pszKeyName, dwLegacyKeySpec, dwFlags);
    } catch (...) {
      status = RefuseException();
    }
    // After a failure, whatever its kind, this is what the caller left there.
    g_Log->WriteHex32("Key handle: ", phKey != nullptr ? static_cast<std::uint32_t>(*phKey) : 0);
    return status;
  });
}
