#include "encoding.h"

#include "handle.h"
#include "output.h"
#include "unicode.h"

#include <algorithm>
#include <cstring>

namespace keldactl {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

Bytes Encode(const char* type, const void* value, const wchar_t* what) {
  void* memory = nullptr;
  DWORD size = 0;
  if (!CryptEncodeObjectEx(kEncoding, type, value, CRYPT_ENCODE_ALLOC_FLAG, nullptr, &memory, &size)) {
    throw Failure(std::wstring(L"Encoding ") + what, static_cast<long>(GetLastError()));
  }
  const Local<BYTE> owner(static_cast<BYTE*>(memory));
  return {owner.get(), owner.get() + size};
}

template <typename T>
Local<T> Decode(const char* type, const Bytes& der, const wchar_t* what) {
  void* memory = nullptr;
  DWORD size = 0;
  if (!CryptDecodeObjectEx(kEncoding, type, der.data(), static_cast<DWORD>(der.size()), CRYPT_DECODE_ALLOC_FLAG,
                           nullptr, &memory, &size)) {
    throw Failure(std::wstring(L"Reading ") + what, static_cast<long>(GetLastError()));
  }
  return Local<T>(static_cast<T*>(memory));
}

// The blobs of the platform's structures are not const although encoding only reads them.
CRYPT_DATA_BLOB Blob(const Bytes& bytes) {
  return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

Bytes Sequence(const std::vector<Bytes>& parts, const wchar_t* what) {
  std::vector<CRYPT_DER_BLOB> blobs;
  blobs.reserve(parts.size());
  for (const Bytes& part : parts)
    blobs.push_back(Blob(part));
  const CRYPT_SEQUENCE_OF_ANY sequence = {static_cast<DWORD>(blobs.size()), blobs.data()};
  return Encode(X509_SEQUENCE_OF_ANY, &sequence, what);
}

// The platform's integers come least significant byte first.
Bytes Integer(Bytes number, const wchar_t* what) {
  std::reverse(number.begin(), number.end());
  const CRYPT_UINT_BLOB blob = Blob(number);
  return Encode(X509_MULTI_BYTE_UINT, &blob, what);
}

Bytes WithoutLeadingZeros(Bytes number) {
  number.erase(number.begin(), std::find_if(number.begin(), number.end(), [](uint8_t b) { return b != 0; }));
  return number;
}

Bytes ParseInteger(const CRYPT_DER_BLOB& der, const wchar_t* what) {
  const Local<CRYPT_UINT_BLOB> blob =
      Decode<CRYPT_UINT_BLOB>(X509_MULTI_BYTE_UINT, {der.pbData, der.pbData + der.cbData}, what);
  Bytes number(blob->pbData, blob->pbData + blob->cbData);
  std::reverse(number.begin(), number.end());
  return WithoutLeadingZeros(number);
}

CRYPT_ALGORITHM_IDENTIFIER AlgorithmWithNull(const char* oid) {
  static BYTE null[] = {0x05, 0x00};
  return {const_cast<char*>(oid), {sizeof null, null}};
}

}  // namespace

Bytes PublicBlob(const RsaPublicKey& key) {
  BCRYPT_RSAKEY_BLOB header = {};
  header.Magic = BCRYPT_RSAPUBLIC_MAGIC;
  header.BitLength = static_cast<ULONG>(key.modulus.size() * 8);
  for (uint8_t top = key.modulus.empty() ? 0xFF : key.modulus[0]; top < 0x80; top = static_cast<uint8_t>(top << 1)) {
    --header.BitLength;
  }
  header.cbPublicExp = static_cast<ULONG>(key.exponent.size());
  header.cbModulus = static_cast<ULONG>(key.modulus.size());
  Bytes blob(sizeof header + key.exponent.size() + key.modulus.size());
  std::memcpy(blob.data(), &header, sizeof header);
  const auto modulus = std::copy(key.exponent.begin(), key.exponent.end(), blob.begin() + sizeof header);
  std::copy(key.modulus.begin(), key.modulus.end(), modulus);
  return blob;
}

DWORD BlobMagic(const Bytes& data) {
  DWORD magic = 0;
  if (data.size() >= sizeof(BCRYPT_RSAKEY_BLOB)) std::memcpy(&magic, data.data(), sizeof magic);
  return magic;
}

RsaPublicKey ParsePublicBlob(const Bytes& blob) {
  BCRYPT_RSAKEY_BLOB header = {};
  if (BlobMagic(blob) != BCRYPT_RSAPUBLIC_MAGIC) throw Failure(L"This is not an RSA public key blob");
  std::memcpy(&header, blob.data(), sizeof header);
  const size_t room = blob.size() - sizeof header;
  if (header.cbPublicExp > room || header.cbModulus > room - header.cbPublicExp || header.cbModulus == 0) {
    throw Failure(L"The RSA public key blob is shorter than its header says");
  }
  const uint8_t* exponent = blob.data() + sizeof header;
  const uint8_t* modulus = exponent + header.cbPublicExp;
  return {WithoutLeadingZeros({modulus, modulus + header.cbModulus}),
          WithoutLeadingZeros({exponent, exponent + header.cbPublicExp})};
}

RsaPublicKey ParsePkcs1PublicKey(const Bytes& der) {
  constexpr auto kWhat = L"the RSA public key";
  const Local<CRYPT_SEQUENCE_OF_ANY> numbers = Decode<CRYPT_SEQUENCE_OF_ANY>(X509_SEQUENCE_OF_ANY, der, kWhat);
  if (numbers->cValue != 2) throw Failure(L"Reading the RSA public key failed: it does not consist of two numbers");
  return {ParseInteger(numbers->rgValue[0], kWhat), ParseInteger(numbers->rgValue[1], kWhat)};
}

Bytes PublicKeyInfo(const RsaPublicKey& key) {
  constexpr auto kWhat = L"the public key";
  const Bytes numbers = Sequence({Integer(key.modulus, kWhat), Integer(key.exponent, kWhat)}, kWhat);
  CERT_PUBLIC_KEY_INFO info = {};
  info.Algorithm = AlgorithmWithNull(szOID_RSA_RSA);
  info.PublicKey.cbData = static_cast<DWORD>(numbers.size());
  info.PublicKey.pbData = const_cast<BYTE*>(numbers.data());
  return Encode(X509_PUBLIC_KEY_INFO, &info, kWhat);
}

RsaPublicKey ParsePublicKeyInfo(const Bytes& der) {
  const Local<CERT_PUBLIC_KEY_INFO> info = Decode<CERT_PUBLIC_KEY_INFO>(X509_PUBLIC_KEY_INFO, der, L"the public key");
  if (std::strcmp(info->Algorithm.pszObjId, szOID_RSA_RSA) != 0) throw Failure(L"The public key is not an RSA key");
  return ParsePkcs1PublicKey({info->PublicKey.pbData, info->PublicKey.pbData + info->PublicKey.cbData});
}

// Put together from its parts because not every Windows' encoder knows the whole (X509_CERT_REQUEST_TO_BE_SIGNED).
Bytes CertificationRequestInfo(const std::wstring& subject, const RsaPublicKey& key) {
  constexpr auto kWhat = L"the request";
  DWORD size = 0;
  Bytes name;
  for (int pass = 0; pass < 2; ++pass) {
    if (!CertStrToNameW(X509_ASN_ENCODING, subject.c_str(), CERT_X500_NAME_STR | CERT_NAME_STR_ENABLE_UTF8_UNICODE_FLAG,
                        nullptr, pass ? name.data() : nullptr, &size, nullptr)) {
      throw Failure(L"Reading the subject " + Quoted(subject), static_cast<long>(GetLastError()));
    }
    name.resize(size);
  }
  const int version = CERT_REQUEST_V1;
  const CRYPT_ATTRIBUTES none = {};
  // [0] IMPLICIT SET OF: the set's tag is replaced.
  Bytes attributes = Encode(PKCS_ATTRIBUTES, &none, kWhat);
  attributes[0] = 0xA0;
  return Sequence({Encode(X509_INTEGER, &version, kWhat), name, PublicKeyInfo(key), attributes}, kWhat);
}

Bytes SignedStructure(const Bytes& body, const char* algorithm, const Bytes& signature) {
  // The platform's encoder expects the signature as CryptoAPI makes it, least significant byte first.
  Bytes reversed(signature.rbegin(), signature.rend());
  CERT_SIGNED_CONTENT_INFO content = {};
  content.ToBeSigned = Blob(body);
  content.SignatureAlgorithm = AlgorithmWithNull(algorithm);
  content.Signature.cbData = static_cast<DWORD>(reversed.size());
  content.Signature.pbData = reversed.data();
  return Encode(X509_CERT, &content, L"the signed request");
}

Bytes Pem(const std::string& label, const Bytes& der) {
  // Lines of 64 characters that end in a line feed, as OpenSSL writes them.
  constexpr DWORD kForm = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCR;
  const auto length = static_cast<DWORD>(der.size());
  DWORD size = 0;
  std::string text;
  for (int pass = 0; pass < 2; ++pass) {
    if (!CryptBinaryToStringA(der.data(), length, kForm, pass ? text.data() : nullptr, &size)) {
      throw Failure(L"Encoding PEM", static_cast<long>(GetLastError()));
    }
    text.resize(size);
  }
  text = "-----BEGIN " + label + "-----\n" + text.c_str() + "-----END " + label + "-----\n";
  return {text.begin(), text.end()};
}

// By hand up to the base 64: CryptStringToBinary would skip the lines around it (CRYPT_STRING_BASE64HEADER) and does
// not tell the label that stands there, by which a certificate, two forms of public keys and a private key are told
// apart. Looks at the text in its place, which may hold a private key.
std::optional<PemBlock> ParsePem(const Bytes& text) {
  const std::string_view all(reinterpret_cast<const char*>(text.data()), text.size());
  constexpr std::string_view begin_mark = "-----BEGIN ";
  const size_t begin = all.find(begin_mark);
  if (begin == std::string_view::npos) return std::nullopt;
  const size_t label_begin = begin + begin_mark.size();
  const size_t label_end = all.find("-----", label_begin);
  if (label_end == std::string_view::npos) return std::nullopt;
  PemBlock block;
  block.label = all.substr(label_begin, label_end - label_begin);
  const size_t body = label_end + 5;
  const size_t end = all.find("-----END " + block.label + "-----", body);
  if (end == std::string_view::npos) return std::nullopt;
  DWORD size = 0;
  for (int pass = 0; pass < 2; ++pass) {
    if (!CryptStringToBinaryA(all.data() + body, static_cast<DWORD>(end - body), CRYPT_STRING_BASE64,
                              pass ? block.der.data() : nullptr, &size, nullptr, nullptr)) {
      throw Failure(L"Reading PEM", static_cast<long>(GetLastError()));
    }
    block.der.resize(size);
  }
  return block;
}

Certificate::Certificate(const Bytes& file) {
  const std::optional<PemBlock> pem = ParsePem(file);
  if (pem && pem->label != "CERTIFICATE" && pem->label != "X509 CERTIFICATE") {
    throw Failure(L"The file holds no certificate but: " + Printable(Wide(pem->label)));
  }
  const Bytes& der = pem ? pem->der : file;
  context_ = CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size()));
  if (!context_) throw Failure(L"Reading the certificate", static_cast<long>(GetLastError()));
}

Bytes Certificate::Der() const {
  return {context_->pbCertEncoded, context_->pbCertEncoded + context_->cbCertEncoded};
}

std::optional<RsaPublicKey> Certificate::Key() const {
  const CERT_PUBLIC_KEY_INFO& info = context_->pCertInfo->SubjectPublicKeyInfo;
  if (std::strcmp(info.Algorithm.pszObjId, szOID_RSA_RSA) != 0) return std::nullopt;
  return ParsePkcs1PublicKey({info.PublicKey.pbData, info.PublicKey.pbData + info.PublicKey.cbData});
}

std::wstring Certificate::Name(DWORD flags) const {
  CERT_NAME_BLOB* name = flags ? &context_->pCertInfo->Issuer : &context_->pCertInfo->Subject;
  const DWORD size = CertNameToStrW(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, nullptr, 0);
  std::wstring text(size, L'\0');
  CertNameToStrW(X509_ASN_ENCODING, name, CERT_X500_NAME_STR, text.data(), size);
  text.resize(size ? size - 1 : 0);
  return text;
}

}  // namespace keldactl
