#include "kit/certificate.h"

#include <initializer_list>

namespace kit {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

// A DER element (X.690, 8.1): tag, length in its shortest form, content.
Bytes Element(unsigned char tag, const Bytes& content) {
  const std::size_t size = content.size();
  Bytes head{tag};
  if (size < 0x80) {
    head.push_back(static_cast<unsigned char>(size));
  } else if (size < 0x100) {
    head.insert(head.end(), {0x81, static_cast<unsigned char>(size)});
  } else {
    head.insert(head.end(), {0x82, static_cast<unsigned char>(size >> 8), static_cast<unsigned char>(size & 0xFF)});
  }
  return Join({head, content});
}

constexpr unsigned char kInteger = 0x02;
constexpr unsigned char kBitString = 0x03;
constexpr unsigned char kObjectId = 0x06;
constexpr unsigned char kUtf8 = 0x0C;
constexpr unsigned char kUtcTime = 0x17;
constexpr unsigned char kSequence = 0x30;
constexpr unsigned char kSet = 0x31;
constexpr unsigned char kVersion = 0xA0;

Bytes Text(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes Name(const std::string& commonName) {
  if (commonName.empty()) return Element(kSequence, {});
  const Bytes attribute = Join({Element(kObjectId, {0x55, 0x04, 0x03}), Element(kUtf8, Text(commonName))});
  return Element(kSequence, Element(kSet, Element(kSequence, attribute)));
}

// sha256WithRSAEncryption and rsaEncryption (RFC 8017, A.2.4 and A.1), the last arc told by the argument.
Bytes RsaAlgorithm(unsigned char last) {
  return Element(kSequence,
                 Join({Element(kObjectId, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, last}), {0x05, 0x00}}));
}

Bytes Bits(const Bytes& bytes) {
  return Element(kBitString, Join({{0x00}, bytes}));
}

}  // namespace

TestCertificate MakeCertificate(const std::string& subject, const std::string& issuer,
                                const std::vector<unsigned char>& serial) {
  constexpr unsigned char kSha256WithRsa = 11;
  constexpr unsigned char kRsaEncryption = 1;
  TestCertificate made;
  made.issuer = Name(issuer);
  made.subject = Name(subject);
  const Bytes key =
      Element(kSequence, Join({Element(kInteger, Bytes(64, 0x4B)), Element(kInteger, {0x01, 0x00, 0x01})}));
  const Bytes body =
      Element(kSequence, Join({Element(kVersion, Element(kInteger, {0x02})), Element(kInteger, serial),
                               RsaAlgorithm(kSha256WithRsa), made.issuer,
                               Element(kSequence, Join({Element(kUtcTime, Text("250101000000Z")),
                                                        Element(kUtcTime, Text("450101000000Z"))})),
                               made.subject, Element(kSequence, Join({RsaAlgorithm(kRsaEncryption), Bits(key)}))}));
  made.der = Element(kSequence, Join({body, RsaAlgorithm(kSha256WithRsa), Bits(Bytes(64, 0x5A))}));
  return made;
}

}  // namespace kit
