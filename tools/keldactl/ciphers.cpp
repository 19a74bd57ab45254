#include "cng.h"
#include "commands.h"
#include "files.h"
#include "output.h"

namespace keldactl {
namespace {

using CipherFunction = decltype(&NCryptEncrypt);

void Run(CipherFunction function, const Key& key, Bytes& input, Bytes* output, const std::wstring& operation) {
  DWORD size = 0;
  // Room for every RSA key in use; asking for the size would cost a private key operation on the token.
  output->resize(4096);
  Check(function(key.handle.get(), input.data(), static_cast<DWORD>(input.size()), nullptr, output->data(),
                 static_cast<DWORD>(output->size()), &size, NCRYPT_PAD_PKCS1_FLAG | key.flags),
        operation);
  if (size > output->size())
    throw Failure(operation + L" failed: the provider reported more bytes than it had room for");
  output->resize(size);
}

struct CipherOptions {
  KeyOptions key;
  std::wstring in;
  std::wstring out;
};

void EncryptSyntax(Syntax& syntax, CipherOptions& options) {
  syntax.Operand("IN", options.in, "the file to encrypt; - is standard input");
  syntax.Operand("OUT", options.out, "the encrypted file; - is standard output");
  AddKeyOptions(syntax, options.key);
  syntax.Notes(
      "One block with PKCS#1 v1.5 padding, as \"openssl pkeyutl -decrypt\" takes it: IN may have the key's\n"
      "length less 11 bytes.");
}

void DecryptSyntax(Syntax& syntax, CipherOptions& options) {
  syntax.Operand("IN", options.in, "the file to decrypt; - is standard input");
  syntax.Operand("OUT", options.out, "the decrypted file; - is standard output");
  AddKeyOptions(syntax, options.key);
  syntax.Notes("IN is one block with PKCS#1 v1.5 padding, as \"openssl pkeyutl -encrypt\" makes it.");
}

// PKCS#1 v1.5 padding takes 11 bytes of the block (RFC 8017, 7.2.1).
void RefuseTooLong(const Key& key, const std::wstring& in, size_t size) {
  const std::optional<DWORD> bits = NumberProperty(key.handle.get(), NCRYPT_LENGTH_PROPERTY);
  if (!bits || size + 11 <= (*bits + 7) / 8) return;
  throw Failure(InName(in) + L" is too long: a key of " + std::to_wstring(*bits) + L" bits encrypts at most " +
                std::to_wstring((*bits + 7) / 8 < 11 ? 0 : (*bits + 7) / 8 - 11) + L" bytes");
}

ExitStatus Encrypt(const CipherOptions& options) {
  Bytes plain = ReadWholeFile(options.in);
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  RefuseTooLong(key, options.in, plain.size());
  Bytes cipher;
  Run(NCryptEncrypt, key, plain, &cipher, L"Encrypting " + InName(options.in) + L" for the key " + TitleOf(key));
  WriteWholeFile(options.out, cipher);
  SayUnlessPiped(options.out, L"Encrypted " + InName(options.in) + L" for the key " + TitleOf(key) + L": " +
                                  std::to_wstring(cipher.size()) + L" bytes in " + OutName(options.out) + L".");
  return ExitStatus::kDone;
}

ExitStatus Decrypt(const CipherOptions& options) {
  Bytes cipher = ReadWholeFile(options.in);
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  Bytes plain;
  Run(NCryptDecrypt, key, cipher, &plain, L"Decrypting " + InName(options.in) + L" with the key " + TitleOf(key));
  WriteWholeFile(options.out, plain);
  SayUnlessPiped(options.out, L"Decrypted " + InName(options.in) + L" with the key " + TitleOf(key) + L": " +
                                  std::to_wstring(plain.size()) + L" bytes in " + OutName(options.out) + L".");
  return ExitStatus::kDone;
}

}  // namespace

void AddCipherCommands(Program& program) {
  program.Add<CipherOptions>(Heading::kUse, "encrypt", "Encrypt a short file with a key's public part", EncryptSyntax,
                             Encrypt);
  program.Add<CipherOptions>(Heading::kUse, "decrypt", "Decrypt a file with a key's private part", DecryptSyntax,
                             Decrypt);
}

}  // namespace keldactl
