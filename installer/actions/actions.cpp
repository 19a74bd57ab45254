// The custom actions. All but CheckTokenModule's warning are deferred, run with the system's rights and get what they
// need as "NAME=text|…": CLIENT, keldactl's path, and the settings.
#include "client.h"
#include "journal.h"
#include "registry.h"
#include "saved_registration.h"
#include "settings.h"

#include <exception>

namespace installer {
namespace {

// What every action does around its work: no exception reaches Windows Installer.
template <typename Work>
UINT Run(MSIHANDLE session, const wchar_t* what, Work work) {
  const Journal journal(session);
  try {
    return work(journal, ParseActionData(journal.ActionData())) ? ERROR_SUCCESS : ERROR_INSTALL_FAILURE;
  } catch (LSTATUS status) {
    journal.Fail(std::wstring(what) + L" failed: error " + std::to_wstring(status) + L" of the registry");
  } catch (const std::exception&) {
    journal.Fail(std::wstring(what) + L" failed: there is not enough memory");
  }
  return ERROR_INSTALL_FAILURE;
}

std::wstring Client(const ActionWords& words) {
  const auto found = words.find(L"CLIENT");
  return found == words.end() ? std::wstring() : found->second;
}

// The lines of "keldactl status" name a width and then, among others, its token module.
bool WarnAboutTokenModule(const Journal& journal, const ActionWords& words) {
  std::wstring width;
  std::wstring missing;
  for (const std::wstring& line : RunClient(journal, Client(words), L"status").lines) {
    if (line.find(L" programs") != std::wstring::npos && line.front() == L'x') width = line.substr(0, 3);
    if (line.find(L"Token module") == std::wstring::npos || line.find(L"was not found") == std::wstring::npos) continue;
    missing += (missing.empty() ? L"" : L" and ") + width;
  }
  if (!missing.empty()) {
    journal.Warn(
        L"The token maker's module keldapkcs11.dll was not found for " + missing +
        L" programs. The provider is installed and needs it to reach a token; \"keldactl check\" tells what to "
        L"do.");
  }
  return true;
}

}  // namespace
}  // namespace installer

using installer::ActionWords;
using installer::Journal;

extern "C" {

UINT WINAPI SaveRegistration(MSIHANDLE session) {
  return installer::Run(session, L"Saving the registration", [](const Journal&, const ActionWords&) {
    installer::SaveRegistrationAndSettings();
    return true;
  });
}

UINT WINAPI RestoreRegistration(MSIHANDLE session) {
  return installer::Run(session, L"Restoring the registration", [](const Journal& journal, const ActionWords& words) {
    installer::RestoreRegistrationAndSettings(journal, installer::Client(words));
    installer::ForgetSaved();
    return true;
  });
}

UINT WINAPI ForgetSavedRegistration(MSIHANDLE session) {
  return installer::Run(session, L"Forgetting the saved registration", [](const Journal&, const ActionWords&) {
    installer::ForgetSaved();
    return true;
  });
}

UINT WINAPI RegisterProvider(MSIHANDLE session) {
  return installer::Run(session, L"Registering the provider", [](const Journal& journal, const ActionWords& words) {
    return installer::NeedClient(journal, installer::Client(words), L"register");
  });
}

UINT WINAPI UnregisterProvider(MSIHANDLE session) {
  return installer::Run(session, L"Unregistering the provider", [](const Journal& journal, const ActionWords& words) {
    return installer::NeedClient(journal, installer::Client(words), L"unregister");
  });
}

UINT WINAPI ApplySettings(MSIHANDLE session) {
  return installer::Run(session, L"Writing the settings", [](const Journal& journal, const ActionWords& words) {
    return installer::ApplyChosenSettings(journal, words);
  });
}

UINT WINAPI RemoveSettings(MSIHANDLE session) {
  return installer::Run(session, L"Removing the settings", [](const Journal& journal, const ActionWords&) {
    installer::RemoveChosenSettings(journal);
    return true;
  });
}

UINT WINAPI CheckTokenModule(MSIHANDLE session) {
  return installer::Run(session, L"Looking for the token module", installer::WarnAboutTokenModule);
}

}  // extern "C"
