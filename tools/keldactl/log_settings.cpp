#include "log_settings.h"

#include "access_rights.h"
#include "failure.h"
#include "log_file_rules.h"
#include "output.h"
#include "registry.h"

namespace keldactl {
namespace {

constexpr wchar_t kSwitchOn[] = L"1";
// The provider has room for so many characters.
constexpr size_t kLongestFile = 2047;

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
    MakeClosedFolder(file.substr(0, at));
}

// A link is opened itself, not followed.
Handle OpenItself(const std::wstring& path, DWORD rights, DWORD disposition) {
  return Handle(CreateFileW(path.c_str(), rights, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// The log file, made if need be, for writing it and for changing its rights.
Handle OpenForAdministrator(const std::wstring& path) {
  constexpr DWORD kRights = GENERIC_READ | FILE_APPEND_DATA | READ_CONTROL | WRITE_DAC;
  Handle file = OpenItself(path, kRights, CREATE_NEW);
  if (!file && GetLastError() == ERROR_FILE_EXISTS) file = OpenItself(path, kRights, OPEN_EXISTING);
  if (!file) throw Failure(L"Opening the log file " + Quoted(path), static_cast<long>(GetLastError()));
  return file;
}

Failure NoLogFile(const std::wstring& path, const wchar_t* why) {
  return Failure(Quoted(path) + L" cannot be the log file, which every user may write: " + why)
      .Advise(L"Name a file of its own: keldactl log on FILE.");
}

// Whoever may put a link where the log is going to be would otherwise be given the right to write the file behind it.
void RefuseForeignFile(HANDLE file, const std::wstring& path) {
  if (GetFileType(file) != FILE_TYPE_DISK) throw NoLogFile(path, L"it is no file on a disk");
  BY_HANDLE_FILE_INFORMATION information = {};
  if (!GetFileInformationByHandle(file, &information)) {
    throw Failure(L"Looking at the log file " + Quoted(path), static_cast<long>(GetLastError()));
  }
  switch (FaultOfLogFile(information.dwFileAttributes, information.nNumberOfLinks)) {
    case LogFileFault::kLink:
      throw NoLogFile(path, L"it is a link to another");
    case LogFileFault::kFolder:
      throw NoLogFile(path, L"it is a folder");
    case LogFileFault::kSeveralNames:
      throw NoLogFile(path, L"it has other names too (hard links)");
    default:
      return;
  }
}

constexpr const wchar_t* kWhyClosed =
    L"Programs with more rights than theirs write the log too, and whoever may put a link in its place leads their "
    L"writing elsewhere.";

}  // namespace

std::optional<std::wstring> LogFile() {
  const std::optional<RegistryKey> key = RegistryKey::Open(kSettingsKey, Widths().front().view);
  std::optional<std::wstring> file = key ? key->Text(L"KSPDIR") : std::nullopt;
  return file && !file->empty() ? file : std::nullopt;
}

bool CanAppendTo(const std::wstring& file) {
  const auto opens = [](const std::wstring& path, DWORD rights, DWORD flags) {
    return static_cast<bool>(Handle(CreateFileW(path.c_str(), rights, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL | flags, nullptr)));
  };
  if (opens(file, GENERIC_READ | FILE_APPEND_DATA, 0)) return true;
  const size_t folder_end = file.rfind(L'\\');
  return GetLastError() == ERROR_FILE_NOT_FOUND && folder_end != std::wstring::npos &&
         opens(file.substr(0, folder_end + 1), FILE_ADD_FILE, FILE_FLAG_BACKUP_SEMANTICS);
}

Report SwitchLogOn(const std::optional<std::wstring>& file) {
  RequireAdministrator();
  const std::wstring path = file ? FullPath(*file) : LogFile().value_or(UsualFile());
  if (path.size() > kLongestFile) throw Failure(L"The log file's name is too long for the provider");
  MakeFolders(path);
  const std::optional<OpenFolder> open_folder = OpenFolderAbove(path);
  if (open_folder && open_folder->is_link) {
    throw NoLogFile(path, L"it is behind a link that users may change").Advise(kWhyClosed);
  }
  const Handle log = OpenForAdministrator(path);
  RefuseForeignFile(log.get(), path);
  LetUsersWrite(log.get(), path);
  for (const Width& width : Widths()) {
    const RegistryKey key = RegistryKey::Create(kSettingsKey, width.view);
    key.SetText(L"KSPDIR", path);
    key.SetText(L"KSPLOG", kSwitchOn);
  }
  Report report = {{L"The log is on: programs that start from now on write to " + Quoted(path) + L".", false}};
  if (!UsersMayWrite(log.get())) {
    report.push_back({L"Users cannot write the file; the log will show the calls of administrators only.", true});
  }
  if (open_folder) {
    report.push_back({L"Users may change what is in " + Quoted(open_folder->path) + L". " + kWhyClosed, true});
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
