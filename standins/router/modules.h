// Loading of provider DLLs.
#pragma once

#include "router/key_storage_interface.h"
#include "router/registration.h"

namespace router {

// A provider's DLL while it is tried. It is unloaded again unless Keep says that the provider was opened: then it stays
// for the life of the process, with its state (PINs it caches, its token module).
class ProviderModule {
 public:
  ProviderModule() = default;
  ~ProviderModule();
  ProviderModule(const ProviderModule&) = delete;
  ProviderModule& operator=(const ProviderModule&) = delete;

  // Loads the DLL and gets its function table, which is valid as long as the DLL is loaded. NTE_PROVIDER_DLL_FAIL: no
  // such DLL or export; NTE_BAD_PROVIDER: a table of another version; else what the provider answered, as a
  // SECURITY_STATUS.
  SECURITY_STATUS Load(const Registration& registration, const KeyStorageFunctionTable** table);
  void Keep() { module_ = nullptr; }

 private:
  HMODULE module_ = nullptr;
};

}  // namespace router
