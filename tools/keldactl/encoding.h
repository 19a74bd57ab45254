// RSA public keys and certificates in the forms that other programs use, by the platform's encoder.
#pragma once

#include "bytes.h"
#include "platform.h"

#include <optional>
#include <string>

namespace keldactl {

// Both numbers most significant byte first, without leading zeros.
struct RsaPublicKey {
  Bytes modulus;
  Bytes exponent;
  bool operator==(const RsaPublicKey& other) const = default;
};

// BCRYPT_RSAKEY_BLOB with the public part only; parsing throws Failure when it is anything else.
Bytes PublicBlob(const RsaPublicKey& key);
RsaPublicKey ParsePublicBlob(const Bytes& blob);
// The blob's magic number, or 0 when the data is shorter than the blob's header.
DWORD BlobMagic(const Bytes& data);

// SubjectPublicKeyInfo (RFC 5280, 4.1.2.7) and RSAPublicKey (RFC 8017, A.1.1) in DER.
Bytes PublicKeyInfo(const RsaPublicKey& key);
RsaPublicKey ParsePublicKeyInfo(const Bytes& der);
RsaPublicKey ParsePkcs1PublicKey(const Bytes& der);

// The body of a certification request (RFC 2986, 4.1) without attributes, and the signed whole of any such body.
Bytes CertificationRequestInfo(const std::wstring& subject, const RsaPublicKey& key);
Bytes SignedStructure(const Bytes& body, const char* algorithm, const Bytes& signature);

// PEM (RFC 7468): the text, and the first block of a text with its label.
Bytes Pem(const std::string& label, const Bytes& der);
struct PemBlock {
  std::string label;
  Bytes der;
};
std::optional<PemBlock> ParsePem(const Bytes& text);

// Owns a certificate context.
class Certificate {
 public:
  // DER or PEM; throws Failure when it is no certificate.
  explicit Certificate(const Bytes& file);
  Certificate(const Certificate&) = delete;
  Certificate& operator=(const Certificate&) = delete;
  ~Certificate() { CertFreeCertificateContext(context_); }

  Bytes Der() const;
  std::wstring Subject() const { return Name(0); }
  std::wstring Issuer() const { return Name(CERT_NAME_ISSUER_FLAG); }
  // Nothing when the key is not an RSA key.
  std::optional<RsaPublicKey> Key() const;

 private:
  std::wstring Name(DWORD flags) const;

  PCCERT_CONTEXT context_;
};

}  // namespace keldactl
