// The two widths of programs that one Windows runs, and where the files and settings of each are.
#pragma once

#include "platform.h"
#include "settings_rules.h"

#include <optional>
#include <string>
#include <vector>

namespace keldactl {

struct Width {
  std::wstring name;  // "x64", "x86"
  Machine machine = Machine::kUnknown;
  bool own = false;           // this program's
  REGSAM view = 0;            // of the registry; 0 where there is only one
  std::wstring system;        // the system folder, as this program reaches it
  std::wstring system_shown;  // and as users know it
};

// This program's width first; the other only where Windows runs both.
std::vector<Width> Widths();

// The folder that keldactl.exe lies in.
std::wstring ProgramFolder();
// A file of that width which was delivered with keldactl: beside it for its own width, and in the folder "x64" or "x86"
// inside or beside keldactl's own folder for the other. Nothing when it is not there.
std::optional<std::wstring> DeliveredFile(const Width& width, const std::wstring& name);

bool FileExists(const std::wstring& path);
Machine MachineOfFile(const std::wstring& path);
// "4.2.0.1"; empty when the file does not tell.
std::wstring VersionOfFile(const std::wstring& path);

// The user's own rights at this moment, without those that an elevation would give.
bool IsAdministrator();
// Throws Failure with ExitStatus::kAccessDenied.
void RequireAdministrator();

}  // namespace keldactl
