// The provider's log: switched on and off, for both widths of programs.
#pragma once

#include "registration.h"

#include <optional>
#include <string>

namespace keldactl {

// Switches the log on, into this file (the one of last time, or a usual place, without it). Its folders are made if
// need be, for administrators only to write in, and whoever may use keys is given the right to write the file, which
// must be a file of its own and no link. Throws Failure; needs administrator rights.
Report SwitchLogOn(const std::optional<std::wstring>& file);
Report SwitchLogOff();

// The file that the registry names for this width, whether or not the log is on.
std::optional<std::wstring> LogFile();

// Whether this user can write to the file, or make it when it is not there. Nothing is made.
bool CanAppendTo(const std::wstring& file);

}  // namespace keldactl
