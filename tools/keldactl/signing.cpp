#include "signing.h"

#include "commands.h"
#include "files.h"
#include "output.h"
#include "status.h"

namespace keldactl {
namespace {

int Sign(const Arguments& arguments) {
  const HashAlgorithm& algorithm = ChosenHash(arguments);
  const std::wstring& file = arguments.Operands()[0];
  const std::wstring out = arguments.Get(L"--out", (file + L".sig").c_str());
  const Bytes hash = HashOfFile(algorithm, file);
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  const Bytes signature = SignHash(key, algorithm, hash);
  WriteWholeFile(out, signature);
  Say(L"Signed " + Quoted(file) + L" (" + algorithm.title + L") with the key " + Quoted(key.name) + L": " +
      std::to_wstring(signature.size()) + L" bytes in " + Quoted(out));
  return kExitOk;
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

int Verify(const Arguments& arguments) {
  const HashAlgorithm& algorithm = ChosenHash(arguments);
  const std::wstring& file = arguments.Operands()[0];
  Bytes signature = ReadWholeFile(arguments.Require(L"--signature"));
  const Bytes hash = HashOfFile(algorithm, file);
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  const SECURITY_STATUS status =
      IsRsa(key) ? VerifyRsa(key, algorithm, hash, signature) : VerifyHash(key, nullptr, hash, signature);
  if (status == NTE_BAD_SIGNATURE || status == NTE_FAIL) {
    // Some providers have no status of their own for a signature that does not match.
    throw Failure(L"The signature of " + Quoted(file) + L" does not match: " + DescribeStatus(status));
  }
  Check(status, L"Verifying the signature of " + Quoted(file));
  Say(L"The signature of " + Quoted(file) + L" (" + algorithm.title + L") by the key " + Quoted(key.name) +
      L" is good");
  return kExitOk;
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
  Check(status, L"Signing with the key " + Quoted(key.name));
  if (size > signature.size()) throw Failure(L"Signing failed: the provider reported more bytes than it had room for");
  signature.resize(size);
  return signature;
}

std::vector<Command> SigningCommands() {
  return {
      {L"sign",
       L"FILE",
       1,
       1,
       L"Sign a file's hash with a key",
       {KeyOption(), HashOption(), {L"--out", L"SIG", L"the signature's file (default: FILE.sig)"}, ReaderOption()},
       L"The hash is computed here, through CNG; only the hash goes to the provider. The signature is\n"
       L"PKCS#1 v1.5, most significant byte first, as \"openssl dgst -verify\" takes it.",
       Sign},
      {L"verify",
       L"FILE",
       1,
       1,
       L"Verify a file's signature with a key",
       {KeyOption(), {L"--signature", L"SIG", L"the signature's file"}, HashOption(), ReaderOption()},
       L"The provider does the verification; it may ask for the PIN first.",
       Verify},
  };
}

}  // namespace keldactl
