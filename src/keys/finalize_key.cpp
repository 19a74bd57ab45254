// KELDAKSPFinalizeKey: turns a key record into a key pair on the token.
#include <memory>

#include "keys/imported_key.h"
#include "keys/key_label.h"
#include "keys/record/key_record.h"
#include "login/login.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "token/cryptoki_module.h"
#include "token/rsa_pair.h"

namespace {

SECURITY_STATUS DestroyOverwrittenKey(const KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider) {
  g_Log->WriteLine("Overwrite flag is set.");
  const CK_FUNCTION_LIST& token = g_Cryptoki->Functions();
  if (token.C_DestroyObject(provider->hSession, key->hPrivateKeyObject) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR,
                         "NTE_INTERNAL_ERROR: Private key deletion failed. Check PKCS logs for more information.");
  }
  if (token.C_DestroyObject(provider->hSession, key->hPublicKeyObject) != CKR_OK) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR,
                         "NTE_INTERNAL_ERROR: Public key deletion failed. Check PKCS logs for more information.");
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS GenerateKey(KELDAKSP_KEY* key, const KELDAKSP_PROVIDER* provider) {
  const auto pair = std::make_unique<RSAPair>();
  pair->Reset();
  pair->BindTo(*provider);
  pair->SetModulusBits(key->dwKeyBitLength);
  pair->SetToken(key->pszKeyName != nullptr);
  const KeyLabel label(key->pszKeyName);
  g_Log->WriteLine("Generating key pair");
  // A failure that comes back as a status is not looked at; only one that is thrown counts. Kept on purpose.
  try {
    pair->Generate(label.Text());
  } catch (const unsigned long ckRv) {  // NOLINT(google-runtime-int): the type of a CK_RV
    g_Log->WriteHex32("NTE_INTERNAL_ERROR: GenerateKeyPair failed - ", ckRv);
    return NTE_INTERNAL_ERROR;
  }
  g_Log->WriteInt("Bit length: ", static_cast<std::int32_t>(key->dwKeyBitLength));
  key->hPrivateKeyObject = pair->PrivateKeyHandle();
  key->hPublicKeyObject = pair->PublicKeyHandle();
  key->fFinished = 1;
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPFinalizeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                           DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFinalizeKey - Entry", "KELDAKSPFinalizeKey - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider : ", hProvider},
      {"hKey      : ", hKey},
      {"dwFlags   : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&](EntryFrame& frame) -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    constexpr DWORD kAccepted = BCRYPT_NO_KEY_VALIDATION | NCRYPT_SILENT_FLAG | NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG;
    if ((dwFlags & ~kAccepted) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS,
                           "NTE_BAD_FLAGS: Only NCRYPT_NO_KEY_VALIDATION, NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG, and "
                           "NCRYPT_SILENT_FLAG are acceptable flags.");
    }
    g_Log->WriteLine("Checking if key is not yet finalized");
    if (key->fFinished != 0) return NTE_BAD_KEY_STATE;
    const SECURITY_STATUS login = Login(provider);
    if (login != ERROR_SUCCESS) return g_Log->Refuse(login, "Failed to login. Operation aborted");
    g_Log->WriteLine("Checking if overwrite flag is set");
    if (key->fOverwrite != 0) {
      const SECURITY_STATUS destroyed = DestroyOverwrittenKey(key, provider);
      if (destroyed != ERROR_SUCCESS) return destroyed;
    }
    return key->pbPrivateKey != nullptr ? WriteImportedKey(key, provider, frame.exitLines) : GenerateKey(key, provider);
  });
}
