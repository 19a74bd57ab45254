#include "registry.h"

#include "failure.h"
#include "output.h"

#include <utility>

namespace keldactl {
namespace {

void Check(LSTATUS status, const std::wstring& operation) {
  if (status != ERROR_SUCCESS) throw Failure(operation, status);
}

}  // namespace

std::optional<RegistryKey> RegistryKey::Open(const std::wstring& path, REGSAM view, REGSAM rights) {
  HKEY key = nullptr;
  const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, rights | view, &key);
  if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) return std::nullopt;
  Check(status, L"Opening the registry key " + Quoted(L"HKEY_LOCAL_MACHINE\\" + path));
  return RegistryKey(key);
}

RegistryKey RegistryKey::Create(const std::wstring& path, REGSAM view) {
  HKEY key = nullptr;
  Check(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE | view, nullptr, &key,
                        nullptr),
        L"Making the registry key " + Quoted(L"HKEY_LOCAL_MACHINE\\" + path));
  return RegistryKey(key);
}

RegistryKey::RegistryKey(RegistryKey&& other) noexcept : key_(std::exchange(other.key_, nullptr)) {}

RegistryKey::~RegistryKey() {
  if (key_) RegCloseKey(key_);
}

std::optional<std::wstring> RegistryKey::Read(const wchar_t* value, DWORD type) const {
  DWORD size = 0;
  if (RegGetValueW(key_, nullptr, value, type, nullptr, nullptr, &size) != ERROR_SUCCESS) return std::nullopt;
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  if (RegGetValueW(key_, nullptr, value, type, nullptr, text.data(), &size) != ERROR_SUCCESS) return std::nullopt;
  text.resize(size / sizeof(wchar_t));
  return text;
}

std::optional<std::wstring> RegistryKey::Text(const wchar_t* value) const {
  std::optional<std::wstring> text = Read(value, RRF_RT_REG_SZ);
  if (text) text = std::wstring(text->c_str());
  return text;
}

std::optional<std::vector<std::wstring>> RegistryKey::Texts(const wchar_t* value) const {
  const std::optional<std::wstring> all = Read(value, RRF_RT_REG_MULTI_SZ);
  if (!all) return std::nullopt;
  std::vector<std::wstring> texts;
  for (size_t at = 0; at < all->size() && (*all)[at]; at += texts.back().size() + 1)
    texts.emplace_back(all->c_str() + at);
  return texts;
}

std::optional<uint32_t> RegistryKey::Number(const wchar_t* value) const {
  DWORD number = 0;
  DWORD size = sizeof number;
  if (RegGetValueW(key_, nullptr, value, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  return number;
}

bool RegistryKey::Has(const wchar_t* value) const {
  return RegQueryValueExW(key_, value, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}

bool RegistryKey::IsEmpty() const {
  DWORD keys = 0;
  DWORD values = 0;
  return RegQueryInfoKeyW(key_, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr, nullptr,
                          nullptr) == ERROR_SUCCESS &&
         keys == 0 && values == 0;
}

void RegistryKey::Write(const wchar_t* value, DWORD type, const void* data, size_t size) const {
  Check(RegSetValueExW(key_, value, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)),
        L"Writing the registry value " + Quoted(value));
}

void RegistryKey::SetText(const wchar_t* value, const std::wstring& text) const {
  Write(value, REG_SZ, text.c_str(), (text.size() + 1) * sizeof(wchar_t));
}

void RegistryKey::SetTexts(const wchar_t* value, const std::vector<std::wstring>& texts) const {
  std::wstring all;
  for (const std::wstring& text : texts)
    all += text + L'\0';
  Write(value, REG_MULTI_SZ, all.c_str(), (all.size() + 1) * sizeof(wchar_t));
}

void RegistryKey::SetNumber(const wchar_t* value, uint32_t number) const {
  Write(value, REG_DWORD, &number, sizeof number);
}

void RegistryKey::Remove(const wchar_t* value) const {
  const LSTATUS status = RegDeleteValueW(key_, value);
  if (status != ERROR_FILE_NOT_FOUND) Check(status, L"Removing the registry value " + Quoted(value));
}

void RemoveEmptyKey(const std::wstring& path, REGSAM view) {
  {
    const std::optional<RegistryKey> key = RegistryKey::Open(path, view);
    if (!key || !key->IsEmpty()) return;
  }
  RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), view, 0);
}

}  // namespace keldactl
