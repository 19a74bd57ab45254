#include "token/private_key.h"

CK_RV PrivateKey::Create(KeyUsage usage, const char* label, CK_ULONG) noexcept {
  if (session_ == 0 || object_ != 0 || module_ == nullptr) return CKR_ARGUMENTS_BAD;
  if (!IsCreatableModulus(modulusBits_)) return CKR_ARGUMENTS_BAD;
  if (publicExponent_.empty() || modulus_.empty() || id_.empty() || prime1_.empty() || prime2_.empty() ||
      exponent1_.empty() || exponent2_.empty() || coefficient_.empty()) {
    return CKR_TEMPLATE_INCOMPLETE;
  }
  class_ = CKO_PRIVATE_KEY;
  private_ = CK_TRUE;
  extractable_ = CK_FALSE;
  token_ = label != nullptr ? CK_TRUE : CK_FALSE;
  decrypt_ = usage == KeyUsage::kExchange || usage == KeyUsage::kBoth ? CK_TRUE : CK_FALSE;
  sign_ = usage == KeyUsage::kSignature || usage == KeyUsage::kBoth ? CK_TRUE : CK_FALSE;
  return CKR_CRYPTOKI_NOT_INITIALIZED;
}
