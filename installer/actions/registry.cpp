#include "registry.h"

#include <cstring>

namespace installer {
namespace {

void Need(LSTATUS status) {
  if (status != ERROR_SUCCESS) throw status;
}

// False when there is nothing of that name. That something may not be read does not mean that it is not there.
bool NeedIfThere(LSTATUS status) {
  if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND) return false;
  Need(status);
  return true;
}

}  // namespace

const std::vector<View>& Views() {
  static const std::vector<View> views = sizeof(void*) == 8
                                             ? std::vector<View>{{L"x64", KEY_WOW64_64KEY}, {L"x86", KEY_WOW64_32KEY}}
                                             : std::vector<View>{{L"x86", 0}};
  return views;
}

std::optional<Key> Key::Open(const std::wstring& path, REGSAM view) {
  HKEY key = nullptr;
  const REGSAM access = KEY_READ | KEY_WRITE | view;
  if (!NeedIfThere(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key))) return std::nullopt;
  return Key(key);
}

Key Key::Create(const std::wstring& path, REGSAM view) {
  HKEY key = nullptr;
  Need(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE | view, nullptr, &key,
                       nullptr));
  return Key(key);
}

bool Key::IsEmpty() const {
  DWORD keys = 0;
  DWORD values = 0;
  return RegQueryInfoKeyW(key_, nullptr, nullptr, nullptr, &keys, nullptr, nullptr, &values, nullptr, nullptr, nullptr,
                          nullptr) == ERROR_SUCCESS &&
         keys == 0 && values == 0;
}

Value TextValue(const std::wstring& name, const std::wstring& text) {
  Value value = {name, REG_SZ, std::vector<BYTE>((text.size() + 1) * sizeof(wchar_t))};
  std::memcpy(value.data.data(), text.c_str(), value.data.size());
  return value;
}

Value NumberValue(const std::wstring& name, DWORD number) {
  Value value = {name, REG_DWORD, std::vector<BYTE>(sizeof number)};
  std::memcpy(value.data.data(), &number, sizeof number);
  return value;
}

std::vector<Value> ValuesOf(const Key& key) {
  std::vector<Value> values;
  wchar_t name[16384];  // the longest that there is
  for (DWORD index = 0;; ++index) {
    DWORD length = static_cast<DWORD>(std::size(name));
    const LSTATUS status = RegEnumValueW(key.Get(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_NO_MORE_ITEMS) break;
    Need(status);
    if (std::optional<Value> value = FindValue(key, std::wstring(name, length))) values.push_back(*std::move(value));
  }
  return values;
}

std::optional<Value> FindValue(const Key& key, const std::wstring& name) {
  Value value = {name, REG_NONE, {}};
  DWORD size = 0;
  if (!NeedIfThere(RegQueryValueExW(key.Get(), name.c_str(), nullptr, &value.type, nullptr, &size))) return {};
  value.data.resize(size);
  Need(RegQueryValueExW(key.Get(), name.c_str(), nullptr, &value.type, value.data.data(), &size));
  return value;
}

void Remove(const Key& key, const std::wstring& name) {
  NeedIfThere(RegDeleteValueW(key.Get(), name.c_str()));
}

void Write(const Key& key, const Value& value) {
  Need(RegSetValueExW(key.Get(), value.name.c_str(), 0, value.type, value.data.data(),
                      static_cast<DWORD>(value.data.size())));
}

void RemoveTree(const std::wstring& path, REGSAM view) {
  {
    const std::optional<Key> key = Key::Open(path, view);
    if (!key) return;
    Need(RegDeleteTreeW(key->Get(), nullptr));
  }
  Need(RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), view, 0));
}

void RemoveIfEmpty(const std::wstring& path, REGSAM view) {
  {
    const std::optional<Key> key = Key::Open(path, view);
    if (!key || !key->IsEmpty()) return;
  }
  RegDeleteKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), view, 0);
}

void MirrorTree(const std::wstring& source, REGSAM source_view, const std::wstring& target, REGSAM target_view) {
  const std::optional<Key> from = Key::Open(source, source_view);
  RemoveTree(target, target_view);
  if (!from) return;
  const Key to = Key::Create(target, target_view);
  Need(RegCopyTreeW(from->Get(), nullptr, to.Get()));
}

}  // namespace installer
