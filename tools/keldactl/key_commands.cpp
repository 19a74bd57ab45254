#include "cng.h"
#include "commands.h"
#include "encoding.h"
#include "newcomers.h"
#include "output.h"
#include "progress.h"
#include "property_table.h"
#include "signing.h"
#include "status.h"

#include <winscard.h>

#include <cstring>

namespace keldactl {
namespace {

int ListKeys(const Arguments& arguments) {
  const Provider provider(arguments);
  const std::vector<ListedKey> keys = provider.Keys();
  if (keys.empty()) {
    Say(L"There are no keys in " + Quoted(provider.name()) + L".");
    return kExitOk;
  }
  SayKeys(keys);
  return kExitOk;
}

std::wstring ExportPolicy(DWORD policy) {
  return FlagsInWords(policy,
                      {{NCRYPT_ALLOW_EXPORT_FLAG, L"wrapped by another key"},
                       {NCRYPT_ALLOW_PLAINTEXT_EXPORT_FLAG, L"in plain text"},
                       {NCRYPT_ALLOW_ARCHIVING_FLAG, L"once for archiving"},
                       {NCRYPT_ALLOW_PLAINTEXT_ARCHIVING_FLAG, L"once for archiving in plain text"}},
                      L"never");
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

std::wstring Lengths(const Bytes& value) {
  NCRYPT_SUPPORTED_LENGTHS lengths = {};
  if (value.size() < sizeof lengths) return L"(too short)";
  std::memcpy(&lengths, value.data(), sizeof lengths);
  return std::to_wstring(lengths.dwMinLength) + L" to " + std::to_wstring(lengths.dwMaxLength) + L" bits in steps of " +
         std::to_wstring(lengths.dwIncrement) + L", by default " + std::to_wstring(lengths.dwDefaultLength);
}

int ShowKey(const Arguments& arguments) {
  const Provider provider(arguments);
  const Key key = provider.Open(arguments);
  PropertyTable table(key.handle.get());
  table.Text(L"Name", NCRYPT_NAME_PROPERTY);
  table.Line(L"Hex text", HexText(TextProperty(key.handle.get(), NCRYPT_NAME_PROPERTY).value_or(key.name)));
  table.Text(L"Unique name", NCRYPT_UNIQUE_NAME_PROPERTY);
  table.Text(L"Algorithm", NCRYPT_ALGORITHM_PROPERTY);
  table.Text(L"Algorithm group", NCRYPT_ALGORITHM_GROUP_PROPERTY);
  table.Number(L"Length", NCRYPT_LENGTH_PROPERTY, Bits);
  table.Add(L"Lengths offered", NCRYPT_LENGTHS_PROPERTY, Lengths);
  table.Number(L"Block length", NCRYPT_BLOCK_LENGTH_PROPERTY, ByteCount);
  table.Number(L"Used for", NCRYPT_KEY_USAGE_PROPERTY, KeyUsage);
  table.Number(L"Export policy", NCRYPT_EXPORT_POLICY_PROPERTY, ExportPolicy);
  table.Number(L"Key of", NCRYPT_KEY_TYPE_PROPERTY, KeyType);
  table.Add(L"Certificate", NCRYPT_CERTIFICATE_PROPERTY, [](const Bytes& value) -> std::wstring {
    try {
      return Printable(Certificate(value).Subject());
    } catch (const Failure& failure) {
      return L"- " + failure.message();
    }
  });
  table.Add(L"Access rights", NCRYPT_SECURITY_DESCR_PROPERTY,
            [](const Bytes& value) { return ByteCount(static_cast<DWORD>(value.size())); });
  SayTable(table.rows());
  return kExitOk;
}

DWORD LegacyKeySpec(const Arguments& arguments) {
  const std::wstring spec = arguments.Get(L"--key-spec", L"");
  if (spec.empty()) return 0;
  if (spec == L"exchange") return AT_KEYEXCHANGE;
  if (spec == L"signature") return AT_SIGNATURE;
  throw UsageError(L"--key-spec is exchange or signature, not " + Quoted(spec));
}

DWORD Length(const Arguments& arguments) {
  const std::wstring text = arguments.Get(L"--length", L"");
  if (text.empty()) {
    if (arguments.Has(L"--length")) throw UsageError(L"--length needs a number of bits");
    return 0;
  }
  wchar_t* end = nullptr;
  const unsigned long bits = std::wcstoul(text.c_str(), &end, 10);
  if (*end || bits == 0 || bits > 65536 || text[0] == L'-') throw UsageError(L"not a number of bits: " + Quoted(text));
  return bits;
}

int CreateKey(const Arguments& arguments) {
  const std::wstring name = arguments.Require(L"--key");
  DWORD length = Length(arguments);
  const DWORD spec = LegacyKeySpec(arguments);
  const Provider provider(arguments);
  const std::vector<ListedKey> before = provider.Keys();

  NCRYPT_KEY_HANDLE handle = 0;
  Check(NCryptCreatePersistedKey(provider.handle(), &handle, NCRYPT_RSA_ALGORITHM, name.c_str(), spec,
                                 provider.flags() | (arguments.Has(L"--overwrite") ? NCRYPT_OVERWRITE_KEY_FLAG : 0)),
        L"Creating the key " + Quoted(name));
  const NcryptHandle key(handle);
  if (length) {
    Check(NCryptSetProperty(handle, NCRYPT_LENGTH_PROPERTY, reinterpret_cast<PBYTE>(&length), sizeof length, 0),
          L"Choosing a length of " + Bits(length));
  }
  {
    const Progress progress(L"Generating the key pair");
    Check(NCryptFinalizeKey(handle, provider.flags()), L"Generating the key pair");
  }
  SayNewcomers(before, provider.Keys(), name, L"Created the key " + Quoted(name));
  return kExitOk;
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

int DeleteKey(const Arguments& arguments) {
  const Provider provider(arguments);
  Key key = provider.Open(arguments);
  const std::wstring found = TextProperty(key.handle.get(), NCRYPT_NAME_PROPERTY).value_or(key.name);
  if (!arguments.Has(L"--yes") && !Confirm(L"Delete the key " + Quoted(found) + L" (" + HexText(found) + L") from " +
                                           Quoted(provider.name()) + L" for ever?")) {
    Complain(L"Nothing was deleted.");
    return kExitFailed;
  }
  SECURITY_STATUS status = NCryptDeleteKey(key.handle.get(), key.flags);
  if (status != ERROR_SUCCESS) {
    LogIn(key);
    status = NCryptDeleteKey(key.handle.get(), key.flags);
  }
  // The deleted key's handle is gone with it.
  if (status == ERROR_SUCCESS) key.handle.release();
  Check(status, L"Deleting the key " + Quoted(found));
  Say(L"Deleted the key " + Quoted(found) + L".");
  return kExitOk;
}

}  // namespace

std::vector<Command> KeyCommands() {
  return {
      {L"keys",
       L"",
       0,
       0,
       L"List the keys",
       {},
       L"A token key has two names: the characters that its identifier (CKA_ID) spells, and the same in\n"
       L"hexadecimal digits. Either can be given as --key; characters that do not print appear as \\xNN, and\n"
       L"then the hex text is the one to use.",
       ListKeys},
      {L"show",
       L"",
       0,
       0,
       L"Show everything that the provider tells about a key",
       {KeyOption(), ReaderOption()},
       L"",
       ShowKey},
      {L"create",
       L"",
       0,
       0,
       L"Create an RSA key pair",
       {{L"--key", L"NAME", L"the new key's name; on a token this becomes its label"},
        {L"--length", L"BITS", L"the length (default: the provider's)"},
        {L"--overwrite", nullptr, L"replace a key of this name"},
        {L"--key-spec", L"SPEC", L"exchange or signature, for programs that use CryptoAPI's key specs"}},
       L"A token may give the key an identifier of its own, under which it is found from then on; keldactl\n"
       L"tells the name and hex text.",
       CreateKey},
      {L"delete",
       L"",
       0,
       0,
       L"Delete a key for ever",
       {KeyOption(), ReaderOption(), {L"--yes", nullptr, L"do not ask"}},
       L"",
       DeleteKey},
  };
}

}  // namespace keldactl
