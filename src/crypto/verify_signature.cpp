// KELDAKSPVerifySignature. The usage policy is not asked, unlike in signing, and the hash is not wrapped: the token
// holds what the signature contains against exactly the bytes given. Both differences are kept on purpose.
#include "crypto/key_use.h"
#include "crypto/operations/rsa_operations.h"
#include "crypto/signature_flags.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"

SECURITY_STATUS WINAPI KELDAKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                               PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                               DWORD cbSignature, DWORD dwFlags) noexcept {
  // No colon before the status here, unlike the other entries.
  constexpr EntryLines kLines = {"KELDAKSPVerifySignature - Entry", "KELDAKSPVerifySignature - Exit"};
  const EntryArgument arguments[] = {
      {"hProvider    : ", hProvider},   {"hKey         : ", hKey},        {"pPaddingInfo : ", pPaddingInfo},
      {"pbHashValue  : ", pbHashValue}, {"cbHashValue  : ", cbHashValue}, {"pbSignature  : ", pbSignature},
      {"cbSignature  : ", cbSignature}, {"dwFlags      : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if (pbHashValue == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbHashValue is NULL");
    }
    if (pbSignature == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbSignature is NULL");
    }
    SECURITY_STATUS status = CheckSignatureFlags(dwFlags);
    if (status != ERROR_SUCCESS) return status;
    status = CheckFinishedAndLogin(provider, key);
    if (status != ERROR_SUCCESS) return status;

    RSAPair pair;
    pair.BindTo(*provider);
    pair.SetPublicKeyHandle(key->hPublicKeyObject);
    status = Verify(pair, pbHashValue, cbHashValue, pbSignature, cbSignature);
    if (status != ERROR_SUCCESS) g_Log->WriteLine("Verify failed. Check PKCS logs for detailed information");
    return status;
  });
}
