#include "certificate_store_commands.h"

#include "commands.h"
#include "files.h"
#include "json.h"
#include "output.h"
#include "public_key.h"
#include "token_module.h"
#include "unicode.h"

#include <algorithm>

namespace keldactl {
namespace {

Bytes CertificateBesideKey(const Key& key) {
  Bytes value;
  const SECURITY_STATUS status = ReadProperty(key.handle.get(), NCRYPT_CERTIFICATE_PROPERTY, &value);
  if (status != ERROR_SUCCESS) {
    throw Failure(L"Reading the certificate beside the key", status)
        .Advise(L"Name the certificate's file: keldactl certificate --key " + HexText(key.name) + L" --install FILE.");
  }
  return value;
}

// What it takes to sign with the certificate. The provider signs SHA-1, SHA-256 and SHA-512.
void SayHowToSign(const StoredCertificate& certificate) {
  Say(L"Thumbprint: " + certificate.thumbprint);
  Say(L"To sign with it:");
  Say(L"  signtool sign /sha1 " + certificate.thumbprint + L" /fd SHA256 /tr TIMESTAMP-URL /td SHA256 FILE");
  Say(L"  powershell Set-AuthenticodeSignature -HashAlgorithm SHA256 -Certificate (Get-Item Cert:\\CurrentUser\\My\\" +
      certificate.thumbprint + L") FILE");
  Say(L"  mage -Sign FILE -CertHash " + certificate.thumbprint);
}

// Whether the key is there that a certificate points at.
enum class KeyState { kThere, kOther, kMissing };

const wchar_t* InWords(KeyState state) {
  switch (state) {
    case KeyState::kThere:
      return L"yes";
    case KeyState::kOther:
      return L"another key";
    default:
      return L"no";
  }
}

KeyState StateOf(const Provider& provider, const std::vector<ListedKey>& keys, const StoredCertificate& certificate) {
  for (const ListedKey& listed : keys) {
    if (!PointsAt(certificate.container, listed.name)) continue;
    KeyOptions options;
    options.key = listed.name;
    return certificate.key == PublicKeyOf(provider.Open(options)) ? KeyState::kThere : KeyState::kOther;
  }
  return KeyState::kMissing;
}

struct CertificatesOptions {
  ProviderOptions provider;
  std::optional<std::wstring> remove;
  bool json = false;
};

void CertificatesSyntax(Syntax& syntax, CertificatesOptions& options) {
  AddProviderOptions(syntax, options.provider);
  const Option remove = syntax.Text("--remove", options.remove, "THUMBPRINT",
                                    "take this one out of your store, whether or not its key is there");
  syntax.Json(options.json).Excludes(remove);
  syntax.Notes("The certificates of your store (MY) that point at keys of the provider, and whether the key is there.");
}

std::wstring EndInWords(const StoredCertificate& certificate) {
  return certificate.not_after + (certificate.expired ? L" (ended)" : L"");
}

// As Windows' certificate window shows it: in either case, and with blanks between the digits.
std::wstring Thumbprint(const std::wstring& typed) {
  std::wstring digits;
  for (const wchar_t c : typed) {
    if (c == L' ' || c == L':') continue;
    digits += c >= L'a' && c <= L'f' ? static_cast<wchar_t>(c - L'a' + L'A') : c;
  }
  return digits;
}

ExitStatus RemoveCertificate(const std::wstring& typed, const std::wstring& provider) {
  const std::wstring thumbprint = Thumbprint(typed);
  if (RemoveStoredCertificate(thumbprint, provider) == 0) {
    throw Failure(
        L"No certificate in your store that points at " + Quoted(provider) + L" has the thumbprint " + Quoted(typed),
        ExitStatus::kNotFound);
  }
  Say(L"Took the certificate " + thumbprint + L" out of your store.");
  return ExitStatus::kDone;
}

ExitStatus ListCertificates(const CertificatesOptions& options) {
  const std::wstring name = options.provider.name.value_or(kNorvaleProvider);
  if (options.remove) return RemoveCertificate(*options.remove, name);
  const std::vector<StoredCertificate> certificates = StoredCertificates(name);
  Json list = Json::array();
  std::vector<std::vector<std::wstring>> rows = {{L"THUMBPRINT", L"SUBJECT", L"UNTIL", L"KEY", L"KEY IS THERE"}};
  if (!certificates.empty()) {
    const Provider provider(options.provider);
    const std::vector<ListedKey> keys = provider.Keys();
    for (const StoredCertificate& certificate : certificates) {
      const KeyState state = StateOf(provider, keys, certificate);
      list.push_back({{"thumbprint", Utf8(certificate.thumbprint)},
                      {"subject", Utf8(certificate.subject)},
                      {"issuer", Utf8(certificate.issuer)},
                      {"serial", Utf8(certificate.serial)},
                      {"not_after", Utf8(certificate.not_after)},
                      {"expired", certificate.expired},
                      {"container", Utf8(certificate.container)},
                      {"key", Utf8(InWords(state))}});
      rows.push_back({certificate.thumbprint, Printable(certificate.subject), EndInWords(certificate),
                      Printable(certificate.container), InWords(state)});
    }
  }
  if (options.json) {
    SayJson({{"certificates", std::move(list)}});
  } else if (certificates.empty()) {
    Say(L"No certificate in your store points at " + Quoted(name) + L".");
  } else {
    SayTable(rows);
  }
  return ExitStatus::kDone;
}

bool TokenHasCertificateOf(const std::wstring& key_name) {
  const std::vector<TokenReport> tokens = ExamineTokenModuleApart().tokens;
  return std::any_of(tokens.begin(), tokens.end(),
                     [&](const TokenReport& token) { return Holds(token.certificates, Utf8(HexText(key_name))); });
}

// Nothing when the provider does not export it.
std::optional<RsaPublicKey> PublicKeyIfAny(const Key& key) {
  try {
    return PublicKeyOf(key);
  } catch (const Failure&) {
    return std::nullopt;
  }
}

void WarnOfForeign(const CertificatesOfKey& certificates) {
  for (const StoredCertificate& foreign : certificates.foreign) {
    Warn(L"the certificate of " + Quoted(foreign.subject) + L" (" + foreign.thumbprint +
         L") points at a key of this name and stays: " +
         (certificates.compared ? L"it belongs to another key, perhaps on another token"
                                : L"whether it belongs to this one cannot be told"));
  }
}

}  // namespace

void InstallCertificate(const Provider& provider, const Key& key, const std::wstring& file) {
  const std::wstring container = HexText(key.name);
  if (container.empty()) throw Failure(L"A certificate cannot point at a key without a name");
  const Certificate certificate(file.empty() ? CertificateBesideKey(key) : ReadWholeFile(file));
  if (certificate.Key() != PublicKeyOf(key)) {
    throw Failure(L"The certificate of " + Quoted(certificate.Subject()) + L" does not belong to the key " +
                  TitleOf(key));
  }
  const StoredCertificate stored = StoreCertificate(certificate.Der(), provider.name(), container);
  Say(L"Put the certificate of " + Quoted(stored.subject) + L" (issued by " + Quoted(stored.issuer) +
      L") into your store, tied to the key " + TitleOf(key) + L".");
  SayHowToSign(stored);
}

CertificatesOfKey FindCertificatesOfKey(const Provider& provider, const Key& key) {
  CertificatesOfKey certificates;
  if (key.name.empty()) return certificates;
  const std::optional<RsaPublicKey> public_key = PublicKeyIfAny(key);
  certificates.compared = public_key.has_value();
  for (StoredCertificate& stored : StoredCertificates(provider.name())) {
    if (!PointsAt(stored.container, key.name)) continue;
    const bool own = public_key && stored.key == public_key;
    (own ? certificates.stored : certificates.foreign).push_back(std::move(stored));
  }
  if (provider.name() == kNorvaleProvider) certificates.on_token = TokenHasCertificateOf(key.name);
  return certificates;
}

void UninstallCertificates(const Provider& provider, const Key& key) {
  const CertificatesOfKey certificates = FindCertificatesOfKey(provider, key);
  for (const StoredCertificate& stored : certificates.stored) {
    RemoveStoredCertificate(stored.thumbprint, provider.name());
    Say(L"Took the certificate of " + Quoted(stored.subject) + L" (" + stored.thumbprint + L") out of your store.");
  }
  WarnOfForeign(certificates);
  if (!certificates.stored.empty()) return;
  Failure none(L"No certificate in your store " +
                   std::wstring(certificates.foreign.empty() ? L"points at the key " : L"belongs to the key ") +
                   TitleOf(key),
               ExitStatus::kNotFound);
  if (!certificates.foreign.empty()) none.Advise(L"\"keldactl certificates --remove THUMBPRINT\" takes out any other.");
  throw none;
}

void SayWhatStays(const CertificatesOfKey& certificates, const std::wstring& provider, bool remove) {
  if (certificates.on_token) Warn(L"the key's certificate stays on the token; the token maker's tool removes it");
  for (const StoredCertificate& stored : certificates.stored) {
    if (remove) {
      RemoveStoredCertificate(stored.thumbprint, provider);
      Say(L"Took its certificate " + stored.thumbprint + L" out of your store.");
    } else {
      Warn(L"its certificate " + stored.thumbprint + L" stays in your store and points at nothing now");
    }
  }
  WarnOfForeign(certificates);
}

void AddCertificateStoreCommands(Program& program) {
  program.Add<CertificatesOptions>(Heading::kCertificates, "certificates",
                                   "List the certificates of your store that point at the provider's keys",
                                   CertificatesSyntax, ListCertificates);
}

}  // namespace keldactl
