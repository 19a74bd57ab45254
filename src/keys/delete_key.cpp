// KELDAKSPDeleteKey: removes a key from the token.
#include "keys/handle_checks.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "token/cryptoki_module.h"

namespace {

bool DestroyObject(CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object) {
  if (object == 0) return true;
  return g_Cryptoki != nullptr && g_Cryptoki->Functions().C_DestroyObject(session, object) == CKR_OK;
}

// No login is attempted: the token decides whether the session may destroy the objects.
SECURITY_STATUS DeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) {
  const KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  KELDAKSP_KEY* key = KeyFromHandle(hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);
  if ((dwFlags & ~DWORD{NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is acceptable");
  }
  if (!DestroyObject(provider->hSession, key->hPrivateKeyObject) ||
      !DestroyObject(provider->hSession, key->hPublicKeyObject)) {
    return g_Log->Refuse(NTE_INTERNAL_ERROR,
                         "NTE_INTERNAL_ERROR: DestroyObject failed. Check PKCS logs for detailed information");
  }
  return ReleaseKeyObject(key);
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPDeleteKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPDeleteKey - Entry", "KELDAKSPDeleteKey - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider : ", hProvider);
    frame.Argument("hKey      : ", hKey);
    frame.Argument("dwFlags   : ", dwFlags);
    ClearProviderCache();
    return DeleteKey(hProvider, hKey, dwFlags);
  });
}
