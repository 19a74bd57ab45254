#include "token/public_key.h"

#include <iterator>

bool IsCreatableModulus(CK_ULONG bits) noexcept {
  return bits == 512 || bits == 1024 || bits == 2048 || bits == 4096;
}

CK_RV PublicKey::Create(KeyUsage usage, const char* label, CK_ULONG labelLength) {
  if (session_ == 0 || object_ != 0 || module_ == nullptr) return CKR_ARGUMENTS_BAD;
  if (!IsCreatableModulus(modulusBits_)) return CKR_ARGUMENTS_BAD;
  if (publicExponent_.empty() || modulus_.empty() || id_.empty()) return CKR_TEMPLATE_INCOMPLETE;

  private_ = CK_FALSE;
  token_ = label != nullptr ? CK_TRUE : CK_FALSE;
  class_ = CKO_PUBLIC_KEY;
  extractable_ = CK_TRUE;
  encrypt_ = usage == KeyUsage::kExchange || usage == KeyUsage::kBoth ? CK_TRUE : CK_FALSE;
  modifiable_ = CK_TRUE;
  verify_ = usage == KeyUsage::kSignature || usage == KeyUsage::kBoth ? CK_TRUE : CK_FALSE;

  CK_ATTRIBUTE attributes[] = {
      {CKA_CLASS, &class_, sizeof(class_)},
      {CKA_TOKEN, &token_, sizeof(token_)},
      {CKA_PRIVATE, &private_, sizeof(private_)},
      {CKA_MODIFIABLE, &modifiable_, sizeof(modifiable_)},
      {CKA_EXTRACTABLE, &extractable_, sizeof(extractable_)},
      {CKA_ID, id_.data(), kDeclaredIdSize},  // twice what SetId keeps; kept on purpose
      {CKA_PUBLIC_EXPONENT, publicExponent_.data(), kStoredExponentSize},
      {CKA_MODULUS, modulus_.data(), modulusBits_ / 8},
      {CKA_MODULUS_BITS, &modulusBits_, sizeof(modulusBits_)},
      {CKA_ENCRYPT, &encrypt_, sizeof(encrypt_)},
      {CKA_VERIFY, &verify_, sizeof(verify_)},
      {CKA_LABEL, const_cast<char*>(label), labelLength},
  };
  const CK_ULONG count = static_cast<CK_ULONG>(std::size(attributes)) - (label != nullptr ? 0 : 1);
  return Token().C_CreateObject(session_, attributes, count, &object_);
}
