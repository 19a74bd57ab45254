// An RSA public key as a CNG blob (BCRYPT_RSAKEY_BLOB and big-endian numbers). Pure logic.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/wipe.h"

inline constexpr std::uint32_t kRsaPublicMagic = 0x31415352;   // "RSA1", BCRYPT_RSAPUBLIC_MAGIC
inline constexpr std::uint32_t kRsaPrivateMagic = 0x32415352;  // "RSA2", BCRYPT_RSAPRIVATE_MAGIC

// The header: six 32-bit little-endian numbers.
struct RsaBlobHeader {
  std::uint32_t magic = 0;
  std::uint32_t bitLength = 0;
  std::uint32_t cbPublicExp = 0;
  std::uint32_t cbModulus = 0;
  std::uint32_t cbPrime1 = 0;
  std::uint32_t cbPrime2 = 0;
};
inline constexpr std::size_t kRsaBlobHeaderSize = 24;
static_assert(sizeof(RsaBlobHeader) == kRsaBlobHeaderSize);

class PublicKeyBlob {
 public:
  PublicKeyBlob() noexcept = default;
  virtual ~PublicKeyBlob() = default;

  // Takes over a key as the token gives it. An earlier one is wiped.
  void Set(WipedBytes modulus, WipedBytes publicExponent) noexcept;

  // Bytes that Write writes: header, exponent and modulus; the header alone for a blob without a key.
  std::size_t Size() const noexcept;

  // Writes the blob into buffer, which has room for Size() bytes. Nothing is written unless modulus and exponent are
  // present. The exponent goes out in reverse byte order, the modulus as it is; kept on purpose.
  void Write(unsigned char* buffer) const noexcept;

 private:
  WipedBytes modulus_;
  WipedBytes publicExponent_;
  std::uint32_t magic_ = kRsaPublicMagic;
  std::uint32_t bitLength_ = 0;  // 8 times the modulus' length in bytes
};
