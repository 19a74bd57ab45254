// Setters that public and private keys share. A null source or a length of 0 leaves a field unchanged.
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

#include "support/wipe.h"
#include "support/pkcs11.h"

// Bytes of a CKA_ID that a key's SetId keeps, and bytes that the create templates declare for it.
inline constexpr std::size_t kStoredIdSize = 64;
inline constexpr std::size_t kDeclaredIdSize = 128;
// Bytes of a public exponent that a key keeps.
inline constexpr std::size_t kStoredExponentSize = 4;

// Bytes of the longest part of a key that a token takes (4096 bits). A setter that is told of more keeps this much:
// such a key is refused by its length, and what it is made of goes nowhere.
inline constexpr std::size_t kLargestComponent = 512;

inline void AssignBytes(WipedBytes& field, const unsigned char* bytes, CK_ULONG length) {
  if (bytes != nullptr && length != 0) field.Assign(bytes, std::min<std::size_t>(length, kLargestComponent));
}

inline void AssignModulus(WipedBytes& field, CK_ULONG& bits, const unsigned char* bytes, CK_ULONG length) {
  if (bytes == nullptr || length == 0) return;
  AssignBytes(field, bytes, length);
  bits = length * 8;
}

// Keeps exactly 4 bytes whatever the length; bytes has at least that many.
inline void AssignExponent(WipedBytes& field, const unsigned char* bytes, CK_ULONG length) {
  if (bytes != nullptr && length != 0) field.Assign(bytes, kStoredExponentSize);
}

// Keeps exactly 64 bytes whatever the length; bytes has at least that many. The field is as long as the templates
// declare, its last bytes zero.
inline void AssignId(WipedBytes& field, const unsigned char* bytes, CK_ULONG length) {
  if (bytes == nullptr || length == 0) return;
  WipedBytes id(kDeclaredIdSize);
  std::copy_n(bytes, kStoredIdSize, id.data());
  field = std::move(id);
}

// Both or nothing.
inline void AssignBoth(WipedBytes& field1, const unsigned char* bytes1, CK_ULONG length1, WipedBytes& field2,
                       const unsigned char* bytes2, CK_ULONG length2) {
  if (bytes1 == nullptr || length1 == 0 || bytes2 == nullptr || length2 == 0) return;
  AssignBytes(field1, bytes1, length1);
  AssignBytes(field2, bytes2, length2);
}
