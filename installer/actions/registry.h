// Keys below HKEY_LOCAL_MACHINE, and where the product's are.
#pragma once

#include "support/windows.h"

#include <optional>
#include <string>
#include <vector>

namespace installer {

inline constexpr wchar_t kVendorKey[] = L"Software\\Norvale Token Works Ltd.";
inline constexpr wchar_t kSettingsKey[] = L"Software\\Norvale Token Works Ltd.\\KELDA SDK";
inline constexpr wchar_t kClientKey[] = L"Software\\Norvale Token Works Ltd.\\keldactl";
// The packages' own. It is written by this width only.
inline constexpr wchar_t kSetupKey[] = L"Software\\Norvale Token Works Ltd.\\Setup";
inline constexpr wchar_t kSavedKey[] = L"Software\\Norvale Token Works Ltd.\\Setup\\Saved";
inline constexpr wchar_t kChosenKey[] = L"Software\\Norvale Token Works Ltd.\\Setup\\Chosen";
inline constexpr wchar_t kProviderKey[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\Norvale Token Works KSP v1.0";

// A width of programs whose settings are a key of their own.
struct View {
  const wchar_t* name;
  REGSAM access;  // 0 where there is only one
};
// A package runs on Windows of its own width: 64-bit Windows has settings for both.
const std::vector<View>& Views();

class Key {
 public:
  // Nothing when there is no such key. Throws LSTATUS when there is one that cannot be opened.
  static std::optional<Key> Open(const std::wstring& path, REGSAM view);
  // Throws the error's number (LSTATUS) when the key can neither be opened nor made.
  static Key Create(const std::wstring& path, REGSAM view);

  Key(Key&& other) noexcept : key_(other.key_) { other.key_ = nullptr; }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() {
    if (key_ != nullptr) RegCloseKey(key_);
  }

  HKEY Get() const { return key_; }
  bool IsEmpty() const;

 private:
  explicit Key(HKEY key) : key_(key) {}
  HKEY key_;
};

struct Value {
  std::wstring name;
  DWORD type = REG_NONE;
  std::vector<BYTE> data;

  bool operator==(const Value&) const = default;
};
Value TextValue(const std::wstring& name, const std::wstring& text);
Value NumberValue(const std::wstring& name, DWORD number);

// These throw LSTATUS.
std::vector<Value> ValuesOf(const Key& key);
std::optional<Value> FindValue(const Key& key, const std::wstring& name);
void Remove(const Key& key, const std::wstring& name);
void Write(const Key& key, const Value& value);

// With everything below it. A key that is not there is no failure; others are thrown as LSTATUS.
void RemoveTree(const std::wstring& path, REGSAM view);
void RemoveIfEmpty(const std::wstring& path, REGSAM view);
// Makes `target` what `source` is, or takes it away when there is no `source`. Throws LSTATUS.
void MirrorTree(const std::wstring& source, REGSAM source_view, const std::wstring& target, REGSAM target_view);

}  // namespace installer
