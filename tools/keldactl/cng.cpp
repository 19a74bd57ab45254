#include "cng.h"

#include "key_list.h"
#include "output.h"
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

void AddProviderOptions(Syntax& syntax, ProviderOptions& options) {
  constexpr const char* kGroup = "Provider";
  syntax.Text("--provider", options.name, "NAME", "the key storage provider (default: Norvale Token Works KSP v1.0)")
      .group(kGroup);
  syntax
      .Text("--reader", options.reader, "READER",
            "the reader that the provider has to work with; another one is an error (\"keldactl readers\" lists them)")
      .group(kGroup);
  syntax
      .Flag("--silent", options.silent,
            "tell the provider not to ask the user: the Norvale provider then takes the first of several readers "
            "without asking, but its PIN dialog comes up all the same")
      .group(kGroup);
}

void AddKeyOptions(Syntax& syntax, KeyOptions& options) {
  CLI::Option& key = syntax.Text("--key", options.key, "NAME",
                                 "the key, by its name or the hex text that \"keldactl keys\" shows, in full");
  syntax.Flag("--nameless", options.nameless, "the key without a name that comes first in the list, instead of --key")
      .excludes(&key);
  syntax.Check([&options] {
    if (!options.key && !options.nameless) throw UsageError(L"--key is missing");
    if (options.key && options.key->empty()) throw UsageError(L"--key is empty; --nameless is the key without a name");
  });
  AddProviderOptions(syntax, options.provider);
}

Provider::Provider(const ProviderOptions& options)
    : name_(options.name.value_or(kNorvaleProvider)), flags_(options.silent ? NCRYPT_SILENT_FLAG : 0) {
  NCRYPT_PROV_HANDLE handle = 0;
  Check(NCryptOpenStorageProvider(&handle, name_.c_str(), flags_), L"Opening the provider " + Quoted(name_));
  handle_ = NcryptHandle(handle);
}

bool Provider::KeepsKeysOnToken() const {
  return (NumberProperty(handle(), NCRYPT_IMPL_TYPE_PROPERTY).value_or(0) & NCRYPT_IMPL_REMOVABLE_FLAG) != 0;
}

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
                      (offered ? L"; the provider offered " + TitleOf(*offered) + L" instead" : L""),
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

Key Provider::Open(const KeyOptions& options) const {
  const std::wstring operation = L"Opening the " + Asked(options);
  const std::wstring text = options.nameless ? NameOfNone(Keys()) : *options.key;
  NCRYPT_KEY_HANDLE handle = 0;
  const SECURITY_STATUS status = NCryptOpenKey(handle_.get(), &handle, text.c_str(), 0, flags_);
  if (SaysNoSuchKey(status)) throw NoSuchKey(*this, options, std::nullopt);
  Check(status, operation);
  NcryptHandle owner(handle);
  const std::optional<std::wstring> name = NameOf(*this, owner, operation);
  const bool right = name && (options.nameless ? name->empty() : NamesKey<wchar_t>(*options.key, *name));
  if (!right) throw NoSuchKey(*this, options, name);
  return {std::move(owner), *name, flags_};
}

std::wstring TitleOf(const std::wstring& name) {
  if (name.empty()) return L"the key without a name";
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
