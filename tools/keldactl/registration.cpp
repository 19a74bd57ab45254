#include "registration.h"

#include "cng_configuration.h"
#include "failure.h"
#include "hashing.h"
#include "output.h"
#include "registry.h"
#include "text_rules.h"

#include <algorithm>

namespace keldactl {
namespace {

constexpr wchar_t kVendorKey[] = L"Software\\Norvale Token Works Ltd.";
constexpr wchar_t kOwnKey[] = L"Software\\Norvale Token Works Ltd.\\keldactl";
constexpr uint32_t kDefaultKeyLength = 2048;
constexpr uint32_t kProviderCacheOn = 1;

bool SameName(const std::wstring& left, const std::wstring& right) {
  return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

bool Contains(const std::vector<std::wstring>& list, const std::wstring& name) {
  return std::any_of(list.begin(), list.end(), [&](const std::wstring& entry) { return SameName(entry, name); });
}

std::wstring DllOf(const Width& width) {
  return width.system + L"\\" + kProviderDll;
}

std::wstring ShownDllOf(const Width& width) {
  return width.system_shown + L"\\" + kProviderDll;
}

// ---- Copies in the system folders ----

// What Register copied is remembered with its hash, in one place for both widths, so that nothing else is ever removed.
REGSAM ViewOfOwnKey(const std::vector<Width>& widths) {
  return widths.size() > 1 ? KEY_WOW64_64KEY : 0;
}

std::wstring CopyValue(const Width& width) {
  return L"Copied " + width.name;
}

std::wstring Fingerprint(const std::wstring& path) {
  return HexOfBytes<wchar_t>(HashOfFile(FindHash(L"sha256"), path));
}

std::optional<std::wstring> RememberedCopy(const Width& width, REGSAM view) {
  const std::optional<RegistryKey> key = RegistryKey::Open(kOwnKey, view);
  return key ? key->Text(CopyValue(width).c_str()) : std::nullopt;
}

// Through a second file, so that the DLL is never there half written.
void ReplaceFile(const std::wstring& source, const std::wstring& target) {
  const std::wstring fresh = target + L".new";
  const bool done = CopyFileW(source.c_str(), fresh.c_str(), FALSE) &&
                    MoveFileExW(fresh.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH);
  if (done) return;
  const DWORD error = GetLastError();
  DeleteFileW(fresh.c_str());
  throw Failure(L"Copying " + Quoted(source) + L" to " + Quoted(target), static_cast<long>(error))
      .Advise(L"End the programs that use the provider and try again.");
}

ReportLine CopyDll(const Width& width, const std::wstring& source, REGSAM view) {
  if (MachineOfFile(source) != width.machine) {
    throw Failure(Quoted(source) + L" is no DLL for " + width.name + L" programs");
  }
  const std::wstring target = DllOf(width);
  const std::wstring fingerprint = Fingerprint(source);
  const bool there = FileExists(target);
  if (there && Fingerprint(target) == fingerprint) return {Quoted(ShownDllOf(width)) + L" is there already.", false};
  const bool ours = !there || RememberedCopy(width, view) == Fingerprint(target);
  ReplaceFile(source, target);
  const std::wstring done = L"Copied " + Quoted(source) + L" to " + Quoted(ShownDllOf(width));
  if (!ours) return {done + L", over one that keldactl had not put there; \"unregister\" will leave it.", false};
  RegistryKey::Create(kOwnKey, view).SetText(CopyValue(width).c_str(), fingerprint);
  return {done + L".", false};
}

void CopyDlls(const std::vector<Width>& widths, Report& report) {
  for (const Width& width : widths) {
    const std::optional<std::wstring> source = DeliveredFile(width, kProviderDll);
    if (source) {
      report.push_back(CopyDll(width, *source, ViewOfOwnKey(widths)));
    } else if (width.own) {
      throw Failure(Quoted(ProgramFolder() + L"\\" + kProviderDll) + L" is missing: there is nothing to copy",
                    ExitStatus::kNotFound);
    }
  }
}

// A DLL in use can be renamed. Under its own name it must not wait for its deletion: whatever lay there at the next
// start, a new copy for example, would go.
bool DeleteAtNextStart(const std::wstring& path) {
  for (int i = 1; i <= 100; ++i) {
    const std::wstring parked = path + L"." + std::to_wstring(i) + L".old";
    // Fails for a name that is taken.
    if (!MoveFileExW(path.c_str(), parked.c_str(), 0)) continue;
    if (MoveFileExW(parked.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT)) return true;
    MoveFileExW(parked.c_str(), path.c_str(), 0);
    return false;
  }
  return false;
}

std::optional<ReportLine> RemoveCopy(const Width& width, REGSAM view) {
  const std::optional<std::wstring> remembered = RememberedCopy(width, view);
  if (!remembered) return std::nullopt;
  const std::wstring target = DllOf(width);
  const std::wstring shown = Quoted(ShownDllOf(width));
  ReportLine line = {L"Removed " + shown + L".", false};
  if (!FileExists(target)) {
    line = {shown + L" is gone already.", false};
  } else if (Fingerprint(target) != *remembered) {
    line = {shown + L" is no longer what was copied there, and stays.", true};
  } else if (!DeleteFileW(target.c_str())) {
    const DWORD error = GetLastError();
    if (!DeleteAtNextStart(target)) {
      throw Failure(L"Removing " + shown, static_cast<long>(error))
          .Advise(L"End the programs that use the provider and try again.");
    }
    line = {shown + L" is in use; Windows will remove it at the next start.", true};
  }
  RegistryKey::Create(kOwnKey, view).Remove(CopyValue(width).c_str());
  return line;
}

// ---- Settings ----

void GiveDefaults(const Width& width) {
  const RegistryKey key = RegistryKey::Create(kSettingsKey, width.view);
  for (const wchar_t* value : {L"KSPLOG", L"PINCACHE"}) {
    if (!key.Has(value)) key.SetText(value, kEightZeros);
  }
  if (!key.Has(L"dwUseProviderCache")) key.SetNumber(L"dwUseProviderCache", kProviderCacheOn);
}

// True when there are settings left that somebody made.
bool TakeDefaultsAway(const Width& width) {
  {
    const std::optional<RegistryKey> key = RegistryKey::Open(kSettingsKey, width.view, KEY_READ | KEY_WRITE);
    if (!key) return false;
    for (const wchar_t* value : {L"KSPLOG", L"PINCACHE"}) {
      if (key->Text(value) == kEightZeros) key->Remove(value);
    }
    if (key->Number(L"dwUseProviderCache") == kProviderCacheOn) key->Remove(L"dwUseProviderCache");
    if (!key->IsEmpty()) return true;
  }
  RemoveEmptyKey(kSettingsKey, width.view);
  return false;
}

// ---- The registration itself ----

std::wstring ProblemOf(const ProviderRegistration& registration) {
  if (!registration.key_storage) return L"the registration does not say that it is a key storage provider";
  if (!SameName(registration.image, kProviderDll)) {
    return L"the registration names " + Quoted(registration.image) + L" instead of \"" + kProviderDll + L"\"";
  }
  const std::vector<std::wstring>& aliases = registration.aliases;
  // The provider compares them exactly.
  if (std::find(aliases.begin(), aliases.end(), kProviderName) == aliases.end()) {
    return L"the registration's aliases do not hold the provider's own name, under which programs open it";
  }
  return {};
}

// Whatever an administrator added to the registration is still there afterwards.
void WriteRegistration(const std::optional<ProviderRegistration>& existing) {
  ProviderRegistration registration{existing ? existing->aliases : std::vector<std::wstring>(), kProviderDll, true};
  std::vector<std::wstring>& aliases = registration.aliases;
  if (std::find(aliases.begin(), aliases.end(), kProviderName) == aliases.end()) {
    aliases.insert(aliases.begin(), kProviderName);
  }
  std::optional<uint32_t> length;
  if (const std::optional<RegistryKey> key = RegistryKey::Open(kProviderKey, 0)) {
    length = key->Number(L"Default Key Length");
  }
  RegisterKeyStorageProvider(kProviderName, registration);
  const std::optional<RegistryKey> key = RegistryKey::Open(kProviderKey, 0, KEY_READ | KEY_WRITE);
  if (!key || !FindRegistration(kProviderName)) {
    throw Failure(L"Windows accepted the registration and did not keep it");
  }
  if (length) key->SetNumber(L"Default Key Length", *length);
}

void EnsureRegistration(Report& report) {
  const std::optional<ProviderRegistration> existing = FindRegistration(kProviderName);
  const std::wstring problem = existing ? ProblemOf(*existing) : L"";
  if (existing && problem.empty()) {
    report.push_back({L"The provider " + Quoted(kProviderName) + L" is registered already.", false});
  } else {
    WriteRegistration(existing);
    report.push_back({problem.empty() ? L"Registered the provider " + Quoted(kProviderName) + L"."
                                      : L"Corrected the registration of the provider " + Quoted(kProviderName) + L": " +
                                            problem + L".",
                      false});
  }
  const std::optional<RegistryKey> key = RegistryKey::Open(kProviderKey, 0, KEY_READ | KEY_WRITE);
  if (key && !key->Has(L"Default Key Length")) key->SetNumber(L"Default Key Length", kDefaultKeyLength);
}

void EnsureListed(Report& report) {
  if (Contains(ListedKeyStorageProviders(), kProviderName)) return;
  ListKeyStorageProvider(kProviderName);
  if (!Contains(ListedKeyStorageProviders(), kProviderName)) {
    throw Failure(L"Windows accepted the provider into its list and did not keep it there");
  }
  report.push_back({L"Added it to the list of key storage providers.", false});
}

// ---- Status ----

std::vector<std::wstring> FoldersOfPath() {
  std::wstring path(32768, L'\0');
  path.resize(GetEnvironmentVariableW(L"PATH", path.data(), static_cast<DWORD>(path.size())));
  std::vector<std::wstring> folders;
  for (size_t begin = 0; begin <= path.size();) {
    const size_t end = std::min(path.find(L';', begin), path.size());
    if (end > begin) folders.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return folders;
}

// Where programs of that width find it: in their own folder (keldactl's stands for it), in the system folder, by PATH.
std::optional<std::wstring> FindTokenModule(const Width& width) {
  std::vector<std::wstring> folders = FoldersOfPath();
  folders.insert(folders.begin(), width.system);
  if (width.own) folders.insert(folders.begin(), ProgramFolder());
  for (const std::wstring& folder : folders) {
    const std::wstring path = folder + L"\\" + kTokenModule;
    if (FileExists(path) && MachineOfFile(path) == width.machine) {
      return folder == width.system ? width.system_shown + L"\\" + kTokenModule : path;
    }
  }
  return std::nullopt;
}

WidthStatus StatusOf(const Width& width) {
  WidthStatus status;
  status.width = width;
  status.dll = ShownDllOf(width);
  const std::wstring dll = DllOf(width);
  status.dll_there = FileExists(dll);
  if (status.dll_there) {
    status.dll_machine = MachineOfFile(dll);
    status.dll_version = VersionOfFile(dll);
  }
  status.token_module = FindTokenModule(width);
  if (const std::optional<RegistryKey> key = RegistryKey::Open(kSettingsKey, width.view)) {
    const std::optional<std::wstring> file = key->Text(L"KSPDIR");
    status.log_on = IsLogOn(key->Text(L"KSPLOG"), file);
    status.log_file = file.value_or(L"");
    status.pin_cache_on = IsPinCacheOn(key->Text(L"PINCACHE"));
    status.provider_cache_on = IsProviderCacheOn(key->Number(L"dwUseProviderCache"));
  }
  return status;
}

}  // namespace

void SayReport(const Report& report) {
  for (const ReportLine& line : report) {
    if (line.warning) {
      Warn(line.text);
    } else {
      Say(line.text);
    }
  }
}

Report Register(bool copy) {
  RequireAdministrator();
  const std::vector<Width> widths = Widths();
  Report report;
  if (copy) CopyDlls(widths, report);
  for (const Width& width : widths) {
    if (FileExists(DllOf(width))) continue;
    if (width.own) {
      throw Failure(Quoted(ShownDllOf(width)) + L" is missing, and Windows looks for the provider there",
                    ExitStatus::kNotFound)
          .Advise(L"\"keldactl register --copy\" puts the one that lies beside keldactl there.");
    }
    report.push_back(
        {Quoted(ShownDllOf(width)) + L" is missing: " + width.name + L" programs cannot use the provider.", true});
  }
  EnsureRegistration(report);
  EnsureListed(report);
  for (const Width& width : widths)
    GiveDefaults(width);
  return report;
}

Report Unregister() {
  RequireAdministrator();
  const std::vector<Width> widths = Widths();
  Report report;
  const bool unlisted = UnlistKeyStorageProvider(kProviderName);
  const bool unregistered = UnregisterProvider(kProviderName);
  report.push_back({(unlisted || unregistered ? L"Unregistered the provider " : L"There was no registration of ") +
                        Quoted(kProviderName) + L".",
                    false});
  for (const Width& width : widths) {
    if (std::optional<ReportLine> line = RemoveCopy(width, ViewOfOwnKey(widths))) report.push_back(*std::move(line));
    if (TakeDefaultsAway(width)) {
      report.push_back({L"Settings for " + width.name + L" programs that somebody made stay in the registry.", false});
    }
  }
  RemoveEmptyKey(kOwnKey, ViewOfOwnKey(widths));
  for (const Width& width : widths)
    RemoveEmptyKey(kVendorKey, width.view);
  return report;
}

RegistrationStatus StatusOfRegistration() {
  RegistrationStatus status;
  const std::optional<ProviderRegistration> registration = FindRegistration(kProviderName);
  status.registered = registration.has_value();
  if (registration) {
    status.problem = ProblemOf(*registration);
    if (status.problem.empty() && !Contains(ListedKeyStorageProviders(), kProviderName)) {
      status.problem = L"it is not in the list of key storage providers";
    }
  }
  for (const Width& width : Widths())
    status.widths.push_back(StatusOf(width));
  return status;
}

std::vector<KnownProvider> KnownProviders() {
  std::vector<KnownProvider> known;
  for (const std::wstring& name : ListedKeyStorageProviders())
    known.push_back({name, {}, {}, true, false});
  for (const std::wstring& name : RegisteredProviders()) {
    const std::optional<ProviderRegistration> registration = FindRegistration(name);
    if (!registration || !registration->key_storage) continue;
    auto entry =
        std::find_if(known.begin(), known.end(), [&](const KnownProvider& k) { return SameName(k.name, name); });
    if (entry == known.end()) entry = known.insert(known.end(), {name, {}, {}, false, false});
    entry->image = registration->image;
    entry->aliases = registration->aliases;
    entry->registered = true;
  }
  return known;
}

}  // namespace keldactl
