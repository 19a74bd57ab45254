#include "cng.h"
#include "commands.h"
#include "files.h"
#include "output.h"

namespace keldactl {
namespace {

// Holds what was decrypted no longer than needed.
struct WipedBytes {
  Bytes bytes;
  WipedBytes() = default;
  WipedBytes(const WipedBytes&) = delete;
  WipedBytes& operator=(const WipedBytes&) = delete;
  ~WipedBytes() { SecureZeroMemory(bytes.data(), bytes.size()); }
};

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
  SecureZeroMemory(output->data() + size, output->size() - size);
  output->resize(size);
}

int Encrypt(const Arguments& arguments) {
  const std::wstring& in = arguments.Operands()[0];
  const std::wstring& out = arguments.Operands()[1];
  WipedBytes plain;
  plain.bytes = ReadWholeFile(in);
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  // PKCS#1 v1.5 padding takes 11 bytes of the block (RFC 8017, 7.2.1).
  const std::optional<DWORD> bits = NumberProperty(key.handle.get(), NCRYPT_LENGTH_PROPERTY);
  if (bits && plain.bytes.size() + 11 > (*bits + 7) / 8) {
    throw Failure(Quoted(in) + L" is too long: a key of " + std::to_wstring(*bits) + L" bits encrypts at most " +
                  std::to_wstring((*bits + 7) / 8 < 11 ? 0 : (*bits + 7) / 8 - 11) + L" bytes");
  }
  Bytes cipher;
  Run(NCryptEncrypt, key, plain.bytes, &cipher, L"Encrypting " + Quoted(in));
  WriteWholeFile(out, cipher);
  Say(L"Encrypted " + Quoted(in) + L" for the key " + Quoted(key.name) + L": " + std::to_wstring(cipher.size()) +
      L" bytes in " + Quoted(out) + L".");
  return kExitOk;
}

int Decrypt(const Arguments& arguments) {
  const std::wstring& in = arguments.Operands()[0];
  const std::wstring& out = arguments.Operands()[1];
  Bytes cipher = ReadWholeFile(in);
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  WipedBytes plain;
  Run(NCryptDecrypt, key, cipher, &plain.bytes, L"Decrypting " + Quoted(in));
  WriteWholeFile(out, plain.bytes);
  Say(L"Decrypted " + Quoted(in) + L" with the key " + Quoted(key.name) + L": " + std::to_wstring(plain.bytes.size()) +
      L" bytes in " + Quoted(out) + L".");
  return kExitOk;
}

}  // namespace

std::vector<Command> CipherCommands() {
  return {
      {L"encrypt",
       L"IN OUT",
       2,
       2,
       L"Encrypt a short file with a key's public part",
       {KeyOption(), ReaderOption()},
       L"One block with PKCS#1 v1.5 padding, as \"openssl pkeyutl -decrypt\" takes it: IN may have the key's\n"
       L"length less 11 bytes.",
       Encrypt},
      {L"decrypt",
       L"IN OUT",
       2,
       2,
       L"Decrypt a file with a key's private part",
       {KeyOption(), ReaderOption()},
       L"IN is one block with PKCS#1 v1.5 padding, as \"openssl pkeyutl -encrypt\" makes it.",
       Decrypt},
  };
}

}  // namespace keldactl
