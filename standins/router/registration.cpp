#include "router/registration.h"

#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <string_view>

namespace router {
namespace {

constexpr wchar_t kProviders[] = L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\";
constexpr wchar_t kKeyStorageContext[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\Default\\00010001\\KEY_STORAGE";

// The text of a registry value without its terminators; a REG_MULTI_SZ keeps the zeros between its strings.
std::optional<std::wstring> ReadText(const std::wstring& key, const wchar_t* value, DWORD type) {
  DWORD size = 0;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, nullptr, nullptr, &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
  size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, nullptr, text.data(), &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  text.resize(size / sizeof(wchar_t));
  while (!text.empty() && text.back() == L'\0')
    text.pop_back();
  return text;
}

std::vector<std::wstring> ReadMultiText(const std::wstring& key, const wchar_t* value) {
  const auto text = ReadText(key, value, RRF_RT_REG_MULTI_SZ);
  std::vector<std::wstring> strings;
  if (!text || text->empty()) return strings;
  std::wstring_view rest(*text);
  for (;;) {
    const auto end = rest.find(L'\0');
    strings.emplace_back(rest.substr(0, end));
    if (end == std::wstring_view::npos) return strings;
    rest.remove_prefix(end + 1);
  }
}

bool SameName(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// A provider without a user-mode image, or whose image does not offer key storage, is none.
std::optional<Registration> ReadRegistration(const std::wstring& name) {
  const std::wstring key = kProviders + name;
  auto image = ReadText(key + L"\\UM", L"Image", RRF_RT_REG_SZ);
  if (!image || image->empty()) return std::nullopt;
  const auto functions = ReadMultiText(key + L"\\UM\\00010001", L"Functions");
  if (std::find(functions.begin(), functions.end(), L"KEY_STORAGE") == functions.end()) return std::nullopt;
  return Registration{name, *std::move(image), ReadText(key, L"Comment", RRF_RT_REG_SZ).value_or(L"")};
}

}  // namespace

std::vector<Registration> RegisteredProviders() {
  std::vector<Registration> providers;
  for (const auto& name : ReadMultiText(kKeyStorageContext, L"Providers")) {
    if (auto registration = ReadRegistration(name)) providers.push_back(*std::move(registration));
  }
  return providers;
}

std::optional<Registration> FindRegistration(const std::wstring& name) {
  const auto providers = RegisteredProviders();
  for (const auto& provider : providers) {
    if (SameName(provider.name, name)) return provider;
  }
  for (const auto& provider : providers) {
    const auto aliases = ReadMultiText(kProviders + provider.name, L"Aliases");
    if (std::any_of(aliases.begin(), aliases.end(), [&](const auto& alias) { return SameName(alias, name); })) {
      return provider;
    }
  }
  return std::nullopt;
}

}  // namespace router
