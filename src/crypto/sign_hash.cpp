// KELDAKSPSignHash. Only PKCS#1 v1.5 is offered, whatever the padding information says.
#include <algorithm>

#include "crypto/key_use.h"
#include "crypto/operations/rsa_operations.h"
#include "crypto/signature_flags.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"

SECURITY_STATUS WINAPI KELDAKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                        PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                        DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPSignHash - Entry", "KELDAKSPSignHash - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider    : ", hProvider},   {"hKey         : ", hKey},        {"pPaddingInfo : ", pPaddingInfo},
      {"pbHashValue  : ", pbHashValue}, {"cbHashValue  : ", cbHashValue}, {"pbSignature  : ", pbSignature},
      {"cbSignature  : ", cbSignature}, {"pcbResult    : ", pcbResult},   {"dwFlags      : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if (pbHashValue == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbHashValue is NULL");
    }
    if (pcbResult == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
    SECURITY_STATUS status = CheckSignatureFlags(dwFlags);
    if (status != ERROR_SUCCESS) return status;
    if ((key->dwKeyUsagePolicy & NCRYPT_ALLOW_SIGNING_FLAG) == 0) {
      return g_Log->Refuse(NTE_PERM, "NTE_PERM: The key usage policy does not allow signing");
    }
    status = CheckFinishedAndLogin(provider, key);
    if (status != ERROR_SUCCESS) return status;

    RSAPair pair;
    pair.BindTo(*provider);
    pair.SetPrivateKeyHandle(key->hPrivateKeyObject);
    g_Log->WriteBytes("Hash\t\t: ", pbHashValue, cbHashValue);
    const DWORD cbRoom = cbSignature;
    status = Sign(pair, pbHashValue, cbHashValue, pbSignature, pbSignature != nullptr ? &cbSignature : pcbResult);
    if (status != ERROR_SUCCESS) g_Log->WriteLine("Signing failed. Check PKCS logs for detailed information");
    if (pbSignature == nullptr) {
      g_Log->WriteInt("pbSignature is NULL. Signature length: ", static_cast<std::int32_t>(*pcbResult));
      return status;
    }
    *pcbResult = cbSignature;  // whatever the status: the token may have told the length it needs
    if (status == ERROR_SUCCESS) g_Log->WriteBytes("Signature\t\t: ", pbSignature, std::min(cbSignature, cbRoom));
    return status;
  });
}
