// KELDAKSPImportKey: an RSA key blob becomes a key record, and a public key at once a token object.
#include "keys/import_record.h"
#include "keys/private_key_blob.h"
#include "keys/record/key_record.h"
#include "login/login.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/text.h"
#include "support/wipe.h"

namespace {

constexpr DWORD kDoNotFinalize = 0x400;  // NCRYPT_DO_NOT_FINALIZE_FLAG
constexpr DWORD kUnsupportedFlags = NCRYPT_MACHINE_KEY_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG;
// The overwrite flag passes and does nothing here.
constexpr DWORD kAcceptedFlags =
    BCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG | NCRYPT_OVERWRITE_KEY_FLAG | kUnsupportedFlags | kDoNotFinalize;

SECURITY_STATUS CheckFlags(DWORD dwFlags) noexcept {
  if ((dwFlags & ~kAcceptedFlags) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((dwFlags & kUnsupportedFlags) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED,
                         "NTE_NOT_SUPPORTED: NCRYPT_MACHINE_KEY_FLAG and NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG are not "
                         "supported flags.");
  }
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPImportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hImportKey,
                                         LPCWSTR pszBlobType, NCryptBufferDesc* pParameterList,
                                         NCRYPT_KEY_HANDLE* phKey, PBYTE pbData, DWORD cbData, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPImportKey - Entry", "KELDAKSPImportKey - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider      : ", hProvider},      {"hImportKey     : ", hImportKey}, {"pszBlobType    : ", pszBlobType},
      {"pParameterList : ", pParameterList}, {"phKey          : ", phKey},      {"pbData         : ", pbData},
      {"cbData         : ", cbData},         {"dwFlags        : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    if (!CheckProvider(hProvider, provider)) return NTE_INVALID_HANDLE;
    const bool isPublic = WideEqual(pszBlobType, BCRYPT_RSAPUBLIC_BLOB);
    if (!isPublic && !WideEqual(pszBlobType, BCRYPT_RSAPRIVATE_BLOB)) {
      // Message and status differ here, on purpose.
      return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_INVALID_PARAMETER: Only RSA BLOBs are currently supported");
    }
    if (phKey == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: phKey is NULL");
    if (pbData == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbData is NULL");
    if (cbData == 0) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: cbData is 0");
    SECURITY_STATUS status = CheckFlags(dwFlags);
    if (status != ERROR_SUCCESS) return status;

    KELDAKSP_KEY* record = nullptr;
    status = NewKeyObject(nullptr, &record);
    if (status != ERROR_SUCCESS) return status;
    KeyObjectOwner key(record);
    PrivateKeyBlob blob;
    WipedBytes working;
    status = FillRecord({hImportKey, pParameterList, pbData, cbData}, provider, key.get(), blob, working);
    if (status != ERROR_SUCCESS) return status;

    // The record owns the modulus only from here on: a failure before releases it with the blob's other parts.
    WipedBytes modulus = RecordComponent(blob.Modulus());
    key->pbModulus = modulus.data();
    if (isPublic) {
      status = CreateImportedPublicKey(key.get(), provider);
      if (status != ERROR_SUCCESS) return status;
    } else {
      KeepPrivateParts(key.get(), blob, std::move(working));
    }
    key->pbModulus = modulus.Release();
    if (!isPublic && (dwFlags & kDoNotFinalize) == 0) {
      g_Log->WriteLine("Finalizing key...");
      // Whatever comes of it, the record is handed out.
      KELDAKSPFinalizeKey(hProvider, reinterpret_cast<NCRYPT_KEY_HANDLE>(key.get()), 0);
    }
    *phKey = reinterpret_cast<NCRYPT_KEY_HANDLE>(key.release());
    Logout(provider);
    return ERROR_SUCCESS;
  });
}
