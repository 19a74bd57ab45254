#include "cng.h"

#include "output.h"

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

const Option& KeyOption() {
  static const Option option = {L"--key", L"NAME",
                                L"the key, by its name or the hex text that \"keldactl keys\" shows"};
  return option;
}

const Option& ReaderOption() {
  static const Option option = {L"--reader", L"READER", L"the reader that holds the key's token"};
  return option;
}

Provider::Provider(const Arguments& arguments)
    : name_(arguments.Get(L"--provider", L"Norvale Token Works KSP v1.0")),
      flags_(arguments.Has(L"--silent") ? NCRYPT_SILENT_FLAG : 0) {
  NCRYPT_PROV_HANDLE handle = 0;
  Check(NCryptOpenStorageProvider(&handle, name_.c_str(), flags_), L"Opening the provider " + Quoted(name_));
  handle_ = NcryptHandle(handle);
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

Key Provider::Open(const Arguments& arguments) const {
  const std::wstring name = arguments.Require(L"--key");
  const std::optional<std::wstring> reader = arguments.Find(L"--reader");
  return Open(reader ? L"\\\\.\\" + *reader + L"\\" + name : name);
}

Key Provider::Open(const std::wstring& name) const {
  const std::wstring operation = L"Opening the key " + Quoted(name);
  NCRYPT_KEY_HANDLE handle = 0;
  Check(NCryptOpenKey(handle_.get(), &handle, name.c_str(), 0, flags_), operation);
  Key key{NcryptHandle(handle), name, flags_};
  // A provider may hand out a handle for a name that it does not know and refuse the handle afterwards.
  DWORD size = 0;
  if (NCryptGetProperty(handle, NCRYPT_ALGORITHM_GROUP_PROPERTY, nullptr, 0, &size, 0) == NTE_INVALID_HANDLE) {
    throw Failure(operation, NTE_BAD_KEYSET);
  }
  return key;
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
  constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
  std::wstring text;
  for (const wchar_t c : name) {
    if (c > 0xFF) return {};
    text += kDigits[c >> 4];
    text += kDigits[c & 0xF];
  }
  return text;
}

}  // namespace keldactl
