#include "commands.h"
#include "json.h"
#include "output.h"
#include "registration.h"
#include "unicode.h"

namespace keldactl {
namespace {

struct RegisterOptions {
  bool copy = false;
};

struct UnregisterOptions {};

struct StatusOptions {
  bool json = false;
};

void RegisterSyntax(Syntax& syntax, RegisterOptions& options) {
  syntax.Flag("--copy", options.copy, "put the DLLs that lie beside keldactl into the system folders first");
  syntax.Notes(
      "Windows looks for the provider's DLL (keldaksp.dll) in the system folder of each width: System32,\n"
      "and SysWOW64 for 32-bit programs. With --copy the DLL beside keldactl goes there, and the one for\n"
      "the other width when it lies in a folder \"x86\" or \"x64\" inside or beside keldactl's own folder.\n"
      "Settings in the registry that are missing get their defaults; what somebody set stays. Needs\n"
      "administrator rights.");
}

ExitStatus RunRegister(const RegisterOptions& options) {
  SayReport(Register(options.copy));
  return ExitStatus::kDone;
}

void UnregisterSyntax(Syntax& syntax, UnregisterOptions& /*options*/) {
  syntax.Notes(
      "Also removes the DLLs that \"register --copy\" put into the system folders and nobody has replaced\n"
      "since, and the settings that still have their defaults. Needs administrator rights.");
}

ExitStatus RunUnregister(const UnregisterOptions& /*options*/) {
  SayReport(Unregister());
  return ExitStatus::kDone;
}

void StatusSyntax(Syntax& syntax, StatusOptions& options) {
  syntax.Json(options.json);
  syntax.Notes(
      "Ends with 0 only when the provider is registered and its DLL for keldactl's own width is in its place.");
}

std::wstring DllInWords(const WidthStatus& width) {
  if (!width.dll_there) return width.dll + L" is missing";
  if (!width.DllInPlace()) return width.dll + L" is no DLL for " + width.width.name + L" programs";
  return width.dll + (width.dll_version.empty() ? L"" : L", version " + width.dll_version);
}

std::wstring LogInWords(const WidthStatus& width) {
  return width.log_on ? L"on, in " + Printable(width.log_file) : std::wstring(L"off");
}

const wchar_t* OnOff(bool on) {
  return on ? L"on" : L"off";
}

void SayWidth(const RegistrationStatus& status, const WidthStatus& width) {
  const bool usable = status.registered && status.problem.empty() && width.DllInPlace();
  Say(L"");
  SayTable({{width.width.name + L" programs", usable ? L"can use the provider" : L"cannot use the provider"},
            {L"  DLL", DllInWords(width)},
            {L"  Token module",
             width.token_module ? Printable(*width.token_module) : std::wstring(kTokenModule) + L" was not found"},
            {L"  Log", LogInWords(width)},
            {L"  PIN cache", OnOff(width.pin_cache_on)},
            {L"  Provider cache", OnOff(width.provider_cache_on)}});
}

Json InJson(const WidthStatus& width) {
  Json json = {{"width", Utf8(width.width.name)},
               {"own", width.width.own},
               {"dll", Utf8(width.dll)},
               {"dll_there", width.dll_there},
               {"dll_in_place", width.DllInPlace()},
               {"dll_version", Utf8(width.dll_version)},
               {"token_module", nullptr},
               {"log", width.log_on},
               {"log_file", Utf8(width.log_file)},
               {"pin_cache", width.pin_cache_on},
               {"provider_cache", width.provider_cache_on}};
  if (width.token_module) json["token_module"] = Utf8(*width.token_module);
  return json;
}

Json InJson(const RegistrationStatus& status) {
  Json widths = Json::array();
  for (const WidthStatus& width : status.widths)
    widths.push_back(InJson(width));
  return {{"provider", Utf8(kProviderName)},
          {"registered", status.registered},
          {"problem", Utf8(status.problem)},
          {"works", status.Works()},
          {"widths", std::move(widths)}};
}

ExitStatus ShowStatus(const StatusOptions& options) {
  const RegistrationStatus status = StatusOfRegistration();
  const ExitStatus end = status.Works() ? ExitStatus::kDone : ExitStatus::kFailed;
  if (options.json) {
    SayJson(InJson(status));
    return end;
  }
  Say(Quoted(kProviderName) + (status.registered ? L" is registered." : L" is not registered."));
  for (const WidthStatus& width : status.widths)
    SayWidth(status, width);
  if (!status.registered) {
    Complain(L"\"keldactl register\" registers it.");
  } else if (!status.problem.empty()) {
    Warn(status.problem + L"; \"keldactl register\" corrects that");
  }
  return end;
}

struct ProvidersOptions {
  bool json = false;
};

void ProvidersSyntax(Syntax& syntax, ProvidersOptions& options) {
  syntax.Json(options.json);
}

std::wstring StateOf(const KnownProvider& provider) {
  if (!provider.registered) return L"listed, not registered";
  return provider.listed ? L"registered" : L"registered, not listed";
}

ExitStatus ListProviders(const ProvidersOptions& options) {
  const std::vector<KnownProvider> providers = KnownProviders();
  if (options.json) {
    Json list = Json::array();
    for (const KnownProvider& provider : providers) {
      Json aliases = Json::array();
      for (const std::wstring& alias : provider.aliases)
        aliases.push_back(Utf8(alias));
      list.push_back({{"name", Utf8(provider.name)},
                      {"dll", Utf8(provider.image)},
                      {"listed", provider.listed},
                      {"registered", provider.registered},
                      {"aliases", std::move(aliases)}});
    }
    SayJson({{"providers", std::move(list)}});
    return ExitStatus::kDone;
  }
  if (providers.empty()) {
    Say(L"There are no key storage providers.");
    return ExitStatus::kDone;
  }
  std::vector<std::vector<std::wstring>> rows = {{L"PROVIDER", L"DLL", L"STATE"}};
  for (const KnownProvider& provider : providers)
    rows.push_back(
        {Printable(provider.name), provider.image.empty() ? L"-" : Printable(provider.image), StateOf(provider)});
  SayTable(rows);
  return ExitStatus::kDone;
}

}  // namespace

void AddRegistrationCommands(Program& program) {
  program.Add<RegisterOptions>(Heading::kSystem, "register", "Register the provider with Windows", RegisterSyntax,
                               RunRegister);
  program.Add<UnregisterOptions>(Heading::kSystem, "unregister", "Take the provider's registration back",
                                 UnregisterSyntax, RunUnregister);
  program.Add<StatusOptions>(Heading::kSystem, "status", "Tell whether the provider is registered and how it is set",
                             StatusSyntax, ShowStatus);
  program.Add<ProvidersOptions>(Heading::kSystem, "providers", "List all key storage providers of this system",
                                ProvidersSyntax, ListProviders);
}

}  // namespace keldactl
