// Keys and values below HKEY_LOCAL_MACHINE, in the view of either width.
#pragma once

#include "platform.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace keldactl {

class RegistryKey {
 public:
  // Nothing when the key is not there; throws Failure for everything else. `view` is KEY_WOW64_64KEY, KEY_WOW64_32KEY
  // or 0 for the program's own.
  static std::optional<RegistryKey> Open(const std::wstring& path, REGSAM view, REGSAM rights = KEY_READ);
  // Makes the key when it is not there; throws Failure.
  static RegistryKey Create(const std::wstring& path, REGSAM view);

  RegistryKey(RegistryKey&& other) noexcept;
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;
  RegistryKey& operator=(RegistryKey&&) = delete;
  ~RegistryKey();

  // Nothing when the value is missing or of another type.
  std::optional<std::wstring> Text(const wchar_t* value) const;
  std::optional<std::vector<std::wstring>> Texts(const wchar_t* value) const;
  std::optional<uint32_t> Number(const wchar_t* value) const;
  // Of any type.
  bool Has(const wchar_t* value) const;
  // Neither values nor subkeys.
  bool IsEmpty() const;

  // All throw Failure.
  void SetText(const wchar_t* value, const std::wstring& text) const;
  void SetTexts(const wchar_t* value, const std::vector<std::wstring>& texts) const;
  void SetNumber(const wchar_t* value, uint32_t number) const;
  // A value that is not there is no failure.
  void Remove(const wchar_t* value) const;

 private:
  explicit RegistryKey(HKEY key) : key_(key) {}
  std::optional<std::wstring> Read(const wchar_t* value, DWORD type) const;
  void Write(const wchar_t* value, DWORD type, const void* data, size_t size) const;

  HKEY key_;
};

// Removes a key that has neither values nor subkeys; any other stays.
void RemoveEmptyKey(const std::wstring& path, REGSAM view);

}  // namespace keldactl
