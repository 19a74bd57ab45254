#include "crypto/operations/digest_info.h"

namespace {

constexpr unsigned char kMd5Prefix[] = {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48,
                                        0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10};
constexpr unsigned char kSha1Prefix[] = {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e,
                                         0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14};
constexpr unsigned char kSha256Prefix[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                           0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
constexpr unsigned char kSha512Prefix[] = {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                           0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04, 0x40};

}  // namespace

bool FindDigestInfoPrefix(std::size_t cbHash, DigestInfoPrefix& prefix) noexcept {
  switch (cbHash) {
    case 16:
      prefix = {kMd5Prefix, sizeof(kMd5Prefix)};
      return true;
    case 20:
      prefix = {kSha1Prefix, sizeof(kSha1Prefix)};
      return true;
    case 32:
      prefix = {kSha256Prefix, sizeof(kSha256Prefix)};
      return true;
    case 64:
      prefix = {kSha512Prefix, sizeof(kSha512Prefix)};
      return true;
    case 34:  // complete DigestInfo of MD5
    case 35:  // of SHA-1
    case 36:  // MD5 and SHA-1 joined
    case 51:  // complete DigestInfo of SHA-256
    case 83:  // of SHA-512
      prefix = {};
      return true;
    default:
      return false;
  }
}
