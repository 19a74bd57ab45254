#include "cng.h"
#include "commands.h"
#include "encoding.h"
#include "files.h"
#include "output.h"
#include "public_key.h"
#include "signing.h"

namespace keldactl {
namespace {

void StoreCertificate(const Key& key, const std::wstring& path) {
  const Certificate certificate(ReadWholeFile(path));
  // The provider stores what it is given; a certificate beside the wrong key would be found out much later.
  if (certificate.Key() != PublicKeyOf(key)) {
    throw Failure(L"The certificate of " + Quoted(certificate.Subject()) + L" does not belong to the key " +
                  Quoted(key.name));
  }
  Bytes der = certificate.Der();
  Check(NCryptSetProperty(key.handle.get(), NCRYPT_CERTIFICATE_PROPERTY, der.data(), static_cast<DWORD>(der.size()), 0),
        L"Storing the certificate");
  Say(L"Stored the certificate of " + Quoted(certificate.Subject()) + L" (issued by " + Quoted(certificate.Issuer()) +
      L") beside the key " + Quoted(key.name) + L".");
}

void FetchCertificate(const Key& key, const std::optional<std::wstring>& out) {
  Bytes value;
  Check(ReadProperty(key.handle.get(), NCRYPT_CERTIFICATE_PROPERTY, &value), L"Reading the certificate");
  const Bytes pem = Pem("CERTIFICATE", Certificate(value).Der());
  if (out) {
    WriteWholeFile(*out, pem);
    Say(L"Wrote the certificate to " + Quoted(*out) + L".");
  } else {
    std::wstring text(pem.begin(), pem.end());
    text.pop_back();
    Say(text);
  }
}

int CertificateOfKey(const Arguments& arguments) {
  const std::optional<std::wstring> file = arguments.Find(L"--set");
  if (file && arguments.Has(L"--out"))
    throw UsageError(L"--set stores a certificate and --out fetches one: give only one");
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  if (file) {
    StoreCertificate(key, *file);
  } else {
    FetchCertificate(key, arguments.Find(L"--out"));
  }
  return kExitOk;
}

const char* SignatureOid(const HashAlgorithm& algorithm) {
  const std::wstring option = algorithm.option;
  if (option == L"md5") return szOID_RSA_MD5RSA;
  if (option == L"sha1") return szOID_RSA_SHA1RSA;
  if (option == L"sha512") return szOID_RSA_SHA512RSA;
  return szOID_RSA_SHA256RSA;
}

int RequestCertificate(const Arguments& arguments) {
  const HashAlgorithm& algorithm = ChosenHash(arguments);
  const std::wstring subject = arguments.Require(L"--subject");
  const std::optional<std::wstring> out = arguments.Find(L"--out");
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  if (!IsRsa(key)) throw Failure(L"Requests are made for RSA keys only");
  const Bytes body = CertificationRequestInfo(subject, PublicKeyOf(key));
  const Bytes signature = SignHash(key, algorithm, HashOf(algorithm, body));
  const Bytes pem = Pem("CERTIFICATE REQUEST", SignedStructure(body, SignatureOid(algorithm), signature));
  if (out) {
    WriteWholeFile(*out, pem);
    Say(L"Wrote a request for " + Quoted(subject) + L", signed by the key " + Quoted(key.name) + L", to " +
        Quoted(*out) + L".");
  } else {
    std::wstring text(pem.begin(), pem.end());
    text.pop_back();
    Say(text);
  }
  return kExitOk;
}

}  // namespace

std::vector<Command> CertificateCommands() {
  return {
      {L"certificate",
       L"",
       0,
       0,
       L"Store a key's certificate beside it, or fetch it",
       {KeyOption(),
        {L"--set", L"FILE", L"store this certificate (DER or PEM)"},
        {L"--out", L"FILE", L"fetch it into this file (default: it is shown as PEM)"},
        ReaderOption()},
       L"",
       CertificateOfKey},
      {L"request",
       L"",
       0,
       0,
       L"Make a certificate request (PKCS#10) that the key signs",
       {KeyOption(),
        {L"--subject", L"SUBJECT", L"whom the certificate is for, such as \"CN=Jane Doe, O=Example\""},
        {L"--out", L"FILE", L"the request's file (default: it is shown)"},
        HashOption(),
        ReaderOption()},
       L"",
       RequestCertificate},
  };
}

}  // namespace keldactl
