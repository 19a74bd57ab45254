#include "signing.h"

#include "commands.h"
#include "files.h"
#include "output.h"
#include "status.h"

namespace keldactl {
namespace {

struct SignOptions {
  KeyOptions key;
  std::wstring hash = kDefaultHash;
  std::wstring file;
  std::optional<std::wstring> out;
};

void SignSyntax(Syntax& syntax, SignOptions& options) {
  syntax.Operand("FILE", options.file, "the file to sign; - is standard input");
  AddKeyOptions(syntax, options.key);
  AddHashOption(syntax, options.hash);
  syntax.Text("--out", options.out, "SIG",
              "the signature's file (default: FILE.sig, or standard output for standard input); - is standard output");
  syntax.Notes(
      "The hash is computed here, through CNG; only the hash goes to the provider. The signature is\n"
      "PKCS#1 v1.5, most significant byte first, as \"openssl dgst -verify\" takes it.");
}

ExitStatus Sign(const SignOptions& options) {
  const HashAlgorithm& algorithm = FindHash(options.hash);
  const std::wstring out = options.out.value_or(IsStandardStream(options.file) ? options.file : options.file + L".sig");
  const Bytes hash = HashOfFile(algorithm, options.file);
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  const Bytes signature = SignHash(key, algorithm, hash);
  WriteWholeFile(out, signature);
  SayUnlessPiped(out, L"Signed " + InName(options.file) + L" (" + algorithm.title + L") with the key " + TitleOf(key) +
                          L": " + std::to_wstring(signature.size()) + L" bytes in " + OutName(out));
  return ExitStatus::kDone;
}

SECURITY_STATUS VerifyHash(const Key& key, BCRYPT_PKCS1_PADDING_INFO* padding, Bytes hash, Bytes& signature) {
  return NCryptVerifySignature(key.handle.get(), padding, hash.data(), static_cast<DWORD>(hash.size()),
                               signature.data(), static_cast<DWORD>(signature.size()),
                               (padding ? NCRYPT_PAD_PKCS1_FLAG : 0) | key.flags);
}

// Statuses that say "not with this input" rather than "not at all": another form of the hash may still be taken.
bool MayTakeAnotherForm(SECURITY_STATUS status) {
  return status == NTE_BAD_SIGNATURE || status == NTE_FAIL || status == NTE_INVALID_PARAMETER ||
         status == NTE_NOT_SUPPORTED || status == NTE_BAD_HASH || status == NTE_BAD_LEN || status == NTE_BAD_DATA ||
         status == NTE_INTERNAL_ERROR;
}

// A PKCS#1 signature is over a DigestInfo (RFC 8017, 8.2). Most providers make it from the hash and the algorithm that
// the padding info names; others compare what the signature holds with exactly what they are given. The complete
// DigestInfo under a padding info without an algorithm asks the same of both kinds, so it comes first; a provider of
// the first kind that refuses that form gets its own. (Asked in the second form, a provider of the second kind would
// also accept a signature that was made over the bare hash.)
SECURITY_STATUS VerifyRsa(const Key& key, const HashAlgorithm& algorithm, const Bytes& hash, Bytes& signature) {
  Bytes digest_info = algorithm.digest_info;
  digest_info.insert(digest_info.end(), hash.begin(), hash.end());
  BCRYPT_PKCS1_PADDING_INFO bare = {};
  const SECURITY_STATUS complete = VerifyHash(key, &bare, digest_info, signature);
  if (!MayTakeAnotherForm(complete)) return complete;
  BCRYPT_PKCS1_PADDING_INFO named = {};
  named.pszAlgId = algorithm.cng_id;
  return VerifyHash(key, &named, hash, signature);
}

struct VerifyOptions {
  KeyOptions key;
  std::wstring hash = kDefaultHash;
  std::wstring file;
  std::wstring signature;
};

void VerifySyntax(Syntax& syntax, VerifyOptions& options) {
  syntax.Operand("FILE", options.file, "the file that was signed; - is standard input");
  syntax.Text("--signature", options.signature, "SIG", "the signature's file").Required();
  AddKeyOptions(syntax, options.key);
  AddHashOption(syntax, options.hash);
  syntax.Check([&options] { RefuseTwoStandardInputs(options.file, options.signature); });
  syntax.Notes("The provider does the verification; it may ask for the PIN first.");
}

ExitStatus Verify(const VerifyOptions& options) {
  const HashAlgorithm& algorithm = FindHash(options.hash);
  Bytes signature = ReadWholeFile(options.signature);
  const Bytes hash = HashOfFile(algorithm, options.file);
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  const SECURITY_STATUS status =
      IsRsa(key) ? VerifyRsa(key, algorithm, hash, signature) : VerifyHash(key, nullptr, hash, signature);
  if (status == NTE_BAD_SIGNATURE || status == NTE_FAIL) {
    // Some providers have no status of their own for a signature that does not match.
    throw Failure(L"The signature of " + InName(options.file) + L" by the key " + TitleOf(key) + L" does not match: " +
                      DescribeStatus(status),
                  ExitStatus::kWrongSignature);
  }
  Check(status, L"Verifying the signature of " + InName(options.file) + L" with the key " + TitleOf(key));
  Say(L"The signature of " + InName(options.file) + L" (" + algorithm.title + L") by the key " + TitleOf(key) +
      L" is good");
  return ExitStatus::kDone;
}

}  // namespace

Bytes SignHash(const Key& key, const HashAlgorithm& algorithm, const Bytes& hash) {
  BCRYPT_PKCS1_PADDING_INFO pkcs1 = {};
  pkcs1.pszAlgId = algorithm.cng_id;
  const bool rsa = IsRsa(key);
  Bytes input = hash;
  // Enough for every RSA key in use: asking for the size first would cost the token a second private key operation.
  Bytes signature(1024);
  DWORD size = 0;
  SECURITY_STATUS status = ERROR_SUCCESS;
  for (int attempt = 0; attempt < 2; ++attempt) {
    status = NCryptSignHash(key.handle.get(), rsa ? &pkcs1 : nullptr, input.data(), static_cast<DWORD>(input.size()),
                            signature.data(), static_cast<DWORD>(signature.size()), &size,
                            (rsa ? NCRYPT_PAD_PKCS1_FLAG : 0) | key.flags);
    if (status != NTE_BUFFER_TOO_SMALL || size <= signature.size()) break;
    signature.resize(size);
  }
  Check(status, L"Signing with the key " + TitleOf(key));
  if (size > signature.size()) throw Failure(L"Signing failed: the provider reported more bytes than it had room for");
  signature.resize(size);
  return signature;
}

void AddSigningCommands(Program& program) {
  program.Add<SignOptions>(Heading::kUse, "sign", "Sign a file's hash with a key", SignSyntax, Sign);
  program.Add<VerifyOptions>(Heading::kUse, "verify", "Verify a file's signature with a key", VerifySyntax, Verify);
}

}  // namespace keldactl
