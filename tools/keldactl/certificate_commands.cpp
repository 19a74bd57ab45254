#include "certificate_store_commands.h"
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
                  TitleOf(key));
  }
  Bytes der = certificate.Der();
  Check(NCryptSetProperty(key.handle.get(), NCRYPT_CERTIFICATE_PROPERTY, der.data(), static_cast<DWORD>(der.size()), 0),
        L"Storing the certificate beside the key " + TitleOf(key));
  Say(L"Stored the certificate of " + Quoted(certificate.Subject()) + L" (issued by " + Quoted(certificate.Issuer()) +
      L") beside the key " + TitleOf(key) + L".");
}

void FetchCertificate(const Key& key, const std::optional<std::wstring>& out) {
  Bytes value;
  const SECURITY_STATUS status = ReadProperty(key.handle.get(), NCRYPT_CERTIFICATE_PROPERTY, &value);
  if (status == NTE_NOT_SUPPORTED) {
    throw Failure(L"the certificate of the key " + TitleOf(key) +
                  L" cannot be fetched: the provider stores certificates and does not hand them out")
        .Advise(
            L"Your certificate store has it when it was installed there; the token maker's tools or pkcs11-tool read "
            L"it "
            L"from the token.");
  }
  Check(status, L"Reading the certificate");
  WriteText(out, Pem("CERTIFICATE", Certificate(value).Der()),
            L"Wrote the certificate of the key " + TitleOf(key) + L" to " + OutName(out.value_or(L"")) + L".");
}

struct CertificateOptions {
  KeyOptions key;
  std::optional<std::wstring> set;
  std::optional<std::wstring> install;
  bool uninstall = false;
  std::optional<std::wstring> out;
};

void ExcludeEachOther(std::vector<Option> options) {
  for (size_t i = 0; i < options.size(); ++i) {
    for (size_t j = 0; j < i; ++j)
      options[i].Excludes(options[j]);
  }
}

void CertificateSyntax(Syntax& syntax, CertificateOptions& options) {
  syntax.Notes(
      "--install and --uninstall are about your certificate store (MY), where signing tools look. The file\n"
      "stands behind --install, or behind --install= when its name begins with a dash; without one,\n"
      "whatever option follows, the certificate beside the key is taken. --uninstall takes out what belongs\n"
      "to the key by its public key, too: another token may have a key of the same name.\n"
      "The Norvale provider stores certificates beside their keys and hands none out: fetching works with\n"
      "other providers only.");
  AddKeyOptions(syntax, options.key);
  const Option set =
      syntax.Text("--set", options.set, "FILE", "store this certificate (DER or PEM); - is standard input");
  const Option out = syntax.Text("--out", options.out, "FILE", "fetch it into this file (default: it is shown as PEM)");
  const Option install =
      syntax
          .Text("--install", options.install, "FILE",
                "put it (DER or PEM, default: the one beside the key) into your certificate store, tied to the key")
          .ValueMayBeMissing();
  const Option uninstall = syntax.Flag("--uninstall", options.uninstall, "take it out of your certificate store again");
  ExcludeEachOther({set, out, install, uninstall});
}

ExitStatus CertificateOfKey(const CertificateOptions& options) {
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  if (options.set) {
    StoreCertificate(key, *options.set);
  } else if (options.install) {
    InstallCertificate(provider, key, *options.install);
  } else if (options.uninstall) {
    UninstallCertificates(provider, key);
  } else {
    FetchCertificate(key, options.out);
  }
  return ExitStatus::kDone;
}

const char* SignatureOid(const HashAlgorithm& algorithm) {
  const std::wstring option = algorithm.option;
  if (option == L"md5") return szOID_RSA_MD5RSA;
  if (option == L"sha1") return szOID_RSA_SHA1RSA;
  if (option == L"sha512") return szOID_RSA_SHA512RSA;
  return szOID_RSA_SHA256RSA;
}

struct RequestOptions {
  KeyOptions key;
  std::wstring hash = kDefaultHash;
  std::wstring subject;
  std::optional<std::wstring> out;
};

void RequestSyntax(Syntax& syntax, RequestOptions& options) {
  AddKeyOptions(syntax, options.key);
  syntax
      .Text("--subject", options.subject, "SUBJECT", "whom the certificate is for, such as \"CN=Jane Doe, O=Example\"")
      .Required();
  syntax.Text("--out", options.out, "FILE", "the request's file (default: it is shown); - is standard output");
  AddHashOption(syntax, options.hash);
}

ExitStatus RequestCertificate(const RequestOptions& options) {
  const HashAlgorithm& algorithm = FindHash(options.hash);
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  if (!IsRsa(key)) throw Failure(L"Requests are made for RSA keys only");
  const Bytes body = CertificationRequestInfo(options.subject, PublicKeyOf(key));
  const Bytes signature = SignHash(key, algorithm, HashOf(algorithm, body));
  WriteText(options.out, Pem("CERTIFICATE REQUEST", SignedStructure(body, SignatureOid(algorithm), signature)),
            L"Wrote a request for " + Quoted(options.subject) + L", signed by the key " + TitleOf(key) + L", to " +
                OutName(options.out.value_or(L"")) + L".");
  return ExitStatus::kDone;
}

}  // namespace

void AddCertificateCommands(Program& program) {
  program.Add<CertificateOptions>(Heading::kCertificates, "certificate",
                                  "Store a key's certificate beside it or in your store, or fetch it",
                                  CertificateSyntax, CertificateOfKey);
  program.Add<RequestOptions>(Heading::kCertificates, "request",
                              "Make a certificate request (PKCS#10) that the key signs", RequestSyntax,
                              RequestCertificate);
}

}  // namespace keldactl
