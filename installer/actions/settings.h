// The settings that an administrator hands to a package.
#pragma once

#include "journal.h"

#include <map>
#include <string>

namespace installer {

// "NAME=text|NAME=text": no path holds the character between them.
using ActionWords = std::map<std::wstring, std::wstring>;
ActionWords ParseActionData(const std::wstring& data);

// Writes PINCACHE and PROVIDERCACHE ("on", "off"), KEYLENGTH (bits) and LOGFILE (a path or "off") where the provider
// reads them; those that are empty stay as they are. What was written is remembered. False when keldactl failed, which
// has been told then. Throws LSTATUS.
bool ApplyChosenSettings(const Journal& journal, const ActionWords& words);

// Takes away what was written and nobody has changed since. Throws LSTATUS.
void RemoveChosenSettings(const Journal& journal);

}  // namespace installer
