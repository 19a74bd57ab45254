#include "kit/registry.h"

#include <stdexcept>
#include <utility>

#include "kit/ksp.h"

namespace kit {
namespace {

void Check(LSTATUS status, const char* what) {
  if (status != ERROR_SUCCESS) throw std::runtime_error(std::string(what) + ": " + std::to_string(status));
}

void CopyTree(HKEY from, HKEY to) {
  wchar_t name[256];
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    if (RegEnumKeyExW(from, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    HKEY source = nullptr;
    HKEY target = nullptr;
    if (RegOpenKeyExW(from, name, 0, KEY_READ, &source) != ERROR_SUCCESS) continue;
    if (RegCreateKeyExW(to, name, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &target, nullptr) ==
        ERROR_SUCCESS) {
      CopyTree(source, target);
      RegCloseKey(target);
    }
    RegCloseKey(source);
  }
  std::vector<BYTE> data(65536);
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    DWORD type = 0;
    auto size = static_cast<DWORD>(data.size());
    if (RegEnumValueW(from, i, name, &length, nullptr, &type, data.data(), &size) != ERROR_SUCCESS) break;
    RegSetValueExW(to, name, 0, type, data.data(), size);
  }
}

void DeleteTree(HKEY parent, const wchar_t* name) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(parent, name, 0, KEY_ALL_ACCESS, &key) != ERROR_SUCCESS) return;
  wchar_t child[256];
  for (;;) {
    DWORD length = 256;
    if (RegEnumKeyExW(key, 0, child, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    DeleteTree(key, child);
  }
  RegCloseKey(key);
  RegDeleteKeyW(parent, name);
}

class OpenedKey {
 public:
  OpenedKey(HKEY root, const wchar_t* name) {
    Check(RegCreateKeyExW(root, name, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &key_, nullptr),
          "RegCreateKeyEx");
  }
  ~OpenedKey() { RegCloseKey(key_); }
  OpenedKey(const OpenedKey&) = delete;
  OpenedKey& operator=(const OpenedKey&) = delete;
  HKEY get() const { return key_; }

 private:
  HKEY key_ = nullptr;
};

}  // namespace

Registry& Registry::Get() {
  static Registry registry;
  return registry;
}

void Registry::Redirect() {
  if (root_) return;
  rootName_ = L"Software\\KeldaTests\\" + std::to_wstring(GetCurrentProcessId());
  DeleteTree(HKEY_CURRENT_USER, rootName_.c_str());
  Check(RegCreateKeyExW(HKEY_CURRENT_USER, rootName_.c_str(), 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr,
                        &root_, nullptr),
        "RegCreateKeyEx");
  for (const wchar_t* platform : {L"Software\\Microsoft\\Cryptography"}) {
    HKEY from = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, platform, 0, KEY_READ, &from) != ERROR_SUCCESS) continue;
    HKEY to = nullptr;
    Check(RegCreateKeyExW(root_, platform, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &to, nullptr),
          "RegCreateKeyEx");
    CopyTree(from, to);
    RegCloseKey(to);
    RegCloseKey(from);
  }
  Check(RegOverridePredefKey(HKEY_LOCAL_MACHINE, root_), "RegOverridePredefKey");
}

void Registry::Release() {
  if (!root_) return;
  RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
  RegCloseKey(root_);
  root_ = nullptr;
  DeleteTree(HKEY_CURRENT_USER, rootName_.c_str());
}

void Registry::SetBinary(const wchar_t* key, const wchar_t* value, DWORD type, const std::vector<BYTE>& bytes) {
  const OpenedKey opened(root_, key);
  Check(RegSetValueExW(opened.get(), value, 0, type, bytes.data(), static_cast<DWORD>(bytes.size())), "RegSetValueEx");
}

void Registry::SetString(const wchar_t* key, const wchar_t* value, const std::wstring& text) {
  const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
  SetBinary(key, value, REG_SZ, std::vector<BYTE>(bytes, bytes + (text.size() + 1) * sizeof(wchar_t)));
}

void Registry::SetMultiString(const wchar_t* key, const wchar_t* value, const std::vector<std::wstring>& texts) {
  std::wstring all;
  for (const std::wstring& text : texts)
    all += text + L'\0';
  const auto* bytes = reinterpret_cast<const BYTE*>(all.c_str());
  SetBinary(key, value, REG_MULTI_SZ, std::vector<BYTE>(bytes, bytes + (all.size() + 1) * sizeof(wchar_t)));
}

void Registry::SetDword(const wchar_t* key, const wchar_t* value, DWORD number) {
  const auto* bytes = reinterpret_cast<const BYTE*>(&number);
  SetBinary(key, value, REG_DWORD, std::vector<BYTE>(bytes, bytes + sizeof number));
}

void Registry::Remove(const wchar_t* key, const wchar_t* value) {
  const OpenedKey opened(root_, key);
  RegDeleteValueW(opened.get(), value);
}

void Registry::RemoveKey(const wchar_t* key) {
  DeleteTree(root_, key);
}

void Registry::SetDefaults() {
  RemoveKey(kProviderKey);
  RemoveKey(kSdkKey);
  SetMultiString(kProviderKey, L"Aliases", {kProviderName});
  SetDword(kProviderKey, L"Default Key Length", 2048);
}

std::vector<std::wstring> Registry::TakeReads() {
  const std::lock_guard guard(lock_);
  return std::exchange(reads_, {});
}

void Registry::NoteRead(const wchar_t* value) {
  const std::lock_guard guard(lock_);
  reads_.emplace_back(value ? value : L"");
}

}  // namespace kit
