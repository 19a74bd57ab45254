// The registration and the settings as they were before a package touched them.
#pragma once

#include "journal.h"

namespace installer {

// Throws LSTATUS.
void SaveRegistrationAndSettings();
// Brings back what was saved, by keldactl and the registry; `client` is keldactl's path. Nothing happens without a
// saved state. Throws LSTATUS.
void RestoreRegistrationAndSettings(const Journal& journal, const std::wstring& client);
// Takes the saved state away, and the keys of the packages and the maker that are empty now.
void ForgetSaved();

}  // namespace installer
