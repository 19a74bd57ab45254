// A public RSA key to be written to the token.
#pragma once

#include "token/cryptoki_object.h"
#include "token/key_fields.h"

// What a key is created for.
enum class KeyUsage : CK_ULONG { kExchange = 0, kSignature = 1, kBoth = 2 };

// A null source, and a length of 0 where it counts, leave a field unchanged.
class PublicKey : public CryptokiObject {
 public:
  ~PublicKey() override = default;

  void SetModulus(const unsigned char* bytes, CK_ULONG length) { AssignModulus(modulus_, modulusBits_, bytes, length); }
  // Keeps exactly 4 bytes, whatever the length; bytes has at least that many.
  void SetPublicExponent(const unsigned char* bytes, CK_ULONG length) {
    AssignExponent(publicExponent_, bytes, length);
  }
  // Keeps exactly 64 bytes, whatever the length; bytes has at least that many.
  void SetId(const unsigned char* bytes, CK_ULONG length) { AssignId(id_, bytes, length); }

  // Writes the object (PKCS#11 v2.40, 4.8 and 2.1.2). label has labelLength bytes, or is null for a session object.
  // Returns CKR_ARGUMENTS_BAD (no session or module, an object already there, or a modulus length that is not 512,
  // 1024, 2048 or 4096 bits), CKR_TEMPLATE_INCOMPLETE, or what the token answers.
  CK_RV Create(KeyUsage usage, const char* label, CK_ULONG labelLength);

 private:
  CK_ULONG modulusBits_ = 0;
  Mechanism mechanism_;
  CryptokiObject inner_;
  CK_BBOOL encrypt_ = CK_FALSE;
  CK_BBOOL verify_ = CK_FALSE;
  WipedBytes id_;  // kDeclaredIdSize bytes, of which the last are zero
  WipedBytes publicExponent_;
  WipedBytes modulus_;
  [[maybe_unused]] CK_ULONG counters_[2] = {};
};

// Whether the token takes a modulus of this many bits in a create operation.
bool IsCreatableModulus(CK_ULONG bits) noexcept;
