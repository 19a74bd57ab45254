#include "cng.h"
#include "commands.h"
#include "encoding.h"
#include "files.h"
#include "key_list.h"
#include "output.h"
#include "public_key.h"
#include "unicode.h"

namespace keldactl {

Bytes ExportPublicBlob(const Key& key) {
  const std::wstring operation = L"Exporting the public key of " + TitleOf(key);
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

struct ExportOptions {
  KeyOptions key;
  std::wstring format = L"pem";
  std::optional<std::wstring> out;
};

void ExportSyntax(Syntax& syntax, ExportOptions& options) {
  AddKeyOptions(syntax, options.key);
  syntax.Choice("--format", options.format, {"pem", "der", "blob"}, "FORMAT",
                "pem or der (SubjectPublicKeyInfo), or blob (CNG's RSAPUBLICBLOB); default: pem");
  syntax.Text("--out", options.out, "FILE", "where to write it (default: PEM is shown); - is standard output");
  syntax.Check([&options] {
    if (!options.out && options.format != L"pem") throw UsageError(L"--out is missing: only PEM can be shown");
  });
}

ExitStatus ExportKey(const ExportOptions& options) {
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  Bytes content = ExportPublicBlob(key);
  if (options.format != L"blob") content = PublicKeyInfo(ParsePublicBlob(content));
  if (options.format == L"pem") content = Pem("PUBLIC KEY", content);
  WriteText(options.out, content,
            L"Exported the public key of " + TitleOf(key) + L" to " + OutName(options.out.value_or(L"")) + L".");
  return ExitStatus::kDone;
}

// What a file brings: the blob and its type in CNG's words.
struct Import {
  Bytes blob;
  const wchar_t* type;
  bool has_private_key;
};

Import ReadImport(const std::wstring& path) {
  Bytes file = ReadWholeFile(path);
  if (const std::optional<PemBlock> pem = ParsePem(file)) {
    if (pem->label == "PUBLIC KEY") return {PublicBlob(ParsePublicKeyInfo(pem->der)), BCRYPT_RSAPUBLIC_BLOB, false};
    if (pem->label == "RSA PUBLIC KEY")
      return {PublicBlob(ParsePkcs1PublicKey(pem->der)), BCRYPT_RSAPUBLIC_BLOB, false};
    throw Failure(L"The file " + InName(path) + L" holds no public key but: " + Printable(Wide(pem->label)));
  }
  switch (BlobMagic(file)) {
    case BCRYPT_RSAPUBLIC_MAGIC:
      return {std::move(file), BCRYPT_RSAPUBLIC_BLOB, false};
    case BCRYPT_RSAPRIVATE_MAGIC:
      return {std::move(file), BCRYPT_RSAPRIVATE_BLOB, true};
    case BCRYPT_RSAFULLPRIVATE_MAGIC:
      return {std::move(file), BCRYPT_RSAFULLPRIVATE_BLOB, true};
    default:
      return {PublicBlob(ParsePublicKeyInfo(file)), BCRYPT_RSAPUBLIC_BLOB, false};
  }
}

struct ImportOptions {
  ProviderOptions provider;
  std::wstring key;
  std::wstring file;
};

void ImportSyntax(Syntax& syntax, ImportOptions& options) {
  syntax.Operand("FILE", options.file, "the public key; - is standard input");
  syntax.Text("--key", options.key, "NAME", "the new key's name; on a token this becomes its label").Required();
  AddProviderOptions(syntax, options.provider);
  syntax.Notes(
      "FILE is a public key in PEM or DER, or a CNG key blob (RSAPUBLICBLOB, RSAPRIVATEBLOB,\n"
      "RSAFULLPRIVATEBLOB). Providers that keep keys on tokens take no private keys.");
}

// A provider may say yes and then refuse the handle that it gave out.
bool IsRefused(NCRYPT_KEY_HANDLE key) {
  DWORD size = 0;
  return NCryptGetProperty(key, NCRYPT_ALGORITHM_GROUP_PROPERTY, nullptr, 0, &size, 0) == NTE_INVALID_HANDLE;
}

ExitStatus ImportKey(const ImportOptions& options) {
  std::wstring name = options.key;
  Import import = ReadImport(options.file);
  const std::wstring operation = L"Importing the key " + Quoted(name);
  const Provider provider(options.provider);
  provider.RefuseUnfitName(name);
  const std::optional<std::vector<ListedKey>> before = KeysBefore(provider);
  NCryptBuffer name_buffer = {static_cast<ULONG>((name.size() + 1) * sizeof(wchar_t)), NCRYPTBUFFER_PKCS_KEY_NAME,
                              name.data()};
  NCryptBufferDesc parameters = {NCRYPTBUFFER_VERSION, 1, &name_buffer};
  NCRYPT_KEY_HANDLE handle = 0;
  SECURITY_STATUS status = NCryptImportKey(provider.handle(), 0, import.type, &parameters, &handle, import.blob.data(),
                                           static_cast<DWORD>(import.blob.size()), provider.flags());
  const NcryptHandle key(status == ERROR_SUCCESS ? handle : 0);
  if (status == ERROR_SUCCESS && IsRefused(handle)) status = NTE_INVALID_HANDLE;
  if (status != ERROR_SUCCESS && import.has_private_key) {
    throw Failure(L"The file holds a private key, and this provider does not take private keys. " + operation, status);
  }
  Check(status, operation);
  SayNewcomers(provider, before, name, L"Imported the key " + Quoted(name));
  return ExitStatus::kDone;
}

}  // namespace

void AddBlobCommands(Program& program) {
  program.Add<ExportOptions>(Heading::kKeys, "export", "Export a key's public part", ExportSyntax, ExportKey);
  program.Add<ImportOptions>(Heading::kKeys, "import", "Import a public key", ImportSyntax, ImportKey);
}

}  // namespace keldactl
