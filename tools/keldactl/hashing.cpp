#include "hashing.h"

#include "files.h"
#include "output.h"

namespace keldactl {
namespace {

class Hasher {
 public:
  explicit Hasher(const HashAlgorithm& algorithm) : title_(algorithm.title) {
    Check(BCryptOpenAlgorithmProvider(&algorithm_, algorithm.cng_id, nullptr, 0), Operation());
    const NTSTATUS status = BCryptCreateHash(algorithm_, &hash_, nullptr, 0, nullptr, 0, 0);
    if (status != 0) {
      BCryptCloseAlgorithmProvider(algorithm_, 0);
      Check(status, Operation());
    }
  }
  Hasher(const Hasher&) = delete;
  Hasher& operator=(const Hasher&) = delete;
  ~Hasher() {
    BCryptDestroyHash(hash_);
    BCryptCloseAlgorithmProvider(algorithm_, 0);
  }

  void Add(const uint8_t* data, size_t size) {
    // BCryptHashData does not change its input; the parameter is not const in older headers.
    Check(BCryptHashData(hash_, const_cast<uint8_t*>(data), static_cast<ULONG>(size), 0), Operation());
  }

  Bytes Finish() {
    DWORD size = 0;
    ULONG written = 0;
    Check(BCryptGetProperty(hash_, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&size), sizeof size, &written, 0),
          Operation());
    Bytes hash(size);
    Check(BCryptFinishHash(hash_, hash.data(), size, 0), Operation());
    return hash;
  }

 private:
  std::wstring Operation() const { return L"Computing the " + title_ + L" hash"; }

  std::wstring title_;
  BCRYPT_ALG_HANDLE algorithm_ = nullptr;
  BCRYPT_HASH_HANDLE hash_ = nullptr;
};

const HashAlgorithm kAlgorithms[] = {
    {L"md5",
     BCRYPT_MD5_ALGORITHM,
     L"MD5",
     {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04, 0x10}},
    {L"sha1",
     BCRYPT_SHA1_ALGORITHM,
     L"SHA-1",
     {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
    {L"sha256",
     BCRYPT_SHA256_ALGORITHM,
     L"SHA-256",
     {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04,
      0x20}},
    {L"sha512",
     BCRYPT_SHA512_ALGORITHM,
     L"SHA-512",
     {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00, 0x04,
      0x40}},
};

}  // namespace

const HashAlgorithm& FindHash(const std::wstring& option) {
  for (const HashAlgorithm& algorithm : kAlgorithms) {
    if (option == algorithm.option) return algorithm;
  }
  throw UsageError(L"unknown hash " + Quoted(option));
}

void AddHashOption(Syntax& syntax, std::wstring& option) {
  syntax.Choice("--hash", option, {"md5", "sha1", "sha256", "sha512"}, "HASH",
                "md5, sha1, sha256 or sha512 (default: sha256)");
}

Bytes HashOfFile(const HashAlgorithm& algorithm, const std::wstring& path) {
  Hasher hasher(algorithm);
  ReadFileInPieces(path, [&](const uint8_t* data, size_t size) { hasher.Add(data, size); });
  return hasher.Finish();
}

Bytes HashOf(const HashAlgorithm& algorithm, const Bytes& data) {
  Hasher hasher(algorithm);
  hasher.Add(data.data(), data.size());
  return hasher.Finish();
}

}  // namespace keldactl
