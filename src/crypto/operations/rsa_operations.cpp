#include "crypto/operations/rsa_operations.h"

#include <cstring>

#include "crypto/operations/digest_info.h"
#include "support/wipe.h"

namespace {

CK_MECHANISM RsaPkcs() noexcept {
  return {CKM_RSA_PKCS, nullptr, 0};
}

// PKCS#11 takes its inputs through pointers to non-const and does not write to them.
unsigned char* Input(const unsigned char* bytes) noexcept {
  return const_cast<unsigned char*>(bytes);
}

bool CanUse(const RSAPair& pair, CK_OBJECT_HANDLE key) noexcept {
  return pair.GetSessionHandle() != 0 && key != 0 && pair.GetModule() != nullptr;
}

const CK_FUNCTION_LIST& Token(const RSAPair& pair) noexcept {
  return pair.GetModule()->Functions();
}

SECURITY_STATUS StatusOfResult(CK_RV result) noexcept {
  if (result == CKR_OK) return ERROR_SUCCESS;
  return result == CKR_BUFFER_TOO_SMALL ? NTE_BUFFER_TOO_SMALL : NTE_INTERNAL_ERROR;
}

// Decryption tells some failures of its start apart; encryption does not. The difference is intended.
SECURITY_STATUS StatusOfDecryptInit(CK_RV result) noexcept {
  switch (result) {
    case CKR_OK:
      return ERROR_SUCCESS;
    case CKR_KEY_FUNCTION_NOT_PERMITTED:
      return NTE_PERM;
    case CKR_OBJECT_HANDLE_INVALID:
    case CKR_SESSION_HANDLE_INVALID:
      return NTE_INVALID_HANDLE;
    default:
      return NTE_INTERNAL_ERROR;
  }
}

}  // namespace

SECURITY_STATUS Sign(const RSAPair& pair, const unsigned char* pbHash, DWORD cbHash, unsigned char* pbSignature,
                     DWORD* pcbSignature) {
  if (!CanUse(pair, pair.PrivateKeyHandle())) return NTE_INVALID_PARAMETER;
  if (pbHash == nullptr || pcbSignature == nullptr) return NTE_INVALID_PARAMETER;
  if (cbHash < kMinSignInput || cbHash > kMaxSignInput) return NTE_INVALID_PARAMETER;
  DigestInfoPrefix prefix;
  if (!FindDigestInfoPrefix(cbHash, prefix)) return NTE_INVALID_PARAMETER;

  WipedBytes buffer(prefix.length + cbHash);
  if (prefix.length != 0) std::memcpy(buffer.data(), prefix.bytes, prefix.length);
  std::memcpy(buffer.data() + prefix.length, pbHash, cbHash);
  // Public material only; the buffer is never released. Kept on purpose (docs/kept-oddities.md).
  const auto cbData = static_cast<CK_ULONG>(buffer.size());
  unsigned char* data = buffer.Release();

  CK_MECHANISM mechanism = RsaPkcs();
  const CK_RV init = Token(pair).C_SignInit(pair.GetSessionHandle(), &mechanism, pair.PrivateKeyHandle());
  if (init != CKR_OK) return NTE_INTERNAL_ERROR;  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
  return StatusOfResult(Token(pair).C_Sign(pair.GetSessionHandle(), data, cbData, pbSignature, pcbSignature));
}

SECURITY_STATUS Verify(const RSAPair& pair, const unsigned char* pbHash, DWORD cbHash, const unsigned char* pbSignature,
                       DWORD cbSignature) {
  if (!CanUse(pair, pair.PublicKeyHandle())) return NTE_INVALID_PARAMETER;
  if (pbHash == nullptr || pbSignature == nullptr) return NTE_INVALID_PARAMETER;
  CK_MECHANISM mechanism = RsaPkcs();
  if (Token(pair).C_VerifyInit(pair.GetSessionHandle(), &mechanism, pair.PublicKeyHandle()) != CKR_OK) {
    return NTE_INTERNAL_ERROR;
  }
  const CK_RV result =
      Token(pair).C_Verify(pair.GetSessionHandle(), Input(pbHash), cbHash, Input(pbSignature), cbSignature);
  return result == CKR_OK ? ERROR_SUCCESS : NTE_FAIL;
}

SECURITY_STATUS Encrypt(const RSAPair& pair, const unsigned char* pbInput, DWORD cbInput, unsigned char* pbOutput,
                        DWORD* pcbOutput) {
  if (!CanUse(pair, pair.PublicKeyHandle())) return NTE_INVALID_PARAMETER;
  if (pbInput == nullptr || pcbOutput == nullptr) return NTE_INVALID_PARAMETER;
  CK_MECHANISM mechanism = RsaPkcs();
  if (Token(pair).C_EncryptInit(pair.GetSessionHandle(), &mechanism, pair.PublicKeyHandle()) != CKR_OK) {
    return NTE_INTERNAL_ERROR;
  }
  return StatusOfResult(Token(pair).C_Encrypt(pair.GetSessionHandle(), Input(pbInput), cbInput, pbOutput, pcbOutput));
}

SECURITY_STATUS Decrypt(const RSAPair& pair, const unsigned char* pbInput, DWORD cbInput, unsigned char* pbOutput,
                        DWORD* pcbOutput) {
  if (!CanUse(pair, pair.PrivateKeyHandle())) return NTE_INVALID_PARAMETER;
  if (pbInput == nullptr || pcbOutput == nullptr) return NTE_INVALID_PARAMETER;
  CK_MECHANISM mechanism = RsaPkcs();
  const SECURITY_STATUS init =
      StatusOfDecryptInit(Token(pair).C_DecryptInit(pair.GetSessionHandle(), &mechanism, pair.PrivateKeyHandle()));
  if (init != ERROR_SUCCESS) return init;
  return StatusOfResult(Token(pair).C_Decrypt(pair.GetSessionHandle(), Input(pbInput), cbInput, pbOutput, pcbOutput));
}
