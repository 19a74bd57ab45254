#include "token/rsa_pair.h"

#include <cstring>
#include <iterator>
#include <memory>

#include "support/text.h"
#include "support/ck_rv_status.h"
#include "token/public_key_values.h"

RSAPair::~RSAPair() {
  SecureWipe(id_, sizeof(id_));
}

void RSAPair::Reset() noexcept {
  session_ = 0;
  object_ = 0;
  module_ = nullptr;
  class_ = 6;
  modifiable_ = CK_TRUE;
  private_ = CK_TRUE;
  token_ = CK_TRUE;
  extractable_ = CK_FALSE;
  sensitive_ = CK_FALSE;
  keyType_ = CKK_RSA;
  mechanism_.type = CKM_RSA_PKCS_KEY_PAIR_GEN;
  mechanism_.parameter = nullptr;
  mechanism_.parameterLength = 0;
  derive_ = CK_FALSE;
  local_ = CK_TRUE;
  owned_.Reset();
  modulus_.Reset();
  publicExponent_.Reset();
  modulusBits_ = 0;
  encrypt_ = CK_TRUE;
  verify_ = CK_TRUE;
  verifyRecover_ = CK_FALSE;
  wrap_ = CK_FALSE;
  decrypt_ = CK_TRUE;
  sign_ = CK_TRUE;
  signRecover_ = CK_FALSE;
  unwrap_ = CK_FALSE;
  trailing_[0] = 1;
}

SECURITY_STATUS RSAPair::Generate(const char* label) {
  if (session_ == 0 || module_ == nullptr) return NTE_INVALID_PARAMETER;
  const CK_ULONG labelLength = label != nullptr ? static_cast<CK_ULONG>(std::strlen(label)) : 0;
  const CK_ULONG withoutLabel = label != nullptr ? 0 : 1;

  std::memset(id_, 0, sizeof(id_));
  const CK_RV randomResult = Token().C_GenerateRandom(session_, id_, sizeof(id_));
  if (randomResult != CKR_OK) return StatusFromCkRv(randomResult);

  CK_MECHANISM mechanism = {mechanism_.type, mechanism_.parameter, mechanism_.parameterLength};
  CK_OBJECT_CLASS publicClass = CKO_PUBLIC_KEY;
  CK_OBJECT_CLASS privateClass = CKO_PRIVATE_KEY;
  unsigned char exponent[] = {0x01, 0x00, 0x01};  // 65537
  CK_ATTRIBUTE publicTemplate[] = {
      {CKA_CLASS, &publicClass, sizeof(publicClass)},
      {CKA_MODIFIABLE, &modifiable_, sizeof(modifiable_)},
      {CKA_KEY_TYPE, &keyType_, sizeof(keyType_)},
      {CKA_DERIVE, &derive_, sizeof(derive_)},
      {CKA_LOCAL, &local_, sizeof(local_)},
      {CKA_TOKEN, &token_, sizeof(token_)},
      {CKA_MODULUS, nullptr, modulusBits_ / 8},
      {CKA_MODULUS_BITS, &modulusBits_, sizeof(modulusBits_)},
      {CKA_PUBLIC_EXPONENT, exponent, sizeof(exponent)},
      {CKA_ENCRYPT, &encrypt_, sizeof(encrypt_)},
      {CKA_VERIFY, &verify_, sizeof(verify_)},
      {CKA_VERIFY_RECOVER, &verifyRecover_, sizeof(verifyRecover_)},
      {CKA_WRAP, &wrap_, sizeof(wrap_)},
      {CKA_ID, id_, sizeof(id_)},
      {CKA_LABEL, const_cast<char*>(label), labelLength},
  };
  CK_ATTRIBUTE privateTemplate[] = {
      {CKA_CLASS, &privateClass, sizeof(privateClass)},
      {CKA_MODIFIABLE, &modifiable_, sizeof(modifiable_)},
      {CKA_PRIVATE, &private_, sizeof(private_)},
      {CKA_TOKEN, &token_, sizeof(token_)},
      {CKA_SENSITIVE, &sensitive_, sizeof(sensitive_)},
      {CKA_DERIVE, &derive_, sizeof(derive_)},
      {CKA_LOCAL, &local_, sizeof(local_)},
      {CKA_DECRYPT, &decrypt_, sizeof(decrypt_)},
      {CKA_SIGN, &sign_, sizeof(sign_)},
      {CKA_SIGN_RECOVER, &signRecover_, sizeof(signRecover_)},
      {CKA_UNWRAP, &unwrap_, sizeof(unwrap_)},
      {CKA_ID, id_, sizeof(id_)},
      {CKA_LABEL, const_cast<char*>(label), labelLength},
  };
  if (publicExponent_.empty()) {
    // A default that the templates do not use.
    publicExponent_ = WipedBytes(4);
    publicExponent_[1] = 0x01;
  }
  return StatusFromCkRv(Token().C_GenerateKeyPair(
      session_, &mechanism, publicTemplate, static_cast<CK_ULONG>(std::size(publicTemplate)) - withoutLabel,
      privateTemplate, static_cast<CK_ULONG>(std::size(privateTemplate)) - withoutLabel, &publicKey_, &privateKey_));
}

SECURITY_STATUS RSAPair::FindByLabel(const wchar_t* name) {
  if (session_ == 0 || module_ == nullptr || name == nullptr) return NTE_INVALID_PARAMETER;
  const std::size_t cbLabel = WideLength(name) + 1;
  WipedArray<char> label(cbLabel);
  // A name that has no narrow form gives an empty label.
  const std::size_t written = NarrowText(label.data(), cbLabel, name);
  const CK_ULONG labelLength = written != 0 ? static_cast<CK_ULONG>(written - 1) : 0;

  SECURITY_STATUS status = FindOne(CKO_PUBLIC_KEY, label.data(), labelLength, publicKey_);
  if (status == ERROR_SUCCESS) status = FindOne(CKO_PRIVATE_KEY, label.data(), labelLength, privateKey_);
  if (status == ERROR_SUCCESS) status = ReadPublicKey();
  if (status == ERROR_SUCCESS) status = ReadPrivateKey();
  return status == ERROR_SUCCESS ? NTE_EXISTS : status;
}

SECURITY_STATUS RSAPair::FindOne(CK_OBJECT_CLASS objectClass, char* label, CK_ULONG labelLength,
                                 CK_OBJECT_HANDLE& found) {
  CK_ATTRIBUTE attributes[] = {
      {CKA_CLASS, &objectClass, sizeof(objectClass)},
      {CKA_LABEL, label, labelLength},
  };
  CK_OBJECT_HANDLE object = 0;
  CK_ULONG count = 0;
  if (Token().C_FindObjectsInit(session_, attributes, static_cast<CK_ULONG>(std::size(attributes))) != CKR_OK ||
      Token().C_FindObjects(session_, &object, 1, &count) != CKR_OK || Token().C_FindObjectsFinal(session_) != CKR_OK) {
    return NTE_INTERNAL_ERROR;
  }
  if (count == 0) return NTE_NOT_FOUND;
  found = object;
  return ERROR_SUCCESS;
}

SECURITY_STATUS RSAPair::ReadPublicKey() {
  PublicKeyValues values;
  const SECURITY_STATUS status = ReadPublicKeyValues(Token(), session_, publicKey_, values);
  if (status != ERROR_SUCCESS) return status;
  modulus_ = std::move(values.modulus);
  publicExponent_ = std::move(values.publicExponent);
  modulusBits_ = values.modulusBits;
  return ERROR_SUCCESS;
}

SECURITY_STATUS RSAPair::ReadPrivateKey() {
  CK_ATTRIBUTE attributes[] = {
      {CKA_SIGN, &sign_, sizeof(sign_)},
      {CKA_DECRYPT, &decrypt_, sizeof(decrypt_)},
  };
  const CK_RV result =
      Token().C_GetAttributeValue(session_, privateKey_, attributes, static_cast<CK_ULONG>(std::size(attributes)));
  return result == CKR_OK ? ERROR_SUCCESS : NTE_INTERNAL_ERROR;
}
