// A public key as the token gives it, written as a blob and read back by the import's parser.
#include "keys/public_key_blob.h"

#include <algorithm>
#include <cstring>

#include "keys/private_key_blob.h"
#include "target.h"

namespace {

WipedBytes Part(const std::vector<std::uint8_t>& bytes) {
  WipedBytes part(bytes.size());
  std::copy(bytes.begin(), bytes.end(), part.data());
  return part;
}

}  // namespace

FUZZ_TARGET(public_key_blob) {
  fuzz::Parts parts(input);
  const bool earlier = (parts.Byte() & 1) != 0;
  std::vector<std::uint8_t> exponent = parts.Bytes(parts.Byte());
  const std::vector<std::uint8_t> modulus = parts.Rest();

  PublicKeyBlob blob;
  if (earlier) blob.Set(WipedBytes(7), WipedBytes(300));
  blob.Set(Part(modulus), Part(exponent));
  FUZZ_CHECK(blob.Size() == kRsaBlobHeaderSize + exponent.size() + modulus.size());
  std::vector<std::uint8_t> written(blob.Size());
  blob.Write(written.data());

  PrivateKeyBlob parsed;
  FUZZ_CHECK(parsed.Parse(written.data(), written.size()) == status::kSuccess);
  FUZZ_CHECK(parsed.Header().magic == kRsaPublicMagic);
  FUZZ_CHECK(parsed.Header().bitLength == modulus.size() * 8);
  FUZZ_CHECK(parsed.Header().cbPrime1 == 0 && parsed.Header().cbPrime2 == 0);
  FUZZ_CHECK(parsed.PublicExponent().size() == exponent.size());
  FUZZ_CHECK(parsed.Modulus().size() == modulus.size());
  std::reverse(exponent.begin(), exponent.end());
  FUZZ_CHECK(std::equal(exponent.begin(), exponent.end(), parsed.PublicExponent().data()));
  FUZZ_CHECK(std::equal(modulus.begin(), modulus.end(), parsed.Modulus().data()));
}
