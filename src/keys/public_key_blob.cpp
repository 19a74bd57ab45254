#include "keys/public_key_blob.h"

#include <algorithm>
#include <cstring>
#include <utility>

void PublicKeyBlob::Set(WipedBytes modulus, WipedBytes publicExponent) noexcept {
  modulus_ = std::move(modulus);
  publicExponent_ = std::move(publicExponent);
  bitLength_ = static_cast<std::uint32_t>(modulus_.size() * 8);
}

std::size_t PublicKeyBlob::Size() const noexcept {
  return kRsaBlobHeaderSize + publicExponent_.size() + modulus_.size();
}

void PublicKeyBlob::Write(unsigned char* buffer) const noexcept {
  if (modulus_.empty() || publicExponent_.empty()) return;
  RsaBlobHeader header;
  header.magic = magic_;
  header.bitLength = bitLength_;
  header.cbPublicExp = static_cast<std::uint32_t>(publicExponent_.size());
  header.cbModulus = static_cast<std::uint32_t>(modulus_.size());
  std::memcpy(buffer, &header, kRsaBlobHeaderSize);
  buffer += kRsaBlobHeaderSize;
  std::reverse_copy(publicExponent_.data(), publicExponent_.data() + publicExponent_.size(), buffer);
  buffer += publicExponent_.size();
  std::copy_n(modulus_.data(), modulus_.size(), buffer);
}
