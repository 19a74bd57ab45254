#include "bcrypt/registry_text.h"

#include <utility>

namespace standin {
namespace {

std::optional<std::wstring> Read(HKEY key, const wchar_t* value, DWORD type) {
  DWORD size = 0;
  if (RegGetValueW(key, nullptr, value, type, nullptr, nullptr, &size) != ERROR_SUCCESS) return std::nullopt;
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  if (RegGetValueW(key, nullptr, value, type, nullptr, text.data(), &size) != ERROR_SUCCESS) return std::nullopt;
  text.resize(size / sizeof(wchar_t));
  return text;
}

LSTATUS Write(HKEY key, const wchar_t* value, DWORD type, const std::wstring& text) {
  return RegSetValueExW(key, value, 0, type, reinterpret_cast<const BYTE*>(text.data()),
                        static_cast<DWORD>(text.size() * sizeof(wchar_t)));
}

}  // namespace

RegistryKey RegistryKey::Open(const std::wstring& path) {
  HKEY key = nullptr;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key);
  return {status == ERROR_SUCCESS ? key : nullptr, status};
}

RegistryKey RegistryKey::Create(const std::wstring& path) {
  HKEY key = nullptr;
  const LSTATUS status =
      RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &key, nullptr);
  return {status == ERROR_SUCCESS ? key : nullptr, status};
}

RegistryKey::RegistryKey(RegistryKey&& other) noexcept
    : key_(std::exchange(other.key_, nullptr)), status_(other.status_) {}

RegistryKey::~RegistryKey() {
  if (key_ != nullptr) RegCloseKey(key_);
}

std::vector<std::wstring> RegistryKey::Subkeys() const {
  std::vector<std::wstring> names;
  wchar_t name[256];
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    if (RegEnumKeyExW(key_, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) return names;
    names.emplace_back(name, length);
  }
}

std::optional<std::wstring> RegistryKey::Text(const wchar_t* value) const {
  auto text = Read(key_, value, RRF_RT_REG_SZ);
  if (text) text->resize(text->find_last_not_of(L'\0') + 1);
  return text;
}

std::vector<std::wstring> RegistryKey::Texts(const wchar_t* value) const {
  const std::wstring all = Read(key_, value, RRF_RT_REG_MULTI_SZ).value_or(L"");
  std::vector<std::wstring> texts;
  for (std::size_t at = 0; at < all.size() && all[at] != L'\0'; at += texts.back().size() + 1)
    texts.emplace_back(all.c_str() + at);
  return texts;
}

std::optional<DWORD> RegistryKey::Number(const wchar_t* value) const {
  DWORD number = 0;
  DWORD size = sizeof(number);
  if (RegGetValueW(key_, nullptr, value, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  return number;
}

LSTATUS RegistryKey::SetText(const wchar_t* value, const std::wstring& text) const {
  return Write(key_, value, REG_SZ, text + L'\0');
}

LSTATUS RegistryKey::SetTexts(const wchar_t* value, const std::vector<std::wstring>& texts) const {
  std::wstring all;
  for (const std::wstring& text : texts)
    all += text + L'\0';
  return Write(key_, value, REG_MULTI_SZ, all + L'\0');
}

LSTATUS RegistryKey::SetNumber(const wchar_t* value, DWORD number) const {
  return RegSetValueExW(key_, value, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof(number));
}

}  // namespace standin
