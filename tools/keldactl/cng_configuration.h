// CNG's own list of providers, by the calls that Windows has for it.
#pragma once

#include "platform.h"

#include <optional>
#include <string>
#include <vector>

namespace keldactl {

struct ProviderRegistration {
  std::vector<std::wstring> aliases;
  std::wstring image;  // a file name; Windows looks for it in the system folder of each width
  bool key_storage = false;
};

// All throw Failure.
std::vector<std::wstring> RegisteredProviders();
std::optional<ProviderRegistration> FindRegistration(const std::wstring& provider);
// The key storage providers that programs get to see, in their order.
std::vector<std::wstring> ListedKeyStorageProviders();

// Registers a key storage provider, in the place of an existing registration of this name.
void RegisterKeyStorageProvider(const std::wstring& provider, const ProviderRegistration& registration);
// Lists it behind all others. Nothing else in the list changes.
void ListKeyStorageProvider(const std::wstring& provider);
// False when it was not there.
bool UnregisterProvider(const std::wstring& provider);
bool UnlistKeyStorageProvider(const std::wstring& provider);

}  // namespace keldactl
