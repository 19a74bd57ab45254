#include "certificate_store_commands.h"
#include "cng.h"
#include "commands.h"
#include "encoding.h"
#include "key_list.h"
#include "output.h"
#include "progress.h"
#include "property_table.h"
#include "signing.h"
#include "status.h"
#include "text_rules.h"

#include <winscard.h>

#include <algorithm>
#include <cstring>

namespace keldactl {
namespace {

struct KeysOptions {
  ProviderOptions provider;
  bool json = false;
};

void KeysSyntax(Syntax& syntax, KeysOptions& options) {
  AddProviderOptions(syntax, options.provider);
  syntax.Json(options.json);
  syntax.Notes(
      "A token key has two names: the characters that its identifier (CKA_ID) spells, and the same in\n"
      "hexadecimal digits. Either can be given as --key; characters that do not print appear as \\xNN, and\n"
      "then the hex text is the one to use.");
}

ExitStatus ListKeys(const KeysOptions& options) {
  const Provider provider(options.provider);
  const std::vector<ListedKey> keys = provider.Keys();
  if (options.json) {
    SayJson({{"provider", Utf8(provider.name())}, {"keys", KeysInJson(keys)}});
  } else if (keys.empty()) {
    Say(L"There are no keys in " + Quoted(provider.name()) + L".");
  } else {
    SayKeys(keys);
  }
  WarnOfNameless(keys);
  return ExitStatus::kDone;
}

std::wstring ExportPolicy(DWORD policy) {
  return FlagsInWords(policy,
                      {{NCRYPT_ALLOW_EXPORT_FLAG, L"wrapped by another key"},
                       {NCRYPT_ALLOW_PLAINTEXT_EXPORT_FLAG, L"in plain text"},
                       {NCRYPT_ALLOW_ARCHIVING_FLAG, L"once for archiving"},
                       {NCRYPT_ALLOW_PLAINTEXT_ARCHIVING_FLAG, L"once for archiving in plain text"}},
                      L"never");
}

// A policy is a promise about what the provider would let out; a token lets no private key out whatever it says.
std::wstring TokenExportPolicy(DWORD policy) {
  return ExportPolicy(policy) + L" (says the property; only the public key ever leaves the token)";
}

std::wstring KeyUsage(DWORD usage) {
  if (usage == NCRYPT_ALLOW_ALL_USAGES) return L"everything";
  return FlagsInWords(usage,
                      {{NCRYPT_ALLOW_DECRYPT_FLAG, L"decryption"},
                       {NCRYPT_ALLOW_SIGNING_FLAG, L"signatures"},
                       {NCRYPT_ALLOW_KEY_AGREEMENT_FLAG, L"key agreement"}},
                      L"nothing");
}

std::wstring KeyType(DWORD type) {
  return (type & NCRYPT_MACHINE_KEY_FLAG) ? L"the machine's" : L"the user's";
}
std::wstring Bits(DWORD bits) {
  return std::to_wstring(bits) + L" bits";
}
std::wstring ByteCount(DWORD bytes) {
  return std::to_wstring(bytes) + L" bytes";
}

Shown Lengths(const Bytes& value) {
  NCRYPT_SUPPORTED_LENGTHS lengths = {};
  if (value.size() < sizeof lengths) return {L"- (too short)", nullptr};
  std::memcpy(&lengths, value.data(), sizeof lengths);
  return {std::to_wstring(lengths.dwMinLength) + L" to " + std::to_wstring(lengths.dwMaxLength) +
              L" bits in steps of " + std::to_wstring(lengths.dwIncrement) + L", by default " +
              std::to_wstring(lengths.dwDefaultLength),
          {{"least", lengths.dwMinLength},
           {"most", lengths.dwMaxLength},
           {"step", lengths.dwIncrement},
           {"default", lengths.dwDefaultLength}}};
}

struct ShowOptions {
  KeyOptions key;
  bool json = false;
};

void ShowSyntax(Syntax& syntax, ShowOptions& options) {
  AddKeyOptions(syntax, options.key);
  syntax.Json(options.json);
}

Shown CertificateInWords(const Bytes& value) {
  try {
    const std::wstring subject = Certificate(value).Subject();
    return {Printable(subject), Utf8(subject)};
  } catch (const Failure& failure) {
    return {L"- " + failure.message(), nullptr};
  }
}

Shown Size(const Bytes& value) {
  return {ByteCount(static_cast<DWORD>(value.size())), value.size()};
}

ExitStatus ShowKey(const ShowOptions& options) {
  const Provider provider(options.key.provider);
  const Key key = provider.Open(options.key);
  PropertyTable table(key.handle.get());
  table.Text(L"Name", "name", NCRYPT_NAME_PROPERTY);
  table.Line(L"Hex text", "hex", HexText(key.name), Utf8(HexText(key.name)));
  table.Text(L"Unique name", "unique_name", NCRYPT_UNIQUE_NAME_PROPERTY);
  table.Text(L"Algorithm", "algorithm", NCRYPT_ALGORITHM_PROPERTY);
  table.Text(L"Algorithm group", "algorithm_group", NCRYPT_ALGORITHM_GROUP_PROPERTY);
  table.Number(L"Length", "length", NCRYPT_LENGTH_PROPERTY, Bits);
  table.Add(L"Lengths offered", "lengths", NCRYPT_LENGTHS_PROPERTY, Lengths);
  table.Number(L"Block length", "block_length", NCRYPT_BLOCK_LENGTH_PROPERTY, ByteCount);
  table.Flags(L"Used for", "usage", NCRYPT_KEY_USAGE_PROPERTY, KeyUsage);
  table.Flags(L"Export policy", "export_policy", NCRYPT_EXPORT_POLICY_PROPERTY,
              provider.KeepsKeysOnToken() ? TokenExportPolicy : ExportPolicy);
  table.Flags(L"Key of", "key_type", NCRYPT_KEY_TYPE_PROPERTY, KeyType);
  table.Add(L"Certificate", "certificate", NCRYPT_CERTIFICATE_PROPERTY, CertificateInWords);
  table.Add(L"Access rights", "security_descriptor_size", NCRYPT_SECURITY_DESCR_PROPERTY, Size);
  if (options.json) {
    SayJson(table.InJson());
  } else {
    SayTable(table.rows());
  }
  return ExitStatus::kDone;
}

struct CreateOptions {
  ProviderOptions provider;
  std::wstring key;
  std::optional<uint32_t> length;
  std::wstring key_spec;
  bool overwrite = false;
  bool yes = false;
};

void CreateSyntax(Syntax& syntax, CreateOptions& options) {
  syntax.Text("--key", options.key, "NAME", "the new key's name; on a token this becomes its label").Required();
  syntax.Number("--length", options.length, "BITS", "the length (default: the provider's)", 1, 65536);
  syntax.Flag("--overwrite", options.overwrite, "replace a key of this name, which is lost then; asks before");
  syntax.Flag("--yes", options.yes, "do not ask");
  syntax.Choice("--key-spec", options.key_spec, {"exchange", "signature"}, "SPEC",
                "exchange or signature, for programs that use CryptoAPI's key specs");
  AddProviderOptions(syntax, options.provider);
  syntax.Notes(
      "--overwrite: a token keeps the name that a key was created with as a label, which the provider compares\n"
      "and does not show; what is lost is told as exactly as that allows.\n"
      "A token may give the key an identifier of its own, under which it is found from then on; keldactl\n"
      "tells the name and hex text.");
}

DWORD LegacyKeySpec(const std::wstring& spec) {
  if (spec.empty()) return 0;
  return spec == L"exchange" ? AT_KEYEXCHANGE : AT_SIGNATURE;
}

NcryptHandle BeginKey(const Provider& provider, const CreateOptions& options, DWORD flags, SECURITY_STATUS* status) {
  NCRYPT_KEY_HANDLE handle = 0;
  *status = NCryptCreatePersistedKey(provider.handle(), &handle, NCRYPT_RSA_ALGORITHM, options.key.c_str(),
                                     LegacyKeySpec(options.key_spec), provider.flags() | flags);
  return NcryptHandle(*status == ERROR_SUCCESS ? handle : 0);
}

// What will be lost, as far as it can be told: a token's keys are listed under other names than the one that they were
// created with and that is taken here.
void ConfirmOverwriting(const Provider& provider, const CreateOptions& options, const std::vector<ListedKey>& keys) {
  if (options.yes) return;
  if (!provider.KeepsKeysOnToken()) {
    Complain(L"The key " + TitleOf(options.key) + L" will be lost.");
  } else if (keys.size() == 1) {
    Complain(L"The key pair that was created as " + Quoted(options.key) + L" will be lost. It is listed as " +
             TitleOf(keys[0].name) + L".");
  } else {
    Complain(L"The key pair that was created as " + Quoted(options.key) +
             L" will be lost, and its certificate is of no use then. It is one of these; the provider does not tell "
             L"which:");
    for (const ListedKey& key : keys)
      Complain(L"  " + TitleOf(key.name));
  }
  if (!Confirm(L"Replace it by a new key in " + Quoted(provider.name()) + L"?")) {
    throw Failure(L"nothing was created and nothing was lost", ExitStatus::kCancelled);
  }
}

// A key record that will replace nothing unless the user wants that.
NcryptHandle BeginKey(const Provider& provider, const CreateOptions& options, const std::vector<ListedKey>& keys) {
  const std::wstring operation = L"Creating the key " + Quoted(options.key);
  SECURITY_STATUS status = ERROR_SUCCESS;
  NcryptHandle key = BeginKey(provider, options, 0, &status);
  if (status == NTE_EXISTS && !options.overwrite) {
    throw Failure(operation, status)
        .Advise(L"Choose another name, or replace the key with --overwrite; it is lost then.");
  }
  if (status == NTE_EXISTS) {
    ConfirmOverwriting(provider, options, keys);
    key = BeginKey(provider, options, NCRYPT_OVERWRITE_KEY_FLAG, &status);
  }
  Check(status, operation);
  return key;
}

ExitStatus CreateKey(const CreateOptions& options) {
  const Provider provider(options.provider);
  provider.RefuseUnfitName(options.key);
  const std::optional<std::vector<ListedKey>> before = KeysBefore(provider);
  const NcryptHandle key = BeginKey(provider, options, before.value_or(std::vector<ListedKey>()));
  if (options.length) {
    DWORD length = *options.length;
    Check(NCryptSetProperty(key.get(), NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&length), sizeof length, 0),
          L"Choosing a length of " + Bits(length));
  }
  {
    const Progress progress(L"Generating the key pair");
    Check(NCryptFinalizeKey(key.get(), provider.flags()), L"Generating the key pair");
  }
  SayNewcomers(provider, before, options.key, L"Created the key " + Quoted(options.key));
  return ExitStatus::kDone;
}

// A token lets only a logged-in user delete, and CNG has no call for logging in. Every use of the private key makes the
// provider ask for the PIN, so the key signs something of no use; whether it can does not matter.
void LogIn(const Key& key) {
  const HashAlgorithm& algorithm = FindHash(L"sha256");
  try {
    SignHash(key, algorithm, HashOf(algorithm, {}));
  } catch (const Failure& failure) {
    if (failure.status() == SCARD_W_CANCELLED_BY_USER || failure.status() == NTE_USER_CANCELLED ||
        failure.status() == ERROR_CANCELLED) {
      throw;
    }
  }
}

struct DeleteOptions {
  KeyOptions key;
  bool yes = false;
  bool certificates = false;
};

void DeleteSyntax(Syntax& syntax, DeleteOptions& options) {
  AddKeyOptions(syntax, options.key);
  syntax.Flag("--yes", options.yes, "do not ask");
  syntax.Flag("--certificates", options.certificates, "also take its certificates out of your certificate store");
}

// Keys of equal names cannot be told apart through CNG; the provider offers the first of them.
size_t CountOfEqualNames(const Provider& provider, const KeyOptions& options, const Key& key) {
  const std::vector<ListedKey> keys = provider.Keys();
  return static_cast<size_t>(std::count_if(keys.begin(), keys.end(), [&](const ListedKey& listed) {
    return listed.name == key.name || (options.key && NamesKey<wchar_t>(*options.key, listed.name));
  }));
}

void RefuseAmbiguous(const Provider& provider, const DeleteOptions& options, const Key& key) {
  // One nameless key is like the other.
  if (options.key.nameless) return;
  const size_t count = CountOfEqualNames(provider, options.key, key);
  if (count < 2) return;
  const std::wstring said = std::to_wstring(count) + L" keys in " + Quoted(provider.name()) + L" answer to " +
                            Quoted(*options.key.key) + L", and the provider offers only the first of them, " +
                            TitleOf(key);
  if (options.yes) throw Failure(said + L"; nothing was deleted").Advise(L"Without --yes keldactl asks about it.");
  Warn(said + L".");
}

ExitStatus DeleteKey(const DeleteOptions& options) {
  const Provider provider(options.key.provider);
  Key key = provider.Open(options.key);
  RefuseAmbiguous(provider, options, key);
  if (!options.yes &&
      !Confirm(L"Delete the key " + TitleOf(key) + L" from " + Quoted(provider.name()) + L" for ever?")) {
    throw Failure(L"nothing was deleted", ExitStatus::kCancelled);
  }
  const CertificatesOfKey certificates = FindCertificatesOfKey(provider, key);
  SECURITY_STATUS status = NCryptDeleteKey(key.handle.get(), key.flags);
  if (status != ERROR_SUCCESS) {
    LogIn(key);
    status = NCryptDeleteKey(key.handle.get(), key.flags);
  }
  // The deleted key's handle is gone with it.
  if (status == ERROR_SUCCESS) key.handle.release();
  Check(status, L"Deleting the key " + TitleOf(key));
  Say(L"Deleted the key " + TitleOf(key) + L".");
  SayWhatStays(certificates, provider.name(), options.certificates);
  return ExitStatus::kDone;
}

}  // namespace

void AddKeyCommands(Program& program) {
  program.Add<KeysOptions>(Heading::kKeys, "keys", "List the keys", KeysSyntax, ListKeys);
  program.Add<ShowOptions>(Heading::kKeys, "show", "Show everything that the provider tells about a key", ShowSyntax,
                           ShowKey);
  program.Add<CreateOptions>(Heading::kKeys, "create", "Create an RSA key pair", CreateSyntax, CreateKey);
  program.Add<DeleteOptions>(Heading::kKeys, "delete", "Delete a key for ever", DeleteSyntax, DeleteKey);
}

}  // namespace keldactl
