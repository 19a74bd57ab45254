// X.509 certificates made by the tests, so that each byte of them is known.
#pragma once

#include <string>
#include <vector>

namespace kit {

struct TestCertificate {
  std::vector<unsigned char> der;
  std::vector<unsigned char> issuer;   // the DER of the name
  std::vector<unsigned char> subject;  // the same
};

// A certificate whose names have one common name each (UTF-8), or none when the text is empty. serial holds the bytes
// of the DER integer, most significant first. The signature is no signature.
TestCertificate MakeCertificate(const std::string& subject, const std::string& issuer,
                                const std::vector<unsigned char>& serial);

}  // namespace kit
