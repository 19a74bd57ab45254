// The blob of a key import: the one place where a caller's bytes choose lengths.
#include "keys/private_key_blob.h"

#include <cstddef>
#include <cstring>

#include "support/limits.h"
#include "target.h"

namespace {

// Follows the parts through the data; behind its end everything is zero.
class Expected {
 public:
  explicit Expected(const std::vector<std::uint8_t>& data) : data_(data) {}

  void Check(const WipedBytes& part, std::size_t size) {
    FUZZ_CHECK(part.size() == size);
    const std::size_t held = position_ < data_.size() ? data_.size() - position_ : 0;
    const std::size_t present = size < held ? size : held;
    if (present != 0) FUZZ_CHECK(std::memcmp(part.data(), data_.data() + position_, present) == 0);
    if (present < size) {
      // Zero, and then each byte like the one before it: a block of 64 MB is held quickly.
      const unsigned char* zeros = part.data() + present;
      FUZZ_CHECK(zeros[0] == 0 && std::memcmp(zeros, zeros + 1, size - present - 1) == 0);
    }
    position_ += size;
  }

 private:
  const std::vector<std::uint8_t>& data_;
  std::size_t position_ = kRsaBlobHeaderSize;
};

bool Fits(const RsaBlobHeader& header) {
  return header.cbPublicExp <= kLargestBlock && header.cbModulus <= kLargestBlock && header.cbPrime1 <= kLargestBlock &&
         header.cbPrime2 <= kLargestBlock;
}

}  // namespace

FUZZ_TARGET(private_key_blob) {
  fuzz::Parts parts(input);
  const unsigned choice = parts.Byte();
  const bool full = (choice & 1) != 0;
  std::vector<std::uint8_t> data = parts.Rest();
  // Lengths as they are, or mostly of 12 bits: blocks of megabytes take the time of many small inputs.
  if (choice < 0xF0) {
    for (std::size_t i = offsetof(RsaBlobHeader, cbPublicExp); i < sizeof(RsaBlobHeader) && i < data.size(); ++i) {
      if (i % 4 == 1) data[i] &= 0x0F;
      if (i % 4 > 1) data[i] = 0;
    }
  }
  const std::uint8_t none = 0;
  PrivateKeyBlob blob;
  blob.SetFull(full);
  const status::Code status = blob.Parse(data.empty() ? &none : data.data(), data.size());

  RsaBlobHeader header;
  const std::size_t cbHeader = data.size() < sizeof(header) ? data.size() : sizeof(header);
  if (cbHeader != 0) std::memcpy(&header, data.data(), cbHeader);
  FUZZ_CHECK(std::memcmp(&header, &blob.Header(), sizeof(header)) == 0);
  FUZZ_CHECK(status == (Fits(header) ? status::kSuccess : status::kNoMemory));
  if (status != status::kSuccess) return;

  Expected expected(data);
  expected.Check(blob.PublicExponent(), header.cbPublicExp);
  expected.Check(blob.Modulus(), header.cbModulus);
  expected.Check(blob.Prime1(), header.cbPrime1);
  expected.Check(blob.Prime2(), header.cbPrime2);
  FUZZ_CHECK(blob.Exponent1().empty() == !full);
  if (!full) return;
  expected.Check(blob.Exponent1(), header.cbPrime1);
  expected.Check(blob.Exponent2(), header.cbPrime2);
  expected.Check(blob.Coefficient(), header.cbPrime1);
  expected.Check(blob.PrivateExponent(), header.cbModulus);
}
