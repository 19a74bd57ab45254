// KELDAKSPEncrypt and KELDAKSPDecrypt: the token's PKCS#1 v1.5 encryption, whatever padding flag the caller gives. The
// key's usage policy is not asked.
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

enum class Direction { kEncrypt, kDecrypt };

struct Arguments {
  NCRYPT_PROV_HANDLE hProvider;
  NCRYPT_KEY_HANDLE hKey;
  const BYTE* pbInput;
  DWORD cbInput;
  BYTE* pbOutput;
  DWORD cbOutput;
  DWORD* pcbResult;
  DWORD dwFlags;
};

void LogArguments(const EntryFrame& frame, const Arguments& arguments, const void* pPaddingInfo) noexcept {
  frame.Argument("hProvider    : ", arguments.hProvider);
  frame.Argument("hKey         : ", arguments.hKey);
  frame.Argument("pbInput      : ", arguments.pbInput);
  frame.Argument("cbInput      : ", arguments.cbInput);
  frame.Argument("pPaddingInfo : ", pPaddingInfo);
  frame.Argument("pbOutput     : ", arguments.pbOutput);
  frame.Argument("cbOutput     : ", arguments.cbOutput);
  frame.Argument("pcbResult    : ", arguments.pcbResult);
  frame.Argument("dwFlags      : ", arguments.dwFlags);
}

// The flag's only effect: the token pads all the same. A key of fewer than 8 bits has no blocks, so that no length is a
// multiple of them except 0.
bool IsWholeBlocks(const KELDAKSP_KEY* key, DWORD cbInput) noexcept {
  const DWORD cbBlock = key->dwKeyBitLength / 8;
  return cbBlock != 0 ? cbInput % cbBlock == 0 : cbInput == 0;
}

SECURITY_STATUS CheckFlags(const KELDAKSP_KEY* key, const Arguments& arguments) noexcept {
  constexpr DWORD kAccepted =
      NCRYPT_NO_PADDING_FLAG | NCRYPT_PAD_PKCS1_FLAG | NCRYPT_PAD_OAEP_FLAG | NCRYPT_SILENT_FLAG;
  if ((arguments.dwFlags & ~kAccepted) != 0) {
    return g_Log->Refuse(NTE_BAD_FLAGS, "NTE_BAD_FLAGS: The dwFlags parameter contains a value that is not valid.");
  }
  if ((arguments.dwFlags & NCRYPT_PAD_OAEP_FLAG) != 0) {
    return g_Log->Refuse(NTE_NOT_SUPPORTED, "NTE_NOT_SUPPORTED: OAEP padding scheme is currently not supported.");
  }
  if ((arguments.dwFlags & NCRYPT_NO_PADDING_FLAG) != 0 && !IsWholeBlocks(key, arguments.cbInput)) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER,
                         "NTE_INVALID_PARAMETER: Data length is not a multiple of the algorithm block length.");
  }
  return ERROR_SUCCESS;
}

SECURITY_STATUS RunOnToken(Direction direction, const KELDAKSP_PROVIDER* provider, const KELDAKSP_KEY* key,
                           const Arguments& arguments, DWORD* pcbOutput) {
  const auto pair = std::make_unique<RSAPair>();
  pair->SetModule(g_Cryptoki);
  pair->SetSession(provider->hSession);
  SECURITY_STATUS status;
  if (direction == Direction::kEncrypt) {
    pair->SetPublicKeyHandle(key->hPublicKeyObject);
    status = pair->Encrypt(arguments.pbInput, arguments.cbInput, arguments.pbOutput, pcbOutput);
    if (status != ERROR_SUCCESS) g_Log->WriteLine("Encryption failed. Check PKCS logs for detailed information.");
  } else {
    pair->SetPrivateKeyHandle(key->hPrivateKeyObject);
    status = pair->Decrypt(arguments.pbInput, arguments.cbInput, arguments.pbOutput, pcbOutput);
    if (status != ERROR_SUCCESS) {
      g_Log->WriteHex32("Decryption failed. Check PKCS logs for detailed information",
                        static_cast<std::uint32_t>(status));
    }
  }
  return status;
}

SECURITY_STATUS Crypt(Direction direction, Arguments arguments) {
  KELDAKSP_PROVIDER* provider = ProviderFromHandle(arguments.hProvider);
  if (provider == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kProviderIsNull);
  const KELDAKSP_KEY* key = KeyFromHandle(arguments.hKey);
  if (key == nullptr) return g_Log->Refuse(NTE_INVALID_HANDLE, kKeyIsNull);
  if (arguments.pbInput == nullptr) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pbInput is NULL");
  }
  if (arguments.pcbResult == nullptr) {
    return g_Log->Refuse(NTE_INVALID_PARAMETER, "NTE_INVALID_PARAMETER: pcbResult is NULL");
  }
  const SECURITY_STATUS flags = CheckFlags(key, arguments);
  if (flags != ERROR_SUCCESS) return flags;
  if (key->fFinished == 0) {
    return g_Log->Refuse(NTE_BAD_KEY_STATE, "NTE_BAD_KEY_STATE: The specified key is not yet finalized");
  }
  const SECURITY_STATUS login = Login(provider);
  if (login != ERROR_SUCCESS) return g_Log->Refuse(login, "Failed to login. Operation aborted.");

  if (arguments.pbOutput == nullptr) {
    const SECURITY_STATUS status = RunOnToken(direction, provider, key, arguments, arguments.pcbResult);
    g_Log->WriteInt("pbOutput is NULL. Data length: ", static_cast<std::int32_t>(*arguments.pcbResult));
    return status;
  }
  const SECURITY_STATUS status = RunOnToken(direction, provider, key, arguments, &arguments.cbOutput);
  *arguments.pcbResult = arguments.cbOutput;  // whatever the status: the token may have told the length it needs
  return status;
}

}  // namespace

SECURITY_STATUS WINAPI KELDAKSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPEncrypt - Entry", "KELDAKSPEncrypt - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    const Arguments arguments = {hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags};
    LogArguments(frame, arguments, pPaddingInfo);
    ClearProviderCache();
    return Crypt(Direction::kEncrypt, arguments);
  });
}

SECURITY_STATUS WINAPI KELDAKSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                       DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                       DWORD* pcbResult, DWORD dwFlags) noexcept {
  constexpr EntryLines kLines = {"KELDAKSPDecrypt - Entry", "KELDAKSPDecrypt - Exit: "};
  return RunEntry(kLines, [&](EntryFrame& frame) -> SECURITY_STATUS {
    const Arguments arguments = {hProvider, hKey, pbInput, cbInput, pbOutput, cbOutput, pcbResult, dwFlags};
    LogArguments(frame, arguments, pPaddingInfo);
    ClearProviderCache();
    return Crypt(Direction::kDecrypt, arguments);
  });
}
