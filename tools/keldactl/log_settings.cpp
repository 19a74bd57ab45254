#include "log_settings.h"

#include "failure.h"
#include "output.h"
#include "registry.h"

#include <aclapi.h>

#include <memory>

namespace keldactl {
namespace {

constexpr wchar_t kSwitchOn[] = L"1";
// The provider has room for so many characters.
constexpr size_t kLongestFile = 2047;

struct LocalDeleter {
  void operator()(void* memory) const { LocalFree(memory); }
};

class File {
 public:
  explicit File(HANDLE handle) : handle_(handle) {}
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (handle_ != INVALID_HANDLE_VALUE) CloseHandle(handle_);
  }
  explicit operator bool() const { return handle_ != INVALID_HANDLE_VALUE; }

 private:
  HANDLE handle_;
};

std::wstring FullPath(const std::wstring& file) {
  std::wstring path(32768, L'\0');
  path.resize(GetFullPathNameW(file.c_str(), static_cast<DWORD>(path.size()), path.data(), nullptr));
  if (path.empty()) throw Failure(Quoted(file) + L" is no file name");
  return path;
}

// Where Windows keeps what all users share.
std::wstring UsualFile() {
  wchar_t folder[MAX_PATH];
  const DWORD length = GetEnvironmentVariableW(L"ProgramData", folder, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) {
    throw Failure(L"Windows names no folder for programs' data").Advise(L"Name the file: keldactl log on FILE.");
  }
  return std::wstring(folder) + L"\\Norvale Token Works\\keldaksp.log";
}

void MakeFolders(const std::wstring& file) {
  for (size_t at = file.find(L'\\', 3); at != std::wstring::npos; at = file.find(L'\\', at + 1))
    CreateDirectoryW(file.substr(0, at).c_str(), nullptr);
}

// As the provider opens it.
File OpenAsProvider(const std::wstring& path) {
  return File(CreateFileW(path.c_str(), GENERIC_READ | FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                          OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
}

std::unique_ptr<BYTE[]> UsersSid() {
  auto sid = std::make_unique<BYTE[]>(SECURITY_MAX_SID_SIZE);
  DWORD size = SECURITY_MAX_SID_SIZE;
  if (!CreateWellKnownSid(WinBuiltinUsersSid, nullptr, sid.get(), &size)) {
    throw Failure(L"Asking for the group of all users", static_cast<long>(GetLastError()));
  }
  return sid;
}

// The log is written by every program that uses a key, with the rights of its user.
void LetUsersWrite(const std::wstring& path) {
  const std::wstring operation = L"Giving the users the right to write " + Quoted(path);
  const auto users = UsersSid();
  PACL old_list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  std::wstring name = path;
  DWORD error = GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                      &old_list, nullptr, &descriptor);
  const std::unique_ptr<void, LocalDeleter> descriptor_owner(descriptor);
  if (error != ERROR_SUCCESS) throw Failure(operation, static_cast<long>(error));
  EXPLICIT_ACCESSW access = {};
  // NOLINTNEXTLINE(misc-redundant-expression): the platform's masks share bits
  access.grfAccessPermissions = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
  access.grfAccessMode = GRANT_ACCESS;
  access.grfInheritance = NO_INHERITANCE;
  access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
  access.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
  access.Trustee.ptstrName = reinterpret_cast<LPWSTR>(users.get());
  PACL new_list = nullptr;
  error = SetEntriesInAclW(1, &access, old_list, &new_list);
  const std::unique_ptr<ACL, LocalDeleter> list_owner(new_list);
  if (error == ERROR_SUCCESS) {
    error = SetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, new_list,
                                  nullptr);
  }
  if (error != ERROR_SUCCESS) throw Failure(operation, static_cast<long>(error));
}

// Whether the list gives them the rights, whoever else has which.
bool UsersMayWrite(const std::wstring& path) {
  const auto users = UsersSid();
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  std::wstring name = path;
  if (GetNamedSecurityInfoW(name.data(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list, nullptr,
                            &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  const std::unique_ptr<void, LocalDeleter> owner(descriptor);
  // Without a list everybody may do everything.
  if (!list) return true;
  TRUSTEEW trustee = {};
  trustee.TrusteeForm = TRUSTEE_IS_SID;
  trustee.ptstrName = reinterpret_cast<LPWSTR>(users.get());
  ACCESS_MASK rights = 0;
  constexpr ACCESS_MASK kNeeded = FILE_READ_DATA | FILE_WRITE_DATA | FILE_APPEND_DATA;
  return GetEffectiveRightsFromAclW(list, &trustee, &rights) == ERROR_SUCCESS && (rights & kNeeded) == kNeeded;
}

}  // namespace

std::optional<std::wstring> LogFile() {
  const std::optional<RegistryKey> key = RegistryKey::Open(kSettingsKey, Widths().front().view);
  std::optional<std::wstring> file = key ? key->Text(L"KSPDIR") : std::nullopt;
  return file && !file->empty() ? file : std::nullopt;
}

bool CanAppendTo(const std::wstring& file) {
  return static_cast<bool>(OpenAsProvider(file));
}

Report SwitchLogOn(const std::optional<std::wstring>& file) {
  RequireAdministrator();
  const std::wstring path = file ? FullPath(*file) : LogFile().value_or(UsualFile());
  if (path.size() > kLongestFile) throw Failure(L"The log file's name is too long for the provider");
  MakeFolders(path);
  if (!OpenAsProvider(path)) throw Failure(L"Opening the log file " + Quoted(path), static_cast<long>(GetLastError()));
  LetUsersWrite(path);
  for (const Width& width : Widths()) {
    const RegistryKey key = RegistryKey::Create(kSettingsKey, width.view);
    key.SetText(L"KSPDIR", path);
    key.SetText(L"KSPLOG", kSwitchOn);
  }
  Report report = {{L"The log is on: programs that start from now on write to " + Quoted(path) + L".", false}};
  if (!UsersMayWrite(path)) {
    report.push_back({L"Users cannot write the file; the log will show the calls of administrators only.", true});
  }
  return report;
}

Report SwitchLogOff() {
  RequireAdministrator();
  for (const Width& width : Widths())
    RegistryKey::Create(kSettingsKey, width.view).SetText(L"KSPLOG", kEightZeros);
  Report report = {{L"The log is off for programs that start from now on.", false}};
  if (const std::optional<std::wstring> file = LogFile()) {
    report.push_back({L"What it holds so far stays in " + Quoted(*file) + L".", false});
  }
  return report;
}

}  // namespace keldactl
