// Runs a program as an administrator's programs run before an elevation: without_rights PROGRAM ARGUMENT... ends with
// the program's own status.

#include <windows.h>

#include <cstdio>
#include <string>

namespace {

int Fail(const char* what) {
  std::fprintf(stderr, "without_rights: %s failed: %lu\n", what, GetLastError());
  return 99;
}

// What follows this program's own name, as it was written.
std::wstring RestOfCommandLine() {
  const std::wstring line = GetCommandLineW();
  const std::size_t end = line.starts_with(L'"') ? line.find(L'"', 1) + 1 : line.find(L' ');
  const std::size_t begin = line.find_first_not_of(L' ', end);
  return begin == std::wstring::npos ? std::wstring() : line.substr(begin);
}

}  // namespace

int main() {
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, &token)) return Fail("OpenProcessToken");
  BYTE administrators[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof(administrators);
  if (!CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size)) {
    return Fail("CreateWellKnownSid");
  }
  SID_AND_ATTRIBUTES disabled = {administrators, 0};
  HANDLE restricted = nullptr;
  if (!CreateRestrictedToken(token, 0, 1, &disabled, 0, nullptr, 0, nullptr, &restricted)) {
    return Fail("CreateRestrictedToken");
  }
  std::wstring command = RestOfCommandLine();
  STARTUPINFOW startup = {};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process = {};
  if (!CreateProcessAsUserW(restricted, nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                            &process)) {
    return Fail("CreateProcessAsUser");
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  DWORD status = 0;
  GetExitCodeProcess(process.hProcess, &status);
  return static_cast<int>(status);
}
