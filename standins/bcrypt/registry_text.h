// The kinds of values that CNG's configuration consists of.
#ifndef KELDA_STANDINS_BCRYPT_REGISTRY_TEXT_H_
#define KELDA_STANDINS_BCRYPT_REGISTRY_TEXT_H_

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace standin {

// An open key below HKEY_LOCAL_MACHINE; empty when it could not be opened.
class RegistryKey {
 public:
  static RegistryKey Open(const std::wstring& path);
  static RegistryKey Create(const std::wstring& path);
  RegistryKey(RegistryKey&& other) noexcept;
  RegistryKey(const RegistryKey&) = delete;
  RegistryKey& operator=(const RegistryKey&) = delete;
  RegistryKey& operator=(RegistryKey&&) = delete;
  ~RegistryKey();

  // ERROR_SUCCESS, or why it could not be opened.
  LSTATUS status() const { return status_; }
  explicit operator bool() const { return key_ != nullptr; }

  std::vector<std::wstring> Subkeys() const;
  std::optional<std::wstring> Text(const wchar_t* value) const;
  // A missing value is an empty list.
  std::vector<std::wstring> Texts(const wchar_t* value) const;
  std::optional<DWORD> Number(const wchar_t* value) const;

  LSTATUS SetText(const wchar_t* value, const std::wstring& text) const;
  LSTATUS SetTexts(const wchar_t* value, const std::vector<std::wstring>& texts) const;
  LSTATUS SetNumber(const wchar_t* value, DWORD number) const;

 private:
  RegistryKey(HKEY key, LSTATUS status) : key_(key), status_(status) {}

  HKEY key_;
  LSTATUS status_;
};

}  // namespace standin

#endif  // KELDA_STANDINS_BCRYPT_REGISTRY_TEXT_H_
