// The registered key storage providers, as the registry tells them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace router {

struct Registration {
  std::wstring name;     // as registered, whatever name it was asked for by
  std::wstring image;    // the provider's DLL
  std::wstring comment;  // empty if there is none
};

// The registered providers that offer key storage in the default context, in the context's order.
std::vector<Registration> RegisteredProviders();

// The provider that is registered as name, or has it among its aliases (case ignored, as the registry does).
std::optional<Registration> FindRegistration(const std::wstring& name);

}  // namespace router
