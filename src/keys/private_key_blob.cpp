#include "keys/private_key_blob.h"

#include <algorithm>
#include <cstring>

#include "support/limits.h"

namespace {

// Reads a caller's bytes in order; behind their end everything is zero.
class Reader {
 public:
  Reader(const unsigned char* data, std::size_t length) noexcept : data_(data), left_(length) {}

  void Read(void* destination, std::size_t size) noexcept {
    const std::size_t available = std::min(size, left_);
    if (size != 0) std::memset(destination, 0, size);
    if (available != 0) std::memcpy(destination, data_, available);
    data_ += available;
    left_ -= available;
  }

  bool ReadPart(WipedBytes& part, std::size_t size) noexcept {
    part = size <= kLargestBlock ? WipedBytes::Try(size) : WipedBytes();
    if (part.empty()) return false;
    Read(part.data(), size);
    return true;
  }

 private:
  const unsigned char* data_;
  std::size_t left_;
};

}  // namespace

status::Code PrivateKeyBlob::Parse(const unsigned char* data, std::size_t length) noexcept {
  if (data == nullptr) return status::kInvalidParameter;
  Reader reader(data, length);
  reader.Read(&header_, kRsaBlobHeaderSize);
  bool taken = reader.ReadPart(publicExponent_, header_.cbPublicExp) && reader.ReadPart(modulus_, header_.cbModulus) &&
               reader.ReadPart(prime1_, header_.cbPrime1) && reader.ReadPart(prime2_, header_.cbPrime2);
  if (taken && full_) {
    taken = reader.ReadPart(exponent1_, header_.cbPrime1) && reader.ReadPart(exponent2_, header_.cbPrime2) &&
            reader.ReadPart(coefficient_, header_.cbPrime1) && reader.ReadPart(privateExponent_, header_.cbModulus);
  }
  return taken ? status::kSuccess : status::kNoMemory;
}
