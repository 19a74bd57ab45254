// HKEY_LOCAL_MACHINE redirected to a private key of this process, with the provider's values in it, and a record of
// what the provider reads.
#pragma once

#include <windows.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kit {

inline constexpr const wchar_t kProviderKey[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\Norvale Token Works KSP v1.0";
inline constexpr const wchar_t kSdkKey[] = L"Software\\Norvale Token Works Ltd.\\KELDA SDK";

class Registry {
 public:
  static Registry& Get();

  // Redirects HKEY_LOCAL_MACHINE. The platform's own cryptography settings are copied over, since Windows' DLLs read
  // them through the redirected key as well.
  void Redirect();
  void Release();

  // Values below the redirected key.
  void SetString(const wchar_t* key, const wchar_t* value, const std::wstring& text);
  void SetMultiString(const wchar_t* key, const wchar_t* value, const std::vector<std::wstring>& texts);
  void SetDword(const wchar_t* key, const wchar_t* value, DWORD number);
  void SetBinary(const wchar_t* key, const wchar_t* value, DWORD type, const std::vector<BYTE>& bytes);
  void Remove(const wchar_t* key, const wchar_t* value);
  void RemoveKey(const wchar_t* key);

  // The registration of a working provider: "Aliases" with the provider's name, "Default Key Length" 2048, and no
  // settings key.
  void SetDefaults();

  // The value names that the provider has read since the last call ("Aliases", "PINCACHE", ...), in order.
  std::vector<std::wstring> TakeReads();
  void NoteRead(const wchar_t* value);

 private:
  HKEY root_ = nullptr;
  std::wstring rootName_;
  std::mutex lock_;
  std::vector<std::wstring> reads_;
};

}  // namespace kit
