// CNG's configuration as it lies in the registry: registered providers, and which of them a context offers.
#ifndef KELDA_STANDINS_BCRYPT_CONFIGURATION_H_
#define KELDA_STANDINS_BCRYPT_CONFIGURATION_H_

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace standin {

struct Interface {
  ULONG id = 0;
  ULONG flags = 0;
  std::vector<std::wstring> functions;
};

struct Image {
  std::wstring file;
  std::vector<Interface> interfaces;
};

struct Registration {
  std::vector<std::wstring> aliases;
  std::optional<Image> user_mode;
};

// All return NTSTATUS values: not found, a name that is taken, no rights.
LONG WriteRegistration(const std::wstring& provider, const Registration& registration, bool overwrite);
LONG ReadRegistration(const std::wstring& provider, Registration* registration);
LONG RemoveRegistration(const std::wstring& provider);
std::vector<std::wstring> RegisteredProviders();

// One function of one interface of a context: the list of providers that offer it.
struct ContextFunction {
  std::wstring context;
  ULONG interface_id;
  std::wstring function;
};

LONG AddFunction(const ContextFunction& where, ULONG position);
LONG RemoveFunction(const ContextFunction& where);
// A provider that is listed already moves to the position.
LONG AddProvider(const ContextFunction& where, const std::wstring& provider, ULONG position);
LONG RemoveProvider(const ContextFunction& where, const std::wstring& provider);
LONG ListProviders(const ContextFunction& where, std::vector<std::wstring>* providers);

}  // namespace standin

#endif  // KELDA_STANDINS_BCRYPT_CONFIGURATION_H_
