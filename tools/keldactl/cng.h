// Owners of CNG's key storage handles and the calls that all commands share.
#pragma once

#include "bytes.h"
#include "failure.h"
#include "platform.h"
#include "syntax.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace keldactl {

inline constexpr const wchar_t* kNorvaleProvider = L"Norvale Token Works KSP v1.0";

// --provider, --reader and --silent.
struct ProviderOptions {
  std::optional<std::wstring> name;  // Norvale's when it is not given
  std::optional<std::wstring> reader;
  bool silent = false;
};

// --key or --nameless, and those above.
struct KeyOptions {
  ProviderOptions provider;
  std::optional<std::wstring> key;
  bool nameless = false;
};

void AddProviderOptions(Syntax& syntax, ProviderOptions& options);
void AddKeyOptions(Syntax& syntax, KeyOptions& options);

// Owns a provider or key handle.
class NcryptHandle {
 public:
  NcryptHandle() = default;
  explicit NcryptHandle(ULONG_PTR handle) : handle_(handle) {}
  NcryptHandle(NcryptHandle&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
  NcryptHandle& operator=(NcryptHandle&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  NcryptHandle(const NcryptHandle&) = delete;
  NcryptHandle& operator=(const NcryptHandle&) = delete;
  ~NcryptHandle() {
    if (handle_) NCryptFreeObject(handle_);
  }
  ULONG_PTR get() const { return handle_; }
  // Gives the handle away: NCryptDeleteKey frees the handle of the key that it deletes.
  ULONG_PTR release() { return std::exchange(handle_, 0); }

 private:
  ULONG_PTR handle_ = 0;
};

// A key as the provider's list shows it.
struct ListedKey {
  std::wstring name;
  std::wstring algorithm;
  DWORD legacy_key_spec;
};

// An open key, and the flag that its calls carry.
struct Key {
  NcryptHandle handle;
  std::wstring name;  // as the provider tells it; empty for a key without a name
  DWORD flags = 0;
};

// An open provider.
class Provider {
 public:
  // Opens the provider that --provider names; honours --silent and --reader.
  explicit Provider(const ProviderOptions& options);

  ULONG_PTR handle() const { return handle_.get(); }
  const std::wstring& name() const { return name_; }
  // NCRYPT_SILENT_FLAG or 0.
  DWORD flags() const { return flags_; }
  // Whether keys live on a token that can be drawn (by what the provider says of its implementation).
  bool KeepsKeysOnToken() const;

  // The provider's list of keys, in its order.
  std::vector<ListedKey> Keys() const;
  // The name of the key that the provider finds by this text, whatever its rules are; nothing when it finds none.
  std::optional<std::wstring> NameFoundBy(const std::wstring& text) const;
  // Throws Failure when a new key cannot get this name: a token keeps labels of at most 62 characters up to 0xFF.
  void RefuseUnfitName(const std::wstring& name) const;
  // Opens the key that --key or --nameless names and makes sure that it is that key: the provider's own name for it, or
  // its hex text, equals what was asked for in full. Throws Failure (kNotFound) otherwise.
  Key Open(const KeyOptions& options) const;

 private:
  // The key that the provider finds by this text, if any, and its name.
  struct Found {
    NcryptHandle handle;
    std::wstring name;
  };
  std::optional<Found> Find(const std::wstring& text, const std::wstring& operation) const;

  std::wstring name_;
  DWORD flags_;
  NcryptHandle handle_;
};

// A key's name and hex text as messages show them: "Key1" (4B657931).
std::wstring TitleOf(const std::wstring& name);
inline std::wstring TitleOf(const Key& key) {
  return TitleOf(key.name);
}

// A property's bytes.
SECURITY_STATUS ReadProperty(ULONG_PTR object, const wchar_t* name, Bytes* value);
// A property that is a string, or a DWORD; nothing when the provider does not answer.
std::optional<std::wstring> TextProperty(ULONG_PTR object, const wchar_t* name);
std::optional<DWORD> NumberProperty(ULONG_PTR object, const wchar_t* name);

// True unless the provider says that the key belongs to another family of algorithms.
bool IsRsa(const Key& key);

// Throws Failure unless the status is 0.
void Check(SECURITY_STATUS status, const std::wstring& operation);

// Two digits for each character of the name: the other form in which a token key can be named. Empty when a character
// has no such form.
std::wstring HexText(const std::wstring& name);

}  // namespace keldactl
