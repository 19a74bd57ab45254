// An RSA key blob as an import brings it. Pure logic.
#pragma once

#include <cstddef>

#include "keys/public_key_blob.h"
#include "support/status_codes.h"
#include "support/wipe.h"

class PrivateKeyBlob {
 public:
  PrivateKeyBlob() noexcept = default;
  virtual ~PrivateKeyBlob() = default;

  // Takes the header and then each part by the header's lengths, and asks nothing about the data's own length: bytes
  // that the data lacks read as zero. Returns 0, kInvalidParameter for null data, kNoMemory for a part that is too
  // large.
  status::Code Parse(const unsigned char* data, std::size_t length) noexcept;

  const RsaBlobHeader& Header() const noexcept { return header_; }
  const WipedBytes& PublicExponent() const noexcept { return publicExponent_; }
  const WipedBytes& Modulus() const noexcept { return modulus_; }
  const WipedBytes& Prime1() const noexcept { return prime1_; }
  const WipedBytes& Prime2() const noexcept { return prime2_; }
  const WipedBytes& Exponent1() const noexcept { return exponent1_; }
  const WipedBytes& Exponent2() const noexcept { return exponent2_; }
  const WipedBytes& Coefficient() const noexcept { return coefficient_; }
  const WipedBytes& PrivateExponent() const noexcept { return privateExponent_; }

  // Whether the parts of a full private blob behind the primes are read as well. An import never turns this on.
  void SetFull(bool full) noexcept { full_ = full; }

 private:
  RsaBlobHeader header_;
  WipedBytes publicExponent_;
  WipedBytes modulus_;
  WipedBytes prime1_;
  WipedBytes prime2_;
  WipedBytes exponent1_;
  WipedBytes exponent2_;
  WipedBytes coefficient_;
  WipedBytes privateExponent_;
  bool full_ = false;
};
