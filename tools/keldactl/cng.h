// Owners of CNG's key storage handles and the calls that all commands share.
#pragma once

#include "arguments.h"
#include "platform.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace keldactl {

using Bytes = std::vector<uint8_t>;

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
  std::wstring name;
  DWORD flags = 0;
};

// An open provider.
class Provider {
 public:
  // Opens the provider that --provider names; honours --silent.
  explicit Provider(const Arguments& arguments);

  ULONG_PTR handle() const { return handle_.get(); }
  const std::wstring& name() const { return name_; }
  // NCRYPT_SILENT_FLAG or 0.
  DWORD flags() const { return flags_; }

  std::vector<ListedKey> Keys() const;
  // Opens the key that --key names, in the reader that --reader names.
  Key Open(const Arguments& arguments) const;
  Key Open(const std::wstring& name) const;

 private:
  std::wstring name_;
  DWORD flags_;
  NcryptHandle handle_;
};

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

const Option& KeyOption();
const Option& ReaderOption();

}  // namespace keldactl
