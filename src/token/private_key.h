// A private RSA key of an imported blob.
#pragma once

#include "token/public_key.h"

// A null source, and a length of 0 where it counts, leave a field unchanged.
class PrivateKey : public CryptokiObject {
 public:
  ~PrivateKey() override = default;

  void SetModulus(const unsigned char* bytes, CK_ULONG length) { AssignModulus(modulus_, modulusBits_, bytes, length); }
  // Keeps exactly 4 bytes, whatever the length; bytes has at least that many.
  void SetPublicExponent(const unsigned char* bytes, CK_ULONG length) {
    AssignExponent(publicExponent_, bytes, length);
  }
  // Keeps exactly 64 bytes, whatever the length; bytes has at least that many.
  void SetId(const unsigned char* bytes, CK_ULONG length) { AssignId(id_, bytes, length); }
  void SetPrivateExponent(const unsigned char* bytes, CK_ULONG length) { AssignBytes(privateExponent_, bytes, length); }
  // Both or nothing.
  void SetPrimes(const unsigned char* prime1, CK_ULONG length1, const unsigned char* prime2, CK_ULONG length2) {
    AssignBoth(prime1_, prime1, length1, prime2_, prime2, length2);
  }
  // Both or nothing.
  void SetExponents(const unsigned char* exponent1, CK_ULONG length1, const unsigned char* exponent2,
                    CK_ULONG length2) {
    AssignBoth(exponent1_, exponent1, length1, exponent2_, exponent2, length2);
  }
  void SetCoefficient(const unsigned char* bytes, CK_ULONG length) { AssignBytes(coefficient_, bytes, length); }

  // Never writes an object: this provider does not take private keys, and an import of one has to be seen to fail.
  // Returns CKR_ARGUMENTS_BAD, CKR_TEMPLATE_INCOMPLETE or, with everything in place, CKR_CRYPTOKI_NOT_INITIALIZED.
  CK_RV Create(KeyUsage usage, const char* label, CK_ULONG labelLength) noexcept;

 private:
  CK_ULONG modulusBits_ = 0;
  CK_BBOOL decrypt_ = CK_FALSE;
  CK_BBOOL sign_ = CK_FALSE;
  Mechanism mechanism_;
  CryptokiObject inner_;
  WipedBytes id_;  // kDeclaredIdSize bytes, of which the last are zero
  WipedBytes publicExponent_;
  WipedBytes privateExponent_;
  WipedBytes modulus_;
  [[maybe_unused]] CK_ULONG reserved_[2] = {};
  WipedBytes prime1_;
  WipedBytes prime2_;
  WipedBytes exponent1_;
  WipedBytes exponent2_;
  WipedBytes coefficient_;
};
