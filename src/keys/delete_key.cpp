// KELDAKSPDeleteKey: removes a key from the token.
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "token/cryptoki_module.h"

namespace {

bool DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  if (object == 0) return true;
  return g_Cryptoki != nullptr && g_Cryptoki->Functions().C_DestroyObject(session, object) == CKR_OK;
}

}  // namespace

// No login is attempted: the token decides whether the session may destroy the objects.
SECURITY_STATUS WINAPI KELDAKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPDeleteKey - Entry", "KELDAKSPDeleteKey - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider : ", hProvider},
      {"hKey      : ", hKey},
      {"dwFlags   : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is acceptable");
    }
    if (!DestroyObject(provider->hSession, key->hPrivateKeyObject) ||
        !DestroyObject(provider->hSession, key->hPublicKeyObject)) {
      return g_Log->Refuse(NTE_INTERNAL_ERROR,
                           "NTE_INTERNAL_ERROR: DestroyObject failed. Check PKCS logs for detailed information");
    }
    return ReleaseKeyObject(key);
  });
}
