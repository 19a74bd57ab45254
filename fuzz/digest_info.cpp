// The wrapping of what a caller gives to be signed.
#include "crypto/operations/digest_info.h"

#include "target.h"

FUZZ_TARGET(digest_info) {
  fuzz::Parts parts(input);
  const std::size_t cbHash = parts.Number() % (2 * kMaxSignInput);
  DigestInfoPrefix prefix;
  if (!FindDigestInfoPrefix(cbHash, prefix)) {
    FUZZ_CHECK(prefix.length == 0);
    return;
  }
  FUZZ_CHECK(cbHash >= kMinSignInput && cbHash <= kMaxSignInput);
  if (prefix.length == 0) return;
  // SEQUENCE { SEQUENCE { OID, NULL }, OCTET STRING } whose lengths fit the hash.
  FUZZ_CHECK(prefix.bytes[0] == 0x30 && prefix.bytes[1] == prefix.length - 2 + cbHash);
  FUZZ_CHECK(prefix.bytes[prefix.length - 2] == 0x04 && prefix.bytes[prefix.length - 1] == cbHash);
  // What was wrapped goes unchanged when it is given once more.
  DigestInfoPrefix again;
  FUZZ_CHECK(FindDigestInfoPrefix(prefix.length + cbHash, again) && again.length == 0);
}
