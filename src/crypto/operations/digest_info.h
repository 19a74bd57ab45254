// The DigestInfo wrapping of hashes (RFC 8017, 9.2 note 1). Pure logic.
#pragma once

#include <cstddef>

inline constexpr std::size_t kMinSignInput = 16;
inline constexpr std::size_t kMaxSignInput = 83;

// The DER prefix that goes before an input, and its length in bytes; 0 when the input is signed unchanged.
struct DigestInfoPrefix {
  const unsigned char* bytes = nullptr;
  std::size_t length = 0;
};

// Decides by an input's length how it is signed: a bare MD5, SHA-1, SHA-256 or SHA-512 hash gets its prefix; a complete
// DigestInfo of these, or the joined MD5 and SHA-1 hashes of TLS 1.0 (RFC 2246, 7.4.8), goes unchanged. False for every
// other length; SHA-224 and SHA-384 hashes are among the refused ones, on purpose.
bool FindDigestInfoPrefix(std::size_t cbHash, DigestInfoPrefix& prefix) noexcept;
