#include "cng.h"
#include "commands.h"
#include "encoding.h"
#include "files.h"
#include "newcomers.h"
#include "output.h"
#include "public_key.h"

namespace keldactl {

Bytes ExportPublicBlob(const Key& key) {
  const std::wstring operation = L"Exporting the public key of " + Quoted(key.name);
  DWORD size = 0;
  Check(NCryptExportKey(key.handle.get(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, nullptr, 0, &size, key.flags), operation);
  Bytes blob(size);
  Check(NCryptExportKey(key.handle.get(), 0, BCRYPT_RSAPUBLIC_BLOB, nullptr, blob.data(), size, &size, key.flags),
        operation);
  if (size > blob.size()) throw Failure(operation + L" failed: the provider reported more bytes than it had room for");
  blob.resize(size);
  return blob;
}

RsaPublicKey PublicKeyOf(const Key& key) {
  return ParsePublicBlob(ExportPublicBlob(key));
}

namespace {

int ExportKey(const Arguments& arguments) {
  const std::wstring format = arguments.Get(L"--format", L"pem");
  if (format != L"blob" && format != L"pem" && format != L"der") {
    throw UsageError(L"--format is blob, pem or der, not " + Quoted(format));
  }
  const std::optional<std::wstring> out = arguments.Find(L"--out");
  if (!out && format != L"pem") throw UsageError(L"--out is missing: only PEM can be shown");
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  Bytes content = ExportPublicBlob(key);
  if (format != L"blob") content = PublicKeyInfo(ParsePublicBlob(content));
  if (format == L"pem") content = Pem("PUBLIC KEY", content);
  if (!out) {
    std::wstring text(content.begin(), content.end());
    text.pop_back();
    Say(text);
    return kExitOk;
  }
  WriteWholeFile(*out, content);
  Say(L"Exported the public key of " + Quoted(key.name) + L" to " + Quoted(*out) + L".");
  return kExitOk;
}

// What a file brings: the blob and its type in CNG's words.
struct Import {
  Bytes blob;
  const wchar_t* type;
  bool has_private_key;
};

Import ReadImport(const std::wstring& path) {
  const Bytes file = ReadWholeFile(path);
  if (const std::optional<PemBlock> pem = ParsePem(file)) {
    if (pem->label == "PUBLIC KEY") return {PublicBlob(ParsePublicKeyInfo(pem->der)), BCRYPT_RSAPUBLIC_BLOB, false};
    if (pem->label == "RSA PUBLIC KEY")
      return {PublicBlob(ParsePkcs1PublicKey(pem->der)), BCRYPT_RSAPUBLIC_BLOB, false};
    throw Failure(L"The file " + Quoted(path) + L" holds no public key but: " +
                  std::wstring(pem->label.begin(), pem->label.end()));
  }
  switch (BlobMagic(file)) {
    case BCRYPT_RSAPUBLIC_MAGIC:
      return {file, BCRYPT_RSAPUBLIC_BLOB, false};
    case BCRYPT_RSAPRIVATE_MAGIC:
      return {file, BCRYPT_RSAPRIVATE_BLOB, true};
    case BCRYPT_RSAFULLPRIVATE_MAGIC:
      return {file, BCRYPT_RSAFULLPRIVATE_BLOB, true};
    default:
      return {PublicBlob(ParsePublicKeyInfo(file)), BCRYPT_RSAPUBLIC_BLOB, false};
  }
}

int ImportKey(const Arguments& arguments) {
  std::wstring name = arguments.Require(L"--key");
  Import import = ReadImport(arguments.Operands()[0]);
  const std::wstring operation = L"Importing the key " + Quoted(name);
  const Provider provider(arguments);
  const std::vector<ListedKey> before = provider.Keys();
  NCryptBuffer name_buffer = {static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), NCRYPTBUFFER_PKCS_KEY_NAME,
                              name.data()};
  NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, 1, &name_buffer};
  NCRYPT_KEY_HANDLE handle = 0;
  SECURITY_STATUS status = NCryptImportKey(provider.handle(), 0, import.type, &parameters, &handle, import.blob.data(),
                                           static_cast<DWORD>(import.blob.size()), provider.flags());
  SecureZeroMemory(import.blob.data(), import.blob.size());
  const NcryptHandle key(status == ERROR_SUCCESS ? handle : 0);
  if (status == ERROR_SUCCESS) {
    // A provider may say yes and then refuse the handle that it gave out.
    DWORD size = 0;
    if (NCryptGetProperty(handle, NCRYPT_ALGORITHM_GROUP_PROPERTY, nullptr, 0, &size, 0) == NTE_INVALID_HANDLE) {
      status = NTE_INVALID_HANDLE;
    }
  }
  if (status != ERROR_SUCCESS && import.has_private_key) {
    throw Failure(L"The file holds a private key, and this provider does not take private keys. " + operation, status);
  }
  Check(status, operation);
  SayNewcomers(before, provider.Keys(), name, L"Imported the key " + Quoted(name));
  return kExitOk;
}

}  // namespace

std::vector<Command> BlobCommands() {
  return {
      {L"export",
       L"",
       0,
       0,
       L"Export a key's public part",
       {KeyOption(),
        {L"--format", L"FORMAT", L"pem or der (SubjectPublicKeyInfo), or blob (CNG's RSAPUBLICBLOB); default: pem"},
        {L"--out", L"FILE", L"where to write it (default: PEM is shown)"},
        ReaderOption()},
       L"",
       ExportKey},
      {L"import",
       L"FILE",
       1,
       1,
       L"Import a public key",
       {{L"--key", L"NAME", L"the new key's name; on a token this becomes its label"}},
       L"FILE is a public key in PEM or DER, or a CNG key blob (RSAPUBLICBLOB, RSAPRIVATEBLOB,\n"
       L"RSAFULLPRIVATEBLOB). Providers that keep keys on tokens take no private keys.",
       ImportKey},
  };
}

}  // namespace keldactl
