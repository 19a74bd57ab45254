// KELDAKSPSetKeyProperty.
#include <cstring>
#include <memory>
#include <new>

#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"
#include "support/text.h"
#include "support/wipe.h"
#include "token/certificate.h"
#include "token/cryptoki_module.h"

namespace {

constexpr std::size_t kMaxNameLength = 64;  // KELDAKSP_MAX_NAME_LEN, characters

// Takes a number that may only be set before finalization.
SECURITY_STATUS TakeNumber(const KELDAKSP_KEY* key, const BYTE* pbInput, DWORD cbInput, DWORD& number) noexcept {
  if (cbInput != sizeof(DWORD)) return g_Log->Refuse(NTE_BAD_DATA, "cbInput != sizeof(DWORD)");
  if (key->fFinished != 0) return g_Log->Refuse(NTE_BAD_KEY_STATE, "pKey->fFinished == TRUE");
  std::memcpy(&number, pbInput, sizeof(number));
  return ERROR_SUCCESS;
}

SECURITY_STATUS SetKeyUsage(KELDAKSP_KEY* key, const BYTE* pbInput, DWORD cbInput) noexcept {
  g_Log->WriteLine("dwProperty = NCRYPT_KEY_USAGE_PROPERTY");
  return TakeNumber(key, pbInput, cbInput, key->dwKeyUsagePolicy);
}

SECURITY_STATUS SetLength(KELDAKSP_KEY* key, const BYTE* pbInput, DWORD cbInput) noexcept {
  g_Log->WriteLine("dwProperty = NCRYPT_LENGTH_PROPERTY");
  DWORD length = 0;
  const SECURITY_STATUS status = TakeNumber(key, pbInput, cbInput, length);
  if (status != ERROR_SUCCESS) return status;
  if (length < 512 || length > 4096 || length % 512 != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "specified length is invalid");
  }
  key->dwKeyBitLength = length;
  return ERROR_SUCCESS;
}

// Also for a finished key; the token objects keep their label.
SECURITY_STATUS SetName(KELDAKSP_KEY* key, const BYTE* pbInput, DWORD cbInput) noexcept {
  g_Log->WriteLine("dwProperty = NCRYPT_NAME_PROPERTY");
  if (cbInput >= kMaxNameLength * sizeof(wchar_t)) {
    return g_Log->Refuse(NTE_BAD_DATA, "cbInput >= (KELDAKSP_MAX_NAME_LEN*sizeof(WCHAR))");
  }
  if (cbInput % 2 != 0) return g_Log->Refuse(NTE_BAD_DATA, "(cbInput % 2)");
  // The old name goes first: without memory for the new one the key is left without a name.
  DeleteKeyName(key);
  key->cbKeyName = 0;
  WipedArray<wchar_t> name = WipedArray<wchar_t>::Try(cbInput / sizeof(wchar_t) + 1);
  if (name.empty()) return NTE_NO_MEMORY;
  std::memcpy(name.data(), pbInput, cbInput);
  // The record is wiped by the length of its name: nothing may lie behind a terminator in the input.
  const std::size_t length = WideLength(name.data());
  SecureWipe(name.data() + length, (name.size() - length) * sizeof(wchar_t));
  key->pszKeyName = name.Release();
  g_Log->WriteWide("pKey->pszKeyName = ", key->pszKeyName);
  key->cbKeyName = static_cast<DWORD>(length);
  g_Log->WriteInt("pKey->cbKeyName = ", static_cast<std::int32_t>(key->cbKeyName));
  return ERROR_SUCCESS;
}

SECURITY_STATUS SetCertificate(const KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* key, const BYTE* pbInput,
                               DWORD cbInput) {
  g_Log->WriteLine("dwProperty = NCRYPT_CERTIFICATE_PROPERTY");
  if (key->fFinished == 0) return g_Log->Refuse(NTE_BAD_KEY_STATE, "Key referenced by hKey is not yet finalized.");
  if (key->hPublicKeyObject == 0 && key->hPrivateKeyObject == 0) {
    return g_Log->Refuse(NTE_BAD_KEY_STATE, "Key referenced by hKey does not contain any key handle");
  }
  const auto certificate = std::make_unique<Certificate>();
  g_Log->WriteLine("Setting crypto interface pointer");
  certificate->SetModule(g_Cryptoki);
  g_Log->WriteLine("Setting session handle");
  certificate->SetSession(provider->hSession);
  if (key->hPublicKeyObject != 0) {
    g_Log->WriteLine("Setting public key handle");
    certificate->SetPublicKeyHandle(key->hPublicKeyObject);
  }
  if (key->hPrivateKeyObject != 0) {
    g_Log->WriteLine("Setting private key handle");
    certificate->SetPrivateKeyHandle(key->hPrivateKeyObject);
  }
  g_Log->WriteLine("Checking if certificate already exists");
  const SECURITY_STATUS existing = certificate->FindForKey();
  if (existing == NTE_EXISTS) {
    return g_Log->Refuse(NTE_EXISTS, "NTE_EXISTS: A certificate already exists for the selected key pair");
  }
  if (existing != NTE_NOT_FOUND) {
    return g_Log->Refuse(existing,
                         "NTE_INTERNAL_ERROR: An internal error occured. Check PKCS logs for more information");
  }
  g_Log->WriteLine("No certificate has been found for this key");
  g_Log->WriteLine("Setting certificate");
  return certificate->CreateFromEncoded(pbInput, cbInput);
}

SECURITY_STATUS SetWindowHandle(KELDAKSP_PROVIDER* provider, const BYTE* pbInput, DWORD cbInput) noexcept {
  g_Log->WriteLine("dwProperty = NCRYPT_WINDOW_HANDLE_PROPERTY");
  if (cbInput > sizeof(provider->hWnd)) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: cbInput is greater than the size of HWND");
  }
  std::memcpy(&provider->hWnd, pbInput, cbInput);
  g_Log->WriteHex32("Window handle set: ", static_cast<std::uint32_t>(provider->hWnd));
  return ERROR_SUCCESS;
}

SECURITY_STATUS Ignore(const char* text) noexcept {
  g_Log->WriteLine(text);
  return ERROR_SUCCESS;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, LPCWSTR pszProperty,
                                              PBYTE pbInput, DWORD cbInput, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPSetKeyProperty - Entry", "KELDAKSPSetKeyProperty - Exit: "};
  const EntryArgument arguments[] = {
      {"hProvider   : ", hProvider}, {"hKey        : ", hKey},    {"pszProperty : ", pszProperty},
      {"pbInput     : ", pbInput},   {"cbInput     : ", cbInput}, {"dwFlags     : ", dwFlags},
  };
  return RunEntry(kLines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if (pszProperty == nullptr) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pszProperty is NULL");
    }
    if (WideLength(pszProperty) > kMaxPropertyName) {
      return g_Log->Refuse(NTE_INVALID_PARAMETER,
                           "NTE_INVALID_PARAMETER: pszProperty is exceeds NCRYPT_MAX_PROPERTY_NAME");
    }
    if (pbInput == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbInput is NULL");
    // Even the silent flag is refused here, on purpose: only the two persistence flags pass.
    constexpr DWORD kRefusedFlags = ~DWORD{NCRYPT_PERSIST_ONLY_FLAG | NCRYPT_PERSIST_FLAG};
    if (!WideEqual(pszProperty, NCRYPT_SECURITY_DESCR_PROPERTY) && (dwFlags & kRefusedFlags) != 0) {
      return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: dwFlags contains an invalid flag");
    }
    if (WideEqual(pszProperty, NCRYPT_KEY_USAGE_PROPERTY)) return SetKeyUsage(key, pbInput, cbInput);
    if (WideEqual(pszProperty, NCRYPT_LENGTH_PROPERTY)) return SetLength(key, pbInput, cbInput);
    if (WideEqual(pszProperty, NCRYPT_NAME_PROPERTY)) return SetName(key, pbInput, cbInput);
    if (WideEqual(pszProperty, NCRYPT_CERTIFICATE_PROPERTY)) return SetCertificate(provider, key, pbInput, cbInput);
    if (WideEqual(pszProperty, NCRYPT_UI_POLICY_PROPERTY)) {
      return Ignore("NCRYPT_UI_POLICY is not supported and will be ignored");
    }
    if (WideEqual(pszProperty, NCRYPT_EXPORT_POLICY_PROPERTY)) {
      return Ignore("NCRYPT_EXPORT_POLICY_PROPERTY is not supported and will be ignored");
    }
    if (WideEqual(pszProperty, NCRYPT_WINDOW_HANDLE_PROPERTY)) return SetWindowHandle(provider, pbInput, cbInput);
    return NTE_NOT_SUPPORTED;
  });
}
