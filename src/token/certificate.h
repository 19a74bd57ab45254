// An X.509 certificate beside a key pair on the token.
#pragma once

#include "support/windows.h"
#include "support/wipe.h"
#include "token/cryptoki_object.h"

class Certificate : public CryptokiObject {
 public:
  ~Certificate() override = default;

  void SetPublicKeyHandle(CK_OBJECT_HANDLE handle) noexcept { publicKey_ = handle; }
  void SetPrivateKeyHandle(CK_OBJECT_HANDLE handle) noexcept {
    privateKey_ = handle;
    flags_[kHasPrivateKey] = 1;
  }

  // Writes the certificate (DER, length bytes) to the token with the key's CKA_ID. Returns 0, NTE_INVALID_PARAMETER (no
  // session or module), NTE_FAIL (no certificate, or refused by the token) or NTE_INTERNAL_ERROR (key unreadable).
  SECURITY_STATUS CreateFromEncoded(const unsigned char* bytes, DWORD length);

  // Looks for a certificate with the key's CKA_ID. Returns NTE_EXISTS or NTE_NOT_FOUND, both answers and no failures;
  // NTE_INVALID_PARAMETER (session, module or one of the key handles is missing) or NTE_INTERNAL_ERROR.
  SECURITY_STATUS FindForKey();

 private:
  static constexpr std::size_t kHasPrivateKey = 1;

  CK_OBJECT_HANDLE KeyHandle() const noexcept { return flags_[kHasPrivateKey] == 1 ? privateKey_ : publicKey_; }
  // Reads the key's CKA_ID into id_. Returns the result of the length query, and of the second read in valueResult.
  CK_RV ReadKeyId(CK_RV& valueResult);
  // Keeps the label; returns it narrow, zero-padded to the size of the wide one.
  WipedArray<char> TakeLabel(PCCERT_CONTEXT context);

  unsigned char flags_[4] = {};
  [[maybe_unused]] CK_ULONG reserved_ = 0;
  WipedBytes serialNumber_;
  WipedBytes encoded_;
  WipedBytes third_;
  WipedArray<wchar_t> issuer_;
  WipedArray<wchar_t> subject_;
  WipedArray<wchar_t> label_;
  CK_OBJECT_HANDLE publicKey_ = 0;
  CK_OBJECT_HANDLE privateKey_ = 0;
  WipedBytes id_;
};
