// KELDAKSPFreeKey: releases what a key handle owns.
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/wipe.h"

namespace {

void DeleteBlob(BYTE*& data, DWORD size, const char* line) noexcept {
  if (data == nullptr) return;
  g_Log->WriteLine(line);
  SecureWipe(data, size);
  delete[] data;
  data = nullptr;
}

void ForgetObject(CK_OBJECT_HANDLE& object, const char* line) noexcept {
  if (object == 0) return;
  g_Log->WriteLine(line);
  object = 0;
}

}  // namespace

// The record itself and the components of an imported key stay; kept on purpose (docs/kept-oddities.md).
SECURITY_STATUS WINAPI KELDAKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeKey - Entry", "KELDAKSPFreeKey - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider : ", hProvider},
      {"hKey      : ", hKey},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if (key->pszKeyName != nullptr) {
      g_Log->WriteLine("Deleting key name");
      DeleteKeyName(key);
    }
    DeleteBlob(key->pbKeyFile, key->cbKeyFile, "Deleting key file data blob");
    ForgetObject(key->hPublicKeyObject, "Deleting public key handle");
    ForgetObject(key->hPrivateKeyObject, "Deleting private key handle");
    DeleteBlob(key->pbSecurityDescr, key->cbSecurityDescr, "Deleting security descriptor");
    DeleteBlob(key->pbPrivateKey, key->cbPrivateKey, "Deleting private key blob");
    return ERROR_SUCCESS;
  });
}
