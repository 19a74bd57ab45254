// KELDAKSPFreeKey: releases what a key handle owns.
#include "keys/handle_checks.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "support/text.h"
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

// The record itself and the components of an imported key stay; kept on purpose (docs/kept-oddities.md).
SECURITY_STATUS FreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) noexcept {
  if (ProviderFromHandle(hProvider) == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  KELDAKSP_KEY* key = KeyFromHandle(hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);

  if (key->pszKeyName != nullptr) {
    g_Log->WriteLine("Deleting key name");
    // The count is of characters; the text itself is wiped whole.
    SecureWipe(key->pszKeyName, WideLength(key->pszKeyName) * sizeof(wchar_t));
    delete[] key->pszKeyName;
    key->pszKeyName = nullptr;
    key->cbKeyName = 0;
  }
  DeleteBlob(key->pbKeyFile, key->cbKeyFile, "Deleting key file data blob");
  ForgetObject(key->hPublicKeyObject, "Deleting public key handle");
  ForgetObject(key->hPrivateKeyObject, "Deleting private key handle");
  DeleteBlob(key->pbSecurityDescr, key->cbSecurityDescr, "Deleting security descriptor");
  DeleteBlob(key->pbPrivateKey, key->cbPrivateKey, "Deleting private key blob");
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPFreeKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPFreeKey - Entry", "KELDAKSPFreeKey - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider : ", hProvider);
    frame.Argument("hKey      : ", hKey);
    ClearProviderCache();
    return FreeKey(hProvider, hKey);
  });
}
