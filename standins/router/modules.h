// Loading of provider DLLs.
#pragma once

#include "router/key_storage_interface.h"
#include "router/registration.h"

namespace router {

// Loads the provider's DLL (once per process; it stays loaded) and gets its function table, which stays valid as long
// as the process lives. NTE_PROVIDER_DLL_FAIL: no such DLL or export; NTE_BAD_PROVIDER: a table of another version;
// else what the provider answered, as a SECURITY_STATUS.
SECURITY_STATUS LoadProviderTable(const Registration& registration, const KeyStorageFunctionTable** table);

}  // namespace router
