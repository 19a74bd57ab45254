// KELDAKSPSignHash and KELDAKSPVerifySignature. Only PKCS#1 v1.5 is offered, whatever the padding information says.
#include <algorithm>
#include <memory>

#include "keys/handle_checks.h"
#include "keys/record/key_record.h"
#include "login/login.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/entry/provider_cache.h"
#include "token/cryptoki_module.h"
#include "token/rsa_pair.h"

namespace {

SECURITY_STATUS CheckFlags(DWORD dwFlags) noexcept {
  // No padding flag at all is accepted and means PKCS#1 v1.5.
  if ((dwFlags & ~DWORD{BCRYPT_PAD_PKCS1 | BCRYPT_PAD_PSS | NCRYPT_SILENT_FLAG}) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((dwFlags & BCRYPT_PAD_PSS) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: PSS padding scheme is currently not supported.");
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS CheckFinishedAndLogin(KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* key) noexcept {
  if (key->fFinished == 0) {
    return g_Log->Refuse(NTE_BAD_KEY_STATE, "NTE_BAD_KEY_STATE: The specified key is not yet finalized");
  }
  const SECURITY_STATUS login = Login(provider);
  if (login != ERROR_SUCCESS) g_Log->WriteLine("Failed to login. Operation aborted.");
  return login;
}

std::unique_ptr<RSAPair> NewPair(const KELDAKSP_PROVIDER* provider) {
  auto pair = std::make_unique<RSAPair>();
  pair->SetModule(g_Cryptoki);
  pair->SetSession(provider->hSession);
  return pair;
}

SECURITY_STATUS SignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, const BYTE* pbHashValue,
                         DWORD cbHashValue, BYTE* pbSignature, DWORD cbSignature, DWORD* pcbResult, DWORD dwFlags) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  const KELDAKSP_KEY* key = KeyFromHandle(hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);
  if (pbHashValue == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbHashValue is NULL");
  if (pcbResult == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
  SECURITY_STATUS status = CheckFlags(dwFlags);
  if (status != ERROR_SUCCESS) return status;
  if ((key->dwKeyUsagePolicy & NCRYPT_ALLOW_SIGNING_FLAG) == 0) {
    return g_Log->Refuse(NTE_PERM, "NTE_PERM: The key usage policy does not allow signing");
  }
  status = CheckFinishedAndLogin(provider, key);
  if (status != ERROR_SUCCESS) return status;

  const auto pair = NewPair(provider);
  pair->SetPrivateKeyHandle(key->hPrivateKeyObject);
  g_Log->WriteBytes("Hash\t\t: ", pbHashValue, cbHashValue);
  const DWORD cbRoom = cbSignature;
  status = pair->Sign(pbHashValue, cbHashValue, pbSignature, pbSignature != nullptr ? &cbSignature : pcbResult);
  if (status != ERROR_SUCCESS) g_Log->WriteLine("Signing failed. Check PKCS logs for detailed information");
  if (pbSignature == nullptr) {
    g_Log->WriteInt("pbSignature is NULL. Signature length: ", static_cast<std::int32_t>(*pcbResult));
    return status;
  }
  *pcbResult = cbSignature;  // whatever the status: the token may have told the length it needs
  if (status == ERROR_SUCCESS) g_Log->WriteBytes("Signature\t\t: ", pbSignature, std::min(*pcbResult, cbRoom));
  return status;
}

// The usage policy is not asked, unlike in signing, and the hash is not wrapped: the token holds what the signature
// contains against exactly the bytes given. Both differences are kept on purpose.
SECURITY_STATUS VerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, const BYTE* pbHashValue,
                                DWORD cbHashValue, const BYTE* pbSignature, DWORD cbSignature, DWORD dwFlags) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  const KELDAKSP_KEY* key = KeyFromHandle(hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);
  if (pbHashValue == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbHashValue is NULL");
  if (pbSignature == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbSignature is NULL");
  SECURITY_STATUS status = CheckFlags(dwFlags);
  if (status != ERROR_SUCCESS) return status;
  status = CheckFinishedAndLogin(provider, key);
  if (status != ERROR_SUCCESS) return status;

  const auto pair = NewPair(provider);
  pair->SetPublicKeyHandle(key->hPublicKeyObject);
  status = pair->Verify(pbHashValue, cbHashValue, pbSignature, cbSignature);
  if (status != ERROR_SUCCESS) g_Log->WriteLine("Verify failed. Check PKCS logs for detailed information");
  return status;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                        PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                        DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPSignHash - Entry", "KELDAKSPSignHash - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider    : ", hProvider);
    frame.Argument("hKey         : ", hKey);
    frame.Argument("pPaddingInfo : ", pPaddingInfo);
    frame.Argument("pbHashValue  : ", pbHashValue);
    frame.Argument("cbHashValue  : ", cbHashValue);
    frame.Argument("pbSignature  : ", pbSignature);
    frame.Argument("cbSignature  : ", cbSignature);
    frame.Argument("pcbResult    : ", pcbResult);
    frame.Argument("dwFlags      : ", dwFlags);
    ClearProviderCache();
    return SignHash(hProvider, hKey, pbHashValue, cbHashValue, pbSignature, cbSignature, pcbResult, dwFlags);
  });
}

SECURITY_STATUS WINAPI KELDAKSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID* pPaddingInfo,
                                               PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                               DWORD cbSignature, DWORD dwFlags) noexcept {
  // No colon before the status here, unlike the other entries.
  constexpr EntryLines kLines = {"KELDAKSPVerifySignature - Entry", "KELDAKSPVerifySignature - Exit"};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    frame.Argument("hProvider    : ", hProvider);
    frame.Argument("hKey         : ", hKey);
    frame.Argument("pPaddingInfo : ", pPaddingInfo);
    frame.Argument("pbHashValue  : ", pbHashValue);
    frame.Argument("cbHashValue  : ", cbHashValue);
    frame.Argument("pbSignature  : ", pbSignature);
    frame.Argument("cbSignature  : ", cbSignature);
    frame.Argument("dwFlags      : ", dwFlags);
    ClearProviderCache();
    return VerifySignature(hProvider, hKey, pbHashValue, cbHashValue, pbSignature, cbSignature, dwFlags);
  });
}
