// The registration and the settings as they were before a package touched them.
#pragma once

#include "journal.h"

namespace installer {

// Throws LSTATUS; what has been saved until then counts for nothing.
void SaveRegistrationAndSettings();
// Brings back what was saved, by keldactl and the registry; `client` is keldactl's path. Without a
// completely saved state nothing happens but a note of that. Throws LSTATUS.
void RestoreRegistrationAndSettings(const Journal& journal, const std::wstring& client);
// Takes the saved state away, and the keys of the packages and the maker that are empty now.
void ForgetSaved();

}  // namespace installer
