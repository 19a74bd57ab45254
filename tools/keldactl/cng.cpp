#include "cng.h"

#include "key_list.h"
#include "output.h"
#include "readers.h"
#include "text_rules.h"

#include <algorithm>
#include <cstring>

namespace keldactl {
namespace {

// Frees what the key storage functions hand out.
class NcryptBuffer {
 public:
  explicit NcryptBuffer(void* buffer) : buffer_(buffer) {}
  NcryptBuffer(const NcryptBuffer&) = delete;
  NcryptBuffer& operator=(const NcryptBuffer&) = delete;
  ~NcryptBuffer() {
    if (buffer_) NCryptFreeBuffer(buffer_);
  }

 private:
  void* buffer_;
};

}  // namespace

void Check(SECURITY_STATUS status, const std::wstring& operation) {
  if (status != ERROR_SUCCESS) throw Failure(operation, status);
}

namespace {

// Programs show a token key's name with its reader in front: \\.\READER\KEY.
void SplitQualifiedName(KeyOptions& options) {
  constexpr std::wstring_view kBegin = L"\\\\.\\";
  if (!options.key || !options.key->starts_with(kBegin)) return;
  const size_t end = options.key->find(L'\\', kBegin.size());
  if (end == std::wstring::npos) return;
  const std::wstring reader = options.key->substr(kBegin.size(), end - kBegin.size());
  if (options.provider.reader && *options.provider.reader != reader) {
    throw UsageError(L"--key names the reader " + Quoted(reader) + L" and --reader " +
                     Quoted(*options.provider.reader));
  }
  options.provider.reader = reader;
  options.key->erase(0, end + 1);
}

}  // namespace

void AddProviderOptions(Syntax& syntax, ProviderOptions& options) {
  constexpr const char* kGroup = "Provider";
  syntax.Text("--provider", options.name, "NAME", "the key storage provider (default: Norvale Token Works KSP v1.0)")
      .Under(kGroup);
  syntax
      .Text("--reader", options.reader, "READER",
            "the reader that the provider has to work with; another one is an error (\"keldactl readers\" lists them)")
      .Under(kGroup);
  syntax
      .Flag("--silent", options.silent,
            "tell the provider not to ask the user: the Norvale provider then takes the first of several readers "
            "without asking, but its PIN dialog comes up all the same")
      .Under(kGroup);
}

void AddKeyOptions(Syntax& syntax, KeyOptions& options) {
  const Option key = syntax.Text("--key", options.key, "NAME",
                                 "the key, by its name or the hex text that \"keldactl keys\" shows, in full");
  syntax.Flag("--nameless", options.nameless, "the key without a name that comes first in the list, instead of --key")
      .Excludes(key);
  syntax.Check([&options] {
    SplitQualifiedName(options);
    if (!options.key && !options.nameless) throw UsageError(L"--key is missing");
    if (options.key && options.key->empty()) throw UsageError(L"--key is empty; --nameless is the key without a name");
  });
  AddProviderOptions(syntax, options.provider);
}

namespace {

// A provider that finds no token says only that it failed. What the readers show, told as far as they can be asked.
void AdviseAboutReaders(Failure& failure) {
  try {
    const std::vector<Reader> readers = ListReaders();
    const bool holds =
        std::any_of(readers.begin(), readers.end(), [](const Reader& reader) { return reader.has_token; });
    if (holds) {
      failure.Advise(L"Readers with a token: " + ReadersWithToken(readers) +
                     L". In the reader dialog only one of these will do.");
      return;
    }
    failure.EndWith(ExitStatus::kNotFound)
        .Advise(readers.empty() ? L"There is no reader: connect one, put the token into it and try again."
                                : L"No reader holds a token: put the token in and try again.");
  } catch (const Failure& service) {
    failure.Advise(service.message() + L". " + service.advice());
  }
}

Failure CannotOpen(const std::wstring& name, SECURITY_STATUS status) {
  Failure failure(L"Opening the provider " + Quoted(name), status);
  if (status == NTE_NOT_FOUND || status == NTE_KEYSET_NOT_DEF) {
    failure.EndWith(ExitStatus::kNotFound)
        .Advise(L"No provider of this name is registered on this machine for programs of this width.");
  }
  if (status == NTE_FAIL || status == NTE_INTERNAL_ERROR) AdviseAboutReaders(failure);
  return failure;
}

}  // namespace

Provider::Provider(const ProviderOptions& options)
    : name_(options.name.value_or(kNorvaleProvider)), flags_(options.silent ? NCRYPT_SILENT_FLAG : 0) {
  // Before the provider asks the user to choose what cannot be right.
  if (options.reader) RequireTokenIn(*options.reader);
  NCRYPT_PROV_HANDLE handle = 0;
  const SECURITY_STATUS status = NCryptOpenStorageProvider(&handle, name_.c_str(), flags_);
  if (status != ERROR_SUCCESS) throw CannotOpen(name_, status);
  handle_ = NcryptHandle(handle);
  if (options.reader) RequireReader(*this, *options.reader);
}

bool Provider::KeepsKeysOnToken() const {
  return (NumberProperty(handle(), NCRYPT_IMPL_TYPE_PROPERTY).value_or(0) & NCRYPT_IMPL_REMOVABLE_FLAG) != 0;
}

namespace {

Failure CannotList(SECURITY_STATUS status) {
  return Failure(L"Listing the keys", status)
      .Advise(
          L"One key on the token that is not an RSA key is enough for that: the provider then lists none of them. It "
          L"still opens those that stand in front of it. The token maker's tools or pkcs11-tool can remove it.");
}

}  // namespace

std::vector<ListedKey> Provider::Keys() const {
  std::vector<ListedKey> keys;
  void* state = nullptr;
  for (;;) {
    NCryptKeyName* entry = nullptr;
    const SECURITY_STATUS status = NCryptEnumKeys(handle(), nullptr, &entry, &state, flags_);
    const NcryptBuffer owner(entry);
    if (status != ERROR_SUCCESS) {
      const NcryptBuffer state_owner(state);
      if (status == NTE_NO_MORE_ITEMS) return keys;
      if (KeepsKeysOnToken()) throw CannotList(status);
      Check(status, L"Listing the keys");
    }
    if (!entry) throw Failure(L"Listing the keys failed: the provider reported a key without its name");
    keys.push_back(
        {entry->pszName ? entry->pszName : L"", entry->pszAlgid ? entry->pszAlgid : L"", entry->dwLegacyKeySpec});
  }
}

namespace {

std::wstring Asked(const KeyOptions& options) {
  return options.nameless ? std::wstring(L"key without a name") : L"key " + Quoted(*options.key);
}

// A name that no named key answers to, so that only one without a name can be found by it: it begins like none of them,
// and is no hex text.
std::wstring NameOfNone(const std::vector<ListedKey>& keys) {
  for (const wchar_t* c = L"?*<>|:/+=~"; *c; ++c) {
    const bool taken = std::any_of(keys.begin(), keys.end(),
                                   [&](const ListedKey& key) { return !key.name.empty() && key.name[0] == *c; });
    if (!taken) return std::wstring(1, *c);
  }
  throw Failure(L"The key without a name cannot be told from the others in this list");
}

// The key is not there. Finds out what the user should know: listing may fail where opening did not.
Failure NoSuchKey(const Provider& provider, const KeyOptions& options, const std::optional<std::wstring>& offered) {
  Failure failure(L"no " + Asked(options) + L" in " + Quoted(provider.name()) +
                      (offered ? std::wstring(L"; the provider offered ") + (offered->empty() ? L"the key " : L"") +
                                     TitleOf(*offered) + L" instead"
                               : L""),
                  ExitStatus::kNotFound);
  std::wstring advice;
  try {
    advice = NamelessAdvice(provider.Keys());
  } catch (const Failure& listing) {
    advice = listing.message() + L". " + listing.advice();
  }
  if (advice.empty()) {
    advice = provider.KeepsKeysOnToken()
                 ? L"Keys on a token are found under their identifier, not under the name that they were created with; "
                   L"\"keldactl keys\" lists both forms of it."
                 : L"\"keldactl keys\" lists the keys.";
  }
  return failure.Advise(advice);
}

// Statuses with which providers say that there is no key of a name.
bool SaysNoSuchKey(SECURITY_STATUS status) {
  return status == NTE_BAD_KEYSET || status == NTE_NOT_FOUND || status == NTE_NO_KEY;
}

// The name of an open key as the provider tells it. Nothing when there is no key behind the handle: a provider may hand
// out a handle for a name that it does not know and refuse the handle afterwards.
std::optional<std::wstring> NameOf(const Provider& provider, const NcryptHandle& key, const std::wstring& operation) {
  Bytes value;
  const SECURITY_STATUS status = ReadProperty(key.get(), NCRYPT_NAME_PROPERTY, &value);
  if (status == NTE_INVALID_HANDLE) return std::nullopt;
  // A token key may have no name at all.
  if (status == NTE_NOT_SUPPORTED && provider.KeepsKeysOnToken()) return std::wstring();
  Check(status, operation + L" and asking for its name");
  return TextProperty(key.get(), NCRYPT_NAME_PROPERTY).value_or(L"");
}

}  // namespace

void Provider::RefuseUnfitName(const std::wstring& name) const {
  if (name.empty()) throw UsageError(L"--key is empty: a new key needs a name");
  if (!KeepsKeysOnToken()) return;
  // The provider would give the key an empty label instead, without a word.
  constexpr size_t kMost = 62;
  if (name.size() > kMost) {
    throw Failure(L"the name " + Quoted(name) + L" is too long: a token's label has at most " + std::to_wstring(kMost) +
                  L" characters, and this has " + std::to_wstring(name.size()));
  }
  const auto foreign = std::find_if(name.begin(), name.end(), [](wchar_t c) { return c > 0xFF; });
  if (foreign != name.end()) {
    throw Failure(L"the name " + Quoted(name) +
                  L" cannot be a token's label: the provider keeps no characters beyond "
                  L"U+00FF, such as " +
                  Quoted(std::wstring(1, *foreign)));
  }
}

std::optional<Provider::Found> Provider::Find(const std::wstring& text, const std::wstring& operation) const {
  NCRYPT_KEY_HANDLE handle = 0;
  const SECURITY_STATUS status = NCryptOpenKey(handle_.get(), &handle, text.c_str(), 0, flags_);
  if (SaysNoSuchKey(status)) return std::nullopt;
  Check(status, operation);
  NcryptHandle owner(handle);
  std::optional<std::wstring> name = NameOf(*this, owner, operation);
  if (!name) return std::nullopt;
  return Found{std::move(owner), std::move(*name)};
}

std::optional<std::wstring> Provider::NameFoundBy(const std::wstring& text) const {
  std::optional<Found> found = Find(text, L"Looking for a key");
  if (!found) return std::nullopt;
  return std::move(found->name);
}

Key Provider::Open(const KeyOptions& options) const {
  const std::wstring text = options.nameless ? NameOfNone(Keys()) : *options.key;
  std::optional<Found> found = Find(text, L"Opening the " + Asked(options));
  if (!found) throw NoSuchKey(*this, options, std::nullopt);
  const bool right = options.nameless ? found->name.empty() : NamesKey<wchar_t>(*options.key, found->name);
  if (!right) throw NoSuchKey(*this, options, found->name);
  return {std::move(found->handle), std::move(found->name), flags_};
}

std::wstring TitleOf(const std::wstring& name) {
  if (name.empty()) return L"without a name";
  const std::wstring hex = HexText(name);
  return Quoted(name) + (hex.empty() ? L"" : L" (" + hex + L")");
}

SECURITY_STATUS ReadProperty(ULONG_PTR object, const wchar_t* name, Bytes* value) {
  DWORD size = 0;
  SECURITY_STATUS status = NCryptGetProperty(object, name, nullptr, 0, &size, 0);
  if (status != ERROR_SUCCESS) return status;
  value->resize(size);
  if (size == 0) return ERROR_SUCCESS;
  status = NCryptGetProperty(object, name, value->data(), size, &size, 0);
  if (status != ERROR_SUCCESS) return status;
  if (size > value->size()) return NTE_BUFFER_TOO_SMALL;
  value->resize(size);
  return ERROR_SUCCESS;
}

std::optional<std::wstring> TextProperty(ULONG_PTR object, const wchar_t* name) {
  Bytes value;
  if (ReadProperty(object, name, &value) != ERROR_SUCCESS) return std::nullopt;
  std::wstring text(value.size() / sizeof(wchar_t), L'\0');
  std::memcpy(text.data(), value.data(), text.size() * sizeof(wchar_t));
  return std::wstring(text.c_str());
}

std::optional<DWORD> NumberProperty(ULONG_PTR object, const wchar_t* name) {
  Bytes value;
  DWORD number = 0;
  if (ReadProperty(object, name, &value) != ERROR_SUCCESS || value.size() != sizeof number) return std::nullopt;
  std::memcpy(&number, value.data(), sizeof number);
  return number;
}

bool IsRsa(const Key& key) {
  return TextProperty(key.handle.get(), NCRYPT_ALGORITHM_GROUP_PROPERTY).value_or(NCRYPT_RSA_ALGORITHM_GROUP) ==
         NCRYPT_RSA_ALGORITHM_GROUP;
}

std::wstring HexText(const std::wstring& name) {
  return HexTextOf<wchar_t>(name);
}

}  // namespace keldactl
