// An RSA key pair on the token: its lookup and its generation. What it does with its keys is in crypto/operations.
#pragma once

#include "support/windows.h"
#include "support/wipe.h"
#include "token/cryptoki_object.h"

// Bytes of the random CKA_ID that a generated pair gets.
inline constexpr std::size_t kGeneratedIdSize = 20;

class RSAPair : public CryptokiObject {
 public:
  ~RSAPair() override;

  // Puts all fields, session and module included, to what a generation starts from.
  void Reset() noexcept;
  void SetModulusBits(CK_ULONG bits) noexcept { modulusBits_ = bits; }
  void SetToken(bool onToken) noexcept { token_ = onToken ? CK_TRUE : CK_FALSE; }
  void SetPublicKeyHandle(CK_OBJECT_HANDLE handle) noexcept { publicKey_ = handle; }
  void SetPrivateKeyHandle(CK_OBJECT_HANDLE handle) noexcept { privateKey_ = handle; }
  CK_OBJECT_HANDLE PublicKeyHandle() const noexcept { return publicKey_; }
  CK_OBJECT_HANDLE PrivateKeyHandle() const noexcept { return privateKey_; }

  // Generates the pair (PKCS#11 v2.40, 2.1.4) with a random CKA_ID that both keys share. label is zero-terminated or
  // null. The modulus length is not checked: the token judges it. Returns 0, NTE_INVALID_PARAMETER (no session or
  // module) or the translation of the token's answer.
  SECURITY_STATUS Generate(const char* label);

  // Looks for a public and a private key with the label of this name and reads what they can do. Returns NTE_EXISTS
  // when both are there, NTE_NOT_FOUND, NTE_INVALID_PARAMETER (no session, module or name) or NTE_INTERNAL_ERROR.
  SECURITY_STATUS FindByLabel(const wchar_t* name);

 private:
  // Finds one token object of a class by label. Returns 0, NTE_NOT_FOUND or NTE_INTERNAL_ERROR.
  SECURITY_STATUS FindOne(CK_OBJECT_CLASS objectClass, char* label, CK_ULONG labelLength, CK_OBJECT_HANDLE& found);
  SECURITY_STATUS ReadPublicKey();
  SECURITY_STATUS ReadPrivateKey();

  CK_OBJECT_HANDLE publicKey_ = 0;
  CK_OBJECT_HANDLE privateKey_ = 0;
  unsigned char id_[kGeneratedIdSize] = {};
  CK_KEY_TYPE keyType_ = CKK_RSA;
  Mechanism mechanism_;
  WipedBytes owned_;
  CK_BBOOL derive_ = CK_FALSE;
  CK_BBOOL local_ = CK_FALSE;
  WipedBytes modulus_;
  WipedBytes publicExponent_;
  CK_ULONG modulusBits_ = 0;
  CK_BBOOL encrypt_ = CK_FALSE;
  CK_BBOOL verify_ = CK_FALSE;
  CK_BBOOL verifyRecover_ = CK_FALSE;
  CK_BBOOL wrap_ = CK_FALSE;
  CK_BBOOL decrypt_ = CK_FALSE;
  CK_BBOOL sign_ = CK_FALSE;
  CK_BBOOL signRecover_ = CK_FALSE;
  CK_BBOOL unwrap_ = CK_FALSE;
  CK_ULONG trailing_[2] = {};
};
