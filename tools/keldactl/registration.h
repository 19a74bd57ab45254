// The provider's own registration, for both widths of programs: made, removed and looked at.
#pragma once

#include "widths.h"

#include <optional>
#include <string>
#include <vector>

namespace keldactl {

inline constexpr wchar_t kProviderName[] = L"Norvale Token Works KSP v1.0";
inline constexpr wchar_t kProviderDll[] = L"keldaksp.dll";
inline constexpr wchar_t kTokenModule[] = L"keldapkcs11.dll";
// Below HKEY_LOCAL_MACHINE. The first is one for both widths, the second has a view for each.
inline constexpr wchar_t kProviderKey[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\Norvale Token Works KSP v1.0";
inline constexpr wchar_t kSettingsKey[] = L"Software\\Norvale Token Works Ltd.\\KELDA SDK";

// What was done, in sentences; those that need somebody's attention are warnings.
struct ReportLine {
  std::wstring text;
  bool warning = false;
};
using Report = std::vector<ReportLine>;
void SayReport(const Report& report);

// Registers the provider, and gives every setting that is missing its default. With `copy`, the DLLs that were
// delivered with keldactl are put into the system folders first. Can be called again at any time. Throws Failure;
// without administrator rights nothing is touched.
Report Register(bool copy);
// The opposite: takes away the registration, the settings that still have their defaults, and the DLLs that Register
// copied and nobody has replaced since.
Report Unregister();

struct WidthStatus {
  Width width;
  std::wstring dll;  // where it has to be
  bool dll_there = false;
  Machine dll_machine = Machine::kUnknown;
  std::wstring dll_version;
  std::optional<std::wstring> token_module;  // where it was found
  bool log_on = false;
  std::wstring log_file;
  bool pin_cache_on = true;
  bool provider_cache_on = true;

  bool DllInPlace() const { return dll_there && dll_machine == width.machine; }
};

struct RegistrationStatus {
  bool registered = false;
  // What is wrong with the registration, if anything; a sentence without its full stop.
  std::wstring problem;
  std::vector<WidthStatus> widths;

  // This program's width can use the provider.
  bool Works() const { return registered && problem.empty() && widths.front().DllInPlace(); }
};

// Needs no rights.
RegistrationStatus StatusOfRegistration();

// A key storage provider of this system.
struct KnownProvider {
  std::wstring name;
  std::wstring image;
  std::vector<std::wstring> aliases;
  bool listed = false;      // programs get to see it
  bool registered = false;  // its DLL is known
};
// Those that are listed, in their order, and then those that are only registered.
std::vector<KnownProvider> KnownProviders();

}  // namespace keldactl
