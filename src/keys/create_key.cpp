// KELDAKSPCreatePersistedKey: a key record that FinalizeKey will turn into a key on the token.
#include "keys/key_existence.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/identity.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
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
  if (status != NTE_EXISTS) return g_Log->Refuse(status, "Failed to validate key file existence");
  if ((dwFlags & NCRYPT_OVERWRITE_KEY_FLAG) == 0) {
    return g_Log->Refuse(NTE_EXISTS, "NTE_EXISTS: A key with the same name already exists");
  }
  // FinalizeKey destroys the objects whose handles were found.
  g_Log->WriteLine("NTE_EXISTS: A key with same name exists and will be overwritten");
  key->fOverwrite = 1;
  return ERROR_SUCCESS;
}

// The installation provides the value; without it no key can be made. Its range is the token's business.
bool ReadDefaultKeyLength(DWORD& bitLength) noexcept {
  DWORD cbBitLength = sizeof(bitLength);
  return RegGetValueW(HKEY_LOCAL_MACHINE, kRegistrationKey, L"Default Key Length", RRF_RT_REG_DWORD, nullptr,
                      &bitLength, &cbBitLength) == ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPCreatePersistedKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE* phKey,
                                                  LPCWSTR pszAlgId, LPCWSTR pszKeyName, DWORD dwLegacyKeySpec,
                                                  DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPCreatePersistedKey - Entry", "KELDAKSPCreatePersistedKey - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider       : ", hProvider},  {"phKey           : ", phKey},           {"pszAlgId        : ", pszAlgId},
      {"pszKeyName      : ", pszKeyName}, {"dwLegacyKeySpec : ", dwLegacyKeySpec}, {"dwFlags         : ", dwFlags},
  };
  // The caller's key handle stands before the exit line on every way out; after a failure it is whatever the caller had
  // there.
  const auto logKeyHandle = [&] {
    g_Log->WriteHex32("Key handle: ", phKey != nullptr ? static_cast<std::uint32_t>(*phKey) : 0);
  };
  const auto create = [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    if (phKey == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phKey is NULL");
    if (pszAlgId == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszAlgID is NULL");
    // The silent flag passes although the message does not name it; the machine-key flag passes and does nothing.
    constexpr DWORD kAccepted = NCRYPT_MACHINE_KEY_FLAG | NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG;
    if ((dwFlags & ~kAccepted) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS,
                           "NTE_BAD_FLAGS: Only NCRYPT_MACHINE_KEY_FLAG and NCRYPT_OVERWIRTE_KEY_FLAG is acceptable.");
    }
    if (!WideEqual(pszAlgId, BCRYPT_RSA_ALGORITHM)) {
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: This KSP only supports NCRYPT_RSA_ALGORITHM");
    }
    if (dwLegacyKeySpec >= 3) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: Invalid dwLegacyKeySpec value");
    }
    KELDAKSP_KEY* record = nullptr;
    const SECURITY_STATUS created = NewKeyObject(pszKeyName, &record);
    if (created != ERROR_SUCCESS) return g_Log->Refuse(created, "Failed to create new key object");
    KeyObjectOwner key(record);

    if (pszKeyName != nullptr) {
      const SECURITY_STATUS existing = CheckExistingKey(key.get(), provider, dwFlags);
      if (existing != ERROR_SUCCESS) return existing;
    }
    DWORD bitLength = 0;
    if (!ReadDefaultKeyLength(bitLength)) {
      return g_Log->Refuse(NTE_INTERNAL_ERROR, "NTE_INTERNAL_ERROR: Failed to get registry key");
    }
    key->dwKeyBitLength = bitLength;
    key->pszKeyBlobType = BCRYPT_RSAPRIVATE_BLOB;
    key->dwAlgID = AlgIdFromLegacyKeySpec(dwLegacyKeySpec);
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    return ERROR_SUCCESS;
  };
  return RunEntry(kLines, arguments, create, logKeyHandle);
}
