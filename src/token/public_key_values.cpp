#include "token/public_key_values.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

SECURITY_STATUS ReadPublicKeyValues(const CK_FUNCTION_LIST& token, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                                    PublicKeyValues& values) {
  CK_ATTRIBUTE attributes[] = {
      {CKA_MODULUS, nullptr, 0},
      {CKA_MODULUS_BITS, nullptr, 0},
      {CKA_PUBLIC_EXPONENT, nullptr, 0},
  };
  constexpr CK_ULONG kCount = static_cast<CK_ULONG>(std::size(attributes));
  if (token.C_GetAttributeValue(session, object, attributes, kCount) != CKR_OK) return NTE_INTERNAL_ERROR;
  PublicKeyValues read;
  read.modulus = WipedBytes::Try(attributes[0].ulValueLen);
  WipedBytes bits = WipedBytes::Try(attributes[1].ulValueLen);
  read.publicExponent = WipedBytes::Try(attributes[2].ulValueLen);
  // Values larger than any that there is room for count as unreadable, like those that the token does not have.
  if (read.modulus.empty() || bits.empty() || read.publicExponent.empty()) return NTE_INTERNAL_ERROR;
  attributes[0].pValue = read.modulus.data();
  attributes[1].pValue = bits.data();
  attributes[2].pValue = read.publicExponent.data();
  if (token.C_GetAttributeValue(session, object, attributes, kCount) != CKR_OK) return NTE_INTERNAL_ERROR;
  std::memcpy(&read.modulusBits, bits.data(), std::min(bits.size(), sizeof(read.modulusBits)));
  values = std::move(read);
  return ERROR_SUCCESS;
}
