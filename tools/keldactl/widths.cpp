#include "widths.h"

#include "failure.h"
#include "handle.h"

#include <cstring>
#include <memory>

namespace keldactl {
namespace {

constexpr bool kIs64 = sizeof(void*) == 8;

using FolderFunction = UINT WINAPI(LPWSTR, UINT);

// Empty when there is no such folder.
std::wstring Folder(FolderFunction function) {
  wchar_t path[MAX_PATH];
  const UINT length = function(path, MAX_PATH);
  return length < MAX_PATH ? std::wstring(path, length) : std::wstring();
}

Width MakeWidth(bool is64, REGSAM view, const std::wstring& system, const std::wstring& shown) {
  return {is64 ? L"x64" : L"x86", is64 ? Machine::kX64 : Machine::kX86, is64 == kIs64, view, system, shown};
}

bool RunsUnder64BitWindows() {
  BOOL wow = FALSE;
  return IsWow64Process(GetCurrentProcess(), &wow) && wow;
}

}  // namespace

std::vector<Width> Widths() {
  const std::wstring system = Folder(GetSystemDirectoryW);
  const std::wstring wow = Folder(GetSystemWow64DirectoryW);
  if (kIs64) {
    std::vector<Width> widths = {MakeWidth(true, KEY_WOW64_64KEY, system, system)};
    if (!wow.empty()) widths.push_back(MakeWidth(false, KEY_WOW64_32KEY, wow, wow));
    return widths;
  }
  if (!RunsUnder64BitWindows()) return {MakeWidth(false, 0, system, system)};
  // 32-bit programs are led elsewhere when they name the system folder; this is the name under which they reach it.
  return {MakeWidth(false, KEY_WOW64_32KEY, wow, wow),
          MakeWidth(true, KEY_WOW64_64KEY, Folder(GetSystemWindowsDirectoryW) + L"\\Sysnative", system)};
}

std::wstring ProgramFolder() {
  std::wstring path(32768, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.rfind(L'\\'));
}

std::optional<std::wstring> DeliveredFile(const Width& width, const std::wstring& name) {
  const std::wstring folder = ProgramFolder();
  std::vector<std::wstring> places = {width.own ? folder : folder + L"\\" + width.name};
  // Side by side only where both folders are named for it: what lies in any other folder's parent is anybody's.
  const wchar_t* const own = width.name == L"x86" ? L"\\x64" : L"\\x86";
  if (!width.own && folder.ends_with(own)) places.push_back(folder + L"\\..\\" + width.name);
  for (std::wstring& place : places) {
    wchar_t path[MAX_PATH];
    place.append(L"\\").append(name);
    const DWORD length = GetFullPathNameW(place.c_str(), MAX_PATH, path, nullptr);
    if (length > 0 && length < MAX_PATH && FileExists(path)) return path;
  }
  return std::nullopt;
}

bool FileExists(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

Machine MachineOfFile(const std::wstring& path) {
  const Handle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return Machine::kUnknown;
  unsigned char beginning[4096];
  DWORD size = 0;
  if (!ReadFile(file.get(), beginning, sizeof beginning, &size, nullptr)) size = 0;
  return MachineOf(beginning, size);
}

std::wstring VersionOfFile(const std::wstring& path) {
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(path.c_str(), &ignored);
  if (size == 0) return {};
  std::vector<unsigned char> block(size);
  void* place = nullptr;
  UINT length = 0;
  if (!GetFileVersionInfoW(path.c_str(), 0, size, block.data()) ||
      !VerQueryValueW(block.data(), L"\\", &place, &length) || length < sizeof(VS_FIXEDFILEINFO)) {
    return {};
  }
  VS_FIXEDFILEINFO info;
  std::memcpy(&info, place, sizeof info);
  return std::to_wstring(HIWORD(info.dwFileVersionMS)) + L"." + std::to_wstring(LOWORD(info.dwFileVersionMS)) + L"." +
         std::to_wstring(HIWORD(info.dwFileVersionLS)) + L"." + std::to_wstring(LOWORD(info.dwFileVersionLS));
}

bool IsAdministrator() {
  BYTE administrators[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof administrators;
  BOOL member = FALSE;
  return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) &&
         CheckTokenMembership(nullptr, administrators, &member) && member;
}

void RequireAdministrator() {
  if (!IsAdministrator()) {
    throw Failure(L"This needs administrator rights: start it from an elevated command prompt",
                  ExitStatus::kAccessDenied);
  }
}

}  // namespace keldactl
