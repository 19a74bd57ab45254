// KELDAKSPEncrypt and KELDAKSPDecrypt: the token's PKCS#1 v1.5 encryption, whatever padding flag the caller gives. The
// key's usage policy is not asked.
#include "crypto/key_use.h"
#include "crypto/operations/rsa_operations.h"
#include "keys/record/key_record.h"
#include "provider/entry/entry_frame.h"
#include "provider/entry/key_storage_interface.h"
#include "provider/record/provider_record.h"

namespace {

using Operation = decltype(&Encrypt);

// What tells the two apart.
struct Direction {
  EntryLines lines;
  Operation run = nullptr;
  void (*useKey)(RSAPair& pair, const KELDAKSP_KEY& key) noexcept = nullptr;
  void (*logFailure)(SECURITY_STATUS status) noexcept = nullptr;
};

constexpr Direction kEncryption = {
    {"KELDAKSPEncrypt - Entry", "KELDAKSPEncrypt - Exit: "},
    &Encrypt,
    [](RSAPair& pair, const KELDAKSP_KEY& key) noexcept { pair.SetPublicKeyHandle(key.hPublicKeyObject); },
    [](SECURITY_STATUS) noexcept { g_Log->WriteLine("Encryption failed. Check PKCS logs for detailed information."); },
};

constexpr Direction kDecryption = {
    {"KELDAKSPDecrypt - Entry", "KELDAKSPDecrypt - Exit: "},
    &Decrypt,
    [](RSAPair& pair, const KELDAKSP_KEY& key) noexcept { pair.SetPrivateKeyHandle(key.hPrivateKeyObject); },
    [](SECURITY_STATUS status) noexcept {
      g_Log->WriteHex32("Decryption failed. Check PKCS logs for detailed information",
                        static_cast<std::uint32_t>(status));
    },
};

// The flag's only effect: the token pads all the same. A key of fewer than 8 bits has no blocks, so that no length is a
// multiple of them except 0.
bool IsWholeBlocks(const KELDAKSP_KEY* key, DWORD cbInput) noexcept {
  const DWORD cbBlock = key->dwKeyBitLength / 8;
  return cbBlock != 0 ? cbInput % cbBlock == 0 : cbInput == 0;
}

SECURITY_STATUS CheckFlags(const KELDAKSP_KEY* key, DWORD cbInput, DWORD dwFlags) noexcept {
  constexpr DWORD kAccepted =
      NCRYPT_NO_PADDING_FLAG | NCRYPT_PAD_PKCS1_FLAG | NCRYPT_PAD_OAEP_FLAG | NCRYPT_SILENT_FLAG;
  if ((dwFlags & ~kAccepted) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((dwFlags & NCRYPT_PAD_OAEP_FLAG) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: OAEP padding scheme is currently not supported.");
  }
  if ((dwFlags & NCRYPT_NO_PADDING_FLAG) != 0 && !IsWholeBlocks(key, cbInput)) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER,
                         "NTE_INVALID_PARAMETER: Data length is not a multiple of the algorithm block length.");
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS Crypt(const Direction& direction, NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                      const BYTE* pbInput, DWORD cbInput, const void* pPaddingInfo, BYTE* pbOutput, DWORD cbOutput,
                      DWORD* pcbResult, DWORD dwFlags) noexcept {
  const EntryArgument arguments[] = {
      {"hProvider    : ", hProvider}, {"hKey         : ", hKey},         {"pbInput      : ", pbInput},
      {"cbInput      : ", cbInput},   {"pPaddingInfo : ", pPaddingInfo}, {"pbOutput     : ", pbOutput},
      {"cbOutput     : ", cbOutput},  {"pcbResult    : ", pcbResult},    {"dwFlags      : ", dwFlags},
  };
  return RunEntry(direction.lines, arguments, [&]() -> SECURITY_STATUS {
    KELDAKSP_PROVIDER* provider;
    KELDAKSP_KEY* key;
    if (!CheckProvider(hProvider, provider) || !CheckKey(hKey, key)) return NTE_INVALID_HANDLE;
    if (pbInput == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbInput is NULL");
    if (pcbResult == nullptr) return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
    SECURITY_STATUS status = CheckFlags(key, cbInput, dwFlags);
    if (status != ERROR_SUCCESS) return status;
    status = CheckFinishedAndLogin(provider, key);
    if (status != ERROR_SUCCESS) return status;

    RSAPair pair;
    pair.BindTo(*provider);
    direction.useKey(pair, *key);
    status = direction.run(pair, pbInput, cbInput, pbOutput, pbOutput != nullptr ? &cbOutput : pcbResult);
    if (status != ERROR_SUCCESS) direction.logFailure(status);
    if (pbOutput == nullptr) {
      g_Log->WriteInt("pbOutput is NULL. Data length: ", static_cast<std::int32_t>(*pcbResult));
    } else {
      *pcbResult = cbOutput;  // whatever the status: the token may have told the length it needs
    }
    return status;
  });
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept {
  return Crypt(kEncryption, hProvider, hKey, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags);
}

SECURITY_STATUS WINAPI KELDAKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept {
  return Crypt(kDecryption, hProvider, hKey, pbInput, cbInput, pPaddingInfo, pbOutput, cbOutput, pcbResult, dwFlags);
}
