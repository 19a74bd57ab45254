#include "bcrypt/configuration.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>

#include "bcrypt/provider_configuration.h"
#include "bcrypt/registry_text.h"

namespace standin {
namespace {

constexpr wchar_t kProviders[] = L"System\\CurrentControlSet\\Control\\Cryptography\\Providers";
constexpr wchar_t kLocal[] = L"System\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\";

NTSTATUS FromWin32(LSTATUS status) {
  switch (status) {
    case ERROR_SUCCESS:
      return kStatusSuccess;
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
      return kStatusNotFound;
    case ERROR_ACCESS_DENIED:
      return kStatusAccessDenied;
    default:
      return kStatusUnsuccessful;
  }
}

std::wstring KeyOf(const std::wstring& provider) {
  return std::wstring(kProviders) + L"\\" + provider;
}

std::wstring InterfaceName(ULONG id) {
  wchar_t name[9];
  std::swprintf(name, 9, L"%08lx", id);
  return name;
}

std::wstring KeyOfInterface(const ContextFunction& where) {
  return kLocal + where.context + L"\\" + InterfaceName(where.interface_id);
}

std::wstring KeyOfFunction(const ContextFunction& where) {
  return KeyOfInterface(where) + L"\\" + where.function;
}

bool SameName(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// How many entries had that name.
std::size_t Erase(std::vector<std::wstring>& list, const std::wstring& name) {
  return std::erase_if(list, [&](const std::wstring& entry) { return SameName(entry, name); });
}

void Insert(std::vector<std::wstring>& list, const std::wstring& name, ULONG position) {
  Erase(list, name);
  const std::size_t place = std::min<std::size_t>(position, list.size());
  list.insert(list.begin() + static_cast<std::ptrdiff_t>(place), name);
}

LSTATUS WriteImage(const std::wstring& path, const Image& image) {
  const RegistryKey key = RegistryKey::Create(path);
  if (!key) return key.status();
  LSTATUS status = key.SetText(L"Image", image.file);
  for (const Interface& entry : image.interfaces) {
    const RegistryKey interface_key = RegistryKey::Create(path + L"\\" + InterfaceName(entry.id));
    if (!interface_key) return interface_key.status();
    if (status == ERROR_SUCCESS) status = interface_key.SetNumber(L"Flags", entry.flags);
    if (status == ERROR_SUCCESS) status = interface_key.SetTexts(L"Functions", entry.functions);
  }
  return status;
}

std::optional<Image> ReadImage(const std::wstring& path) {
  const RegistryKey key = RegistryKey::Open(path);
  if (!key) return std::nullopt;
  Image image;
  image.file = key.Text(L"Image").value_or(L"");
  for (const std::wstring& name : key.Subkeys()) {
    const RegistryKey interface_key = RegistryKey::Open(path + L"\\" + name);
    if (!interface_key) continue;
    image.interfaces.push_back({std::wcstoul(name.c_str(), nullptr, 16), interface_key.Number(L"Flags").value_or(0),
                                interface_key.Texts(L"Functions")});
  }
  return image;
}

}  // namespace

LONG WriteRegistration(const std::wstring& provider, const Registration& registration, bool overwrite) {
  const std::wstring path = KeyOf(provider);
  if (RegistryKey::Open(path)) {
    if (!overwrite) return kStatusNameCollision;
    if (const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str()); status != ERROR_SUCCESS) {
      return FromWin32(status);
    }
  }
  const RegistryKey key = RegistryKey::Create(path);
  if (!key) return FromWin32(key.status());
  LSTATUS status = ERROR_SUCCESS;
  if (!registration.aliases.empty()) status = key.SetTexts(L"Aliases", registration.aliases);
  if (status == ERROR_SUCCESS && registration.user_mode) status = WriteImage(path + L"\\UM", *registration.user_mode);
  return FromWin32(status);
}

LONG ReadRegistration(const std::wstring& provider, Registration* registration) {
  const std::wstring path = KeyOf(provider);
  const RegistryKey key = RegistryKey::Open(path);
  if (!key) return FromWin32(key.status());
  registration->aliases = key.Texts(L"Aliases");
  registration->user_mode = ReadImage(path + L"\\UM");
  return kStatusSuccess;
}

LONG RemoveRegistration(const std::wstring& provider) {
  return FromWin32(RegDeleteTreeW(HKEY_LOCAL_MACHINE, KeyOf(provider).c_str()));
}

std::vector<std::wstring> RegisteredProviders() {
  const RegistryKey key = RegistryKey::Open(kProviders);
  return key ? key.Subkeys() : std::vector<std::wstring>();
}

LONG AddFunction(const ContextFunction& where, ULONG position) {
  const RegistryKey interface_key = RegistryKey::Create(KeyOfInterface(where));
  if (!interface_key) return FromWin32(interface_key.status());
  std::vector<std::wstring> functions = interface_key.Texts(L"Functions");
  Insert(functions, where.function, position);
  if (const LSTATUS status = interface_key.SetTexts(L"Functions", functions); status != ERROR_SUCCESS) {
    return FromWin32(status);
  }
  return FromWin32(RegistryKey::Create(KeyOfFunction(where)).status());
}

LONG RemoveFunction(const ContextFunction& where) {
  const LSTATUS status = RegDeleteTreeW(HKEY_LOCAL_MACHINE, KeyOfFunction(where).c_str());
  if (status != ERROR_SUCCESS) return FromWin32(status);
  const RegistryKey interface_key = RegistryKey::Create(KeyOfInterface(where));
  if (!interface_key) return FromWin32(interface_key.status());
  std::vector<std::wstring> functions = interface_key.Texts(L"Functions");
  Erase(functions, where.function);
  return FromWin32(interface_key.SetTexts(L"Functions", functions));
}

LONG AddProvider(const ContextFunction& where, const std::wstring& provider, ULONG position) {
  if (const RegistryKey existing = RegistryKey::Open(KeyOfFunction(where)); !existing) {
    return FromWin32(existing.status());
  }
  const RegistryKey key = RegistryKey::Create(KeyOfFunction(where));
  if (!key) return FromWin32(key.status());
  std::vector<std::wstring> providers = key.Texts(L"Providers");
  Insert(providers, provider, position);
  return FromWin32(key.SetTexts(L"Providers", providers));
}

LONG RemoveProvider(const ContextFunction& where, const std::wstring& provider) {
  std::vector<std::wstring> providers;
  if (const LONG status = ListProviders(where, &providers); status != kStatusSuccess) return status;
  if (Erase(providers, provider) == 0) return kStatusNotFound;
  const RegistryKey key = RegistryKey::Create(KeyOfFunction(where));
  return key ? FromWin32(key.SetTexts(L"Providers", providers)) : FromWin32(key.status());
}

LONG ListProviders(const ContextFunction& where, std::vector<std::wstring>* providers) {
  const RegistryKey key = RegistryKey::Open(KeyOfFunction(where));
  if (!key) return FromWin32(key.status());
  *providers = key.Texts(L"Providers");
  return kStatusSuccess;
}

}  // namespace standin
