#include "health_check.h"

#include "certificate_store.h"
#include "cng.h"
#include "cng_configuration.h"
#include "hashing.h"
#include "log_settings.h"
#include "output.h"
#include "public_key.h"
#include "readers.h"
#include "registration.h"
#include "registry.h"
#include "signing.h"
#include "status.h"
#include "text_rules.h"
#include "token_module.h"
#include "unicode.h"

#include <winscard.h>

#include <algorithm>
#include <array>
#include <memory>
#include <map>

namespace keldactl {
namespace {

struct Finding {
  Verdict verdict = Verdict::kOk;
  std::wstring details;
  std::wstring advice;
};

Finding Ok(std::wstring details) {
  return {Verdict::kOk, std::move(details), {}};
}
Finding Warning(std::wstring details, std::wstring advice) {
  return {Verdict::kWarning, std::move(details), std::move(advice)};
}
Finding Failed(std::wstring details, std::wstring advice) {
  return {Verdict::kFailed, std::move(details), std::move(advice)};
}

constexpr const wchar_t* kRegisterAgain = L"As an administrator: keldactl register.";
constexpr const wchar_t* kCopyAgain = L"As an administrator: keldactl register --copy, or install the product again.";
constexpr const wchar_t* kInstallModule =
    L"Install the token maker's software; its keldapkcs11.dll has to be in the system folder or in a folder of PATH.";

constexpr const wchar_t* kSeeModule = L"See the steps about the token module, without which it does not start.";

struct AlgorithmDeleter {
  void operator()(void* handle) const { BCryptCloseAlgorithmProvider(handle, 0); }
};
struct KeyDeleter {
  void operator()(void* handle) const { BCryptDestroyKey(handle); }
};

// In the order of the provider's function table.
constexpr std::array kSlots = {"OpenProvider",
                               "OpenKey",
                               "CreatePersistedKey",
                               "GetProviderProperty",
                               "GetKeyProperty",
                               "SetProviderProperty",
                               "SetKeyProperty",
                               "FinalizeKey",
                               "DeleteKey",
                               "FreeProvider",
                               "FreeKey",
                               "FreeBuffer",
                               "Encrypt",
                               "Decrypt",
                               "IsAlgSupported",
                               "EnumAlgorithms",
                               "EnumKeys",
                               "ImportKey",
                               "ExportKey",
                               "SignHash",
                               "VerifySignature",
                               "PromptUser",
                               "NotifyChangeKey",
                               "SecretAgreement",
                               "DeriveKey",
                               "FreeSecret"};

// The beginning of every key storage provider's function table, and this provider's slots.
struct FunctionTable {
  USHORT major;
  USHORT minor;
  void* slots[kSlots.size()];
};
using GetInterface = NTSTATUS WINAPI(LPCWSTR name, FunctionTable** table, DWORD flags);

class HealthCheck {
 public:
  HealthCheck(const HealthCheckOptions& options, const std::function<void(const HealthStep&)>& tell)
      : options_(options), tell_(tell) {}

  bool Run() {
    CheckRegistration();
    CheckFiles();
    CheckLibrary();
    CheckModule();
    CheckReaders();
    CheckTokens();
    CheckSettings();
    CheckProvider();
    CheckKeys();
    if (options_.sign) CheckSigning();
    return !failed_;
  }

 private:
  // True when what follows can be done.
  template <typename Look>
  bool Step(const char* id, const std::wstring& title, bool possible, Look look) {
    Finding finding{Verdict::kSkipped, L"an earlier step failed", {}};
    if (possible) finding = Guarded(look);
    failed_ = failed_ || finding.verdict == Verdict::kFailed;
    tell_({++number_, id, title, finding.verdict, finding.details, finding.advice});
    return finding.verdict == Verdict::kOk || finding.verdict == Verdict::kWarning;
  }

  template <typename Look>
  static Finding Guarded(Look look) {
    try {
      return look();
    } catch (const Failure& failure) {
      constexpr const wchar_t* kOtherwise =
          L"The provider's log tells more: keldactl log on, try again, keldactl log show.";
      return Failed(failure.message(), failure.advice().empty() ? kOtherwise : failure.advice());
    }
  }

  void CheckRegistration();
  void CheckFiles();
  void CheckLibrary();
  void CheckModule();
  void CheckReaders();
  void CheckTokens();
  void CheckSettings();
  void CheckProvider();
  void CheckKeys();
  void CheckKey(const ListedKey& listed);
  void CheckSigning();

  // Examined once, at the first question.
  const ModuleReport& Module();
  Finding Exports();
  Finding Table();
  Finding PinTries() const;
  Finding Log() const;
  Finding PrivateHalf(const std::wstring& name) const;
  Finding CertificateOf(const std::wstring& name, const std::optional<RsaPublicKey>& key) const;
  Key Open(const std::wstring& name) const;
  std::optional<std::wstring> KeyToSignWith() const;

  const HealthCheckOptions& options_;
  const std::function<void(const HealthStep&)>& tell_;
  int number_ = 0;
  bool failed_ = false;
  RegistrationStatus status_;
  HMODULE library_ = nullptr;  // stays loaded: CNG will use the same
  ModuleReport module_;
  bool examined_ = false;
  bool service_works_ = false;
  std::optional<Provider> provider_;
  std::vector<ListedKey> keys_;
};

void HealthCheck::CheckRegistration() {
  std::optional<ProviderRegistration> registration;
  const bool registered = Step("registration", L"The provider is registered", true, [&] {
    status_ = StatusOfRegistration();
    registration = FindRegistration(kProviderName);
    return registration ? Ok(kProviderName) : Failed(L"Windows does not know it", kRegisterAgain);
  });
  Step("registration_image", L"Its registration names the DLL", registered, [&] {
    const bool right = CompareStringOrdinal(registration->image.c_str(), -1, kProviderDll, -1, TRUE) == CSTR_EQUAL;
    return right && registration->key_storage ? Ok(registration->image)
                                              : Failed(L"it names " + Quoted(registration->image), kRegisterAgain);
  });
  Step("registration_alias", L"It can be opened under its own name", registered, [&] {
    const auto& aliases = registration->aliases;
    return std::find(aliases.begin(), aliases.end(), kProviderName) != aliases.end()
               ? Ok(L"aliases: " + std::to_wstring(aliases.size()))
               : Failed(L"the registration's aliases lack it", kRegisterAgain);
  });
  Step("registration_listed", L"It is in the list of key storage providers", registered, [&] {
    const std::vector<std::wstring> listed = ListedKeyStorageProviders();
    return std::find(listed.begin(), listed.end(), kProviderName) != listed.end()
               ? Ok(L"one of " + std::to_wstring(listed.size()))
               : Failed(L"programs do not get to see it", kRegisterAgain);
  });
  Step("default_key_length", L"The default length of new keys", registered, [&] {
    const std::optional<RegistryKey> key = RegistryKey::Open(kProviderKey, 0);
    const std::optional<uint32_t> length = key ? key->Number(L"Default Key Length") : std::nullopt;
    if (!length) return Failed(L"it is not set, and no key can be created", kRegisterAgain);
    const std::wstring bits = std::to_wstring(*length) + L" bits";
    const bool usual = *length >= 512 && *length <= 4096 && *length % 512 == 0;
    return usual ? Ok(bits)
                 : Warning(bits + L" is no length that the provider offers",
                           L"Set \"Default Key Length\" to 2048; docs/registry.md tells where.");
  });
}

void HealthCheck::CheckFiles() {
  const bool known = !status_.widths.empty();
  const bool there = Step("dll", L"The DLL for this program's width is in its place", known, [&] {
    const WidthStatus& own = status_.widths.front();
    return own.dll_there ? Ok(own.dll) : Failed(Quoted(own.dll) + L" is missing", kCopyAgain);
  });
  Step("dll_width", L"The DLL has the right width", there, [&] {
    const WidthStatus& own = status_.widths.front();
    return own.DllInPlace() ? Ok(own.width.name)
                            : Failed(Quoted(own.dll) + L" is no DLL for " + own.width.name + L" programs", kCopyAgain);
  });
  Step("dll_version", L"The DLL's version", there, [&] {
    const WidthStatus& own = status_.widths.front();
    const std::optional<std::wstring> delivered = DeliveredFile(own.width, kProviderDll);
    if (own.dll_version.empty()) return Warning(L"the DLL does not tell", kCopyAgain);
    if (delivered && VersionOfFile(*delivered) != own.dll_version) {
      return Warning(own.dll_version + L", and beside keldactl lies " + VersionOfFile(*delivered), kCopyAgain);
    }
    return Ok(own.dll_version);
  });
  Step("dll_other_width", L"The DLL for programs of the other width", known, [&] {
    if (status_.widths.size() < 2) return Ok(L"this Windows has only one width");
    const WidthStatus& other = status_.widths[1];
    if (!other.dll_there) {
      return Warning(Quoted(other.dll) + L" is missing: " + other.width.name + L" programs cannot use the provider",
                     kCopyAgain);
    }
    return other.DllInPlace()
               ? Ok(other.dll)
               : Failed(Quoted(other.dll) + L" is no DLL for " + other.width.name + L" programs", kCopyAgain);
  });
}

Finding HealthCheck::Exports() {
  std::wstring missing;
  const auto look_for = [&](const std::string& name) {
    if (!GetProcAddress(library_, name.c_str())) missing += L" " + Wide(name);
  };
  look_for("GetKeyStorageInterface");
  for (const char* slot : kSlots)
    look_for(std::string("KELDAKSP") + slot);
  return missing.empty() ? Ok(std::to_wstring(kSlots.size() + 1) + L" functions")
                         : Failed(L"it lacks" + missing, kCopyAgain);
}

Finding HealthCheck::Table() {
  const auto get_interface =
      reinterpret_cast<GetInterface*>(reinterpret_cast<void*>(GetProcAddress(library_, "GetKeyStorageInterface")));
  FunctionTable* table = nullptr;
  const NTSTATUS status = get_interface(kProviderName, &table, 0);
  if (status != 0 || !table) return Failed(L"GetKeyStorageInterface answers " + DescribeStatus(status), kCopyAgain);
  const std::wstring version = std::to_wstring(table->major) + L"." + std::to_wstring(table->minor);
  if (table->major != 1) return Failed(L"version " + version + L" is none that Windows knows", kCopyAgain);
  const bool whole = std::find(std::begin(table->slots), std::end(table->slots), nullptr) == std::end(table->slots);
  return whole ? Ok(L"version " + version + L", " + std::to_wstring(kSlots.size()) + L" entries")
               : Failed(L"some of its entries are empty", kCopyAgain);
}

const ModuleReport& HealthCheck::Module() {
  if (!examined_) module_ = ExamineTokenModuleApart();
  examined_ = true;
  return module_;
}

void HealthCheck::CheckLibrary() {
  const bool there = !status_.widths.empty() && status_.widths.front().DllInPlace();
  const bool loads = Step("dll_loads", L"The DLL loads", there, [&] {
    // The DLL loads the module into this process, which one that crashes or hangs would take along.
    if (Module().end != ModuleEnd::kAnswered) return Failed(L"not tried: " + EndInWords(Module()), kSeeModule);
    const WidthStatus& own = status_.widths.front();
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOOPENFILEERRORBOX);
    library_ = LoadLibraryW(own.dll.c_str());
    if (library_) return Ok(own.dll);
    const DWORD error = GetLastError();
    // The DLL does not start without the token module.
    if (error == ERROR_DLL_INIT_FAILED) {
      return Failed(L"it refused to start: " + DescribeStatus(static_cast<long>(error)), kSeeModule);
    }
    return Failed(DescribeStatus(static_cast<long>(error)), kCopyAgain);
  });
  const bool complete = Step("dll_exports", L"It has all of its functions", loads, [&] { return Exports(); });
  Step("dll_table", L"Its function table", complete, [&] { return Table(); });
}

void HealthCheck::CheckModule() {
  const bool found = Step("module", L"The token module is found", true, [&] {
    Module();
    const auto& where = status_.widths.empty() ? std::nullopt : status_.widths.front().token_module;
    return module_.found ? Ok(where.value_or(kTokenModule))
                         : Failed(std::wstring(kTokenModule) + L" is nowhere", kInstallModule);
  });
  const bool loads = Step("module_loads", L"It loads", found, [&] {
    if (module_.end != ModuleEnd::kAnswered) {
      return Failed(EndInWords(module_), L"Install the token maker's software again.");
    }
    return module_.loaded ? Ok(L"in a process of its own")
                          : Failed(DescribeStatus(static_cast<long>(module_.load_error)),
                                   L"Install the token maker's software again, for programs of this width.");
  });
  const bool listed = Step("module_functions", L"It hands out its functions", loads, [&] {
    if (!module_.has_entry) return Failed(L"C_GetFunctionList is missing", kInstallModule);
    return module_.list_status == 0
               ? Ok(L"PKCS#11")
               : Failed(L"C_GetFunctionList answers " + Hex32(module_.list_status), kInstallModule);
  });
  const bool initialized = Step("module_initializes", L"It initializes", listed, [&] {
    return module_.initialized ? Ok(Printable(Wide(module_.description)))
                               : Failed(L"C_Initialize answers " + Hex32(module_.initialize_status),
                                        L"End other programs that use the token, or restart the computer.");
  });
  Step("module_slots", L"It knows readers", initialized, [&] {
    return module_.slots > 0 ? Ok(L"slots: " + std::to_wstring(module_.slots))
                             : Failed(L"it shows no slot", L"Plug the reader in and install its driver.");
  });
}

void HealthCheck::CheckReaders() {
  service_works_ = Step("smart_card_service", L"The smart card service answers", true, [] {
    SCARDCONTEXT context = 0;
    const LONG status = SCardEstablishContext(SCARD_SCOPE_USER, nullptr, nullptr, &context);
    if (status != SCARD_S_SUCCESS) {
      return Failed(DescribeStatus(status),
                    L"Plug the reader in, and start the service \"Smart Card\" (SCardSvr): sc start SCardSvr.");
    }
    SCardReleaseContext(context);
    return Ok(L"SCardSvr");
  });
  Step("readers", L"Readers", service_works_, [] {
    const std::vector<Reader> readers = ListReaders();
    if (readers.empty()) return Failed(L"there are none", L"Plug the reader in and install its driver.");
    std::wstring names;
    for (const Reader& reader : readers)
      names += (names.empty() ? L"" : L", ") + Quoted(reader.name) + (reader.has_token ? L" (token)" : L" (empty)");
    return Ok(names);
  });
}

Finding HealthCheck::PinTries() const {
  for (const TokenReport& token : module_.tokens) {
    const std::wstring label = Quoted(Wide(token.label));
    if (token.pin_locked) {
      return Failed(L"the PIN of " + label + L" is locked", L"Unlock it with the token maker's tool and the PUK.");
    }
    if (token.pin_last_try) {
      return Warning(L"one more wrong PIN locks " + label, L"Make sure of the PIN before you type it.");
    }
    if (token.pin_count_low) return Warning(L"a wrong PIN was given to " + label, L"Make sure of the PIN.");
  }
  return Ok(L"no wrong PIN has been given");
}

void HealthCheck::CheckTokens() {
  const bool token = Step("token", L"A token is in a reader", module_.initialized, [&] {
    if (module_.tokens.empty()) return Failed(L"the token module sees none", L"Put the token into the reader.");
    std::wstring labels;
    for (const TokenReport& report : module_.tokens)
      labels += (labels.empty() ? L"" : L", ") + Quoted(Wide(report.label)) + L" in " + Quoted(Wide(report.slot));
    return module_.tokens.size() == 1 ? Ok(labels)
                                      : Warning(labels, L"With several tokens the provider asks which one to use.");
  });
  Step("token_initialized", L"It is initialized and has a PIN", token, [&] {
    for (const TokenReport& report : module_.tokens) {
      if (report.initialized && report.pin_set) continue;
      return Failed(Quoted(Wide(report.label)) + (report.initialized ? L" has no PIN" : L" is not initialized"),
                    L"Initialize the token with its maker's tool.");
    }
    return Ok(L"yes");
  });
  Step("token_pin", L"Its PIN is not locked", token, [&] { return PinTries(); });
}

Finding HealthCheck::Log() const {
  const WidthStatus& own = status_.widths.front();
  if (!own.log_on) return Ok(L"off");
  if (!CanAppendTo(own.log_file)) {
    return Failed(L"on, but " + Quoted(own.log_file) + L" cannot be written",
                  L"As an administrator: keldactl log on FILE, with another file, or keldactl log off.");
  }
  return Warning(L"on, in " + Quoted(own.log_file) + L": it grows and holds names of keys",
                 L"When it is no longer needed, as an administrator: keldactl log off.");
}

void HealthCheck::CheckSettings() {
  const bool known = !status_.widths.empty();
  Step("log", L"The log", known, [&] { return Log(); });
  Step("pin_cache", L"The PIN cache", known, [&] {
    return Ok(status_.widths.front().pin_cache_on ? L"on: a program asks for the PIN once"
                                                  : L"off: every operation asks for the PIN");
  });
  Step("provider_cache", L"The provider cache", known, [&] {
    return Ok(status_.widths.front().provider_cache_on ? L"on" : L"off: every program start may ask for the reader");
  });
}

void HealthCheck::CheckProvider() {
  // Without a token there is nothing to open, and the provider might ask for a reader.
  const bool registered = status_.registered && library_ != nullptr && !module_.tokens.empty();
  const bool open = Step("provider_opens", L"Programs can open the provider", registered, [&] {
    ProviderOptions options;
    options.silent = !options_.sign;
    provider_.emplace(options);
    return Ok(L"by CNG");
  });
  Step("provider_name", L"It tells its name", open, [&] {
    const std::wstring name = TextProperty(provider_->handle(), NCRYPT_NAME_PROPERTY).value_or(L"");
    return name == kProviderName ? Ok(name)
                                 : Failed(L"it calls itself " + Quoted(name),
                                          L"Another provider is registered under this name; register again.");
  });
  Step("keys", L"Its list of keys", open, [&] {
    keys_ = provider_->Keys();
    if (keys_.empty()) return Warning(L"the token has none", L"Make one: keldactl create --key NAME.");
    return Ok(Counted<wchar_t>(keys_.size(), L"key"));
  });
}

Key HealthCheck::Open(const std::wstring& name) const {
  KeyOptions options;
  if (name.empty()) {
    options.nameless = true;
  } else {
    options.key = name;
  }
  return provider_->Open(options);
}

Finding HealthCheck::PrivateHalf(const std::wstring& name) const {
  const std::string hex = Utf8(HexText(name));
  bool visible = false;
  for (const TokenReport& token : module_.tokens) {
    if (Holds(token.private_keys, hex)) return Ok(L"on the token " + Quoted(Wide(token.label)));
    visible = visible || !token.private_keys.empty();
  }
  return visible ? Failed(L"the token has none: the key can verify and encrypt, and neither sign nor decrypt",
                          L"Use another key, or make one: keldactl create --key NAME.")
                 : Warning(L"the token shows no private keys before a login", L"Signing tells: keldactl check --sign.");
}

Finding HealthCheck::CertificateOf(const std::wstring& name, const std::optional<RsaPublicKey>& key) const {
  const std::wstring install = L"Put one there: keldactl certificate --key " + HexText(name) + L" --install FILE.";
  std::optional<StoredCertificate> foreign;
  for (const StoredCertificate& certificate : StoredCertificates(kProviderName)) {
    if (!PointsAt(certificate.container, name)) continue;
    if (key && certificate.key != key) {
      foreign = certificate;
      continue;
    }
    if (certificate.expired)
      return Warning(Quoted(certificate.subject) + L" ended on " + certificate.not_after, install);
    return Ok(Quoted(certificate.subject) + L", until " + certificate.not_after);
  }
  if (foreign) {
    return Failed(L"the certificate of " + Quoted(foreign->subject) + L" points at this key and belongs to another",
                  L"Unless it is of another token of yours, take it away: keldactl certificates --remove " +
                      foreign->thumbprint + L".");
  }
  return Warning(L"none in your store points at it: signing tools will not offer the key", install);
}

void HealthCheck::CheckKey(const ListedKey& listed) {
  const std::wstring title = L"Key " + TitleOf(listed.name) + L": ";
  const bool named = Step("key_name", title + L"it has a name", true, [&] {
    return listed.name.empty() ? Failed(L"it has none, and answers to every name: the keys behind it cannot be reached",
                                        L"Delete it: keldactl delete --nameless.")
                               : Ok(HexText(listed.name));
  });
  std::optional<Key> key;
  const bool open = Step("key_rsa", title + L"it is an RSA key", true, [&] {
    key = Open(listed.name);
    if (!IsRsa(*key)) return Failed(L"it belongs to another family", L"Use an RSA key.");
    return Ok(std::to_wstring(NumberProperty(key->handle.get(), NCRYPT_LENGTH_PROPERTY).value_or(0)) + L" bits");
  });
  std::optional<RsaPublicKey> public_key;
  Step("key_public", title + L"its public half", open, [&] {
    public_key = PublicKeyOf(*key);
    return Ok(L"can be exported");
  });
  Step("key_private", title + L"its private half", named && module_.initialized,
       [&] { return PrivateHalf(listed.name); });
  Step("key_certificate", title + L"its certificate", named, [&] { return CertificateOf(listed.name, public_key); });
}

void HealthCheck::CheckKeys() {
  if (!provider_) return;
  std::vector<ListedKey> wanted = keys_;
  if (options_.key) {
    std::erase_if(wanted, [&](const ListedKey& listed) { return !PointsAt(*options_.key, listed.name); });
    Step("key", L"The key " + Quoted(*options_.key), true, [&] {
      return wanted.empty() ? Failed(L"it is not in the list", L"\"keldactl keys\" lists the keys.")
                            : Ok(TitleOf(wanted.front().name));
    });
  }
  for (const ListedKey& listed : wanted)
    CheckKey(listed);
}

std::optional<std::wstring> HealthCheck::KeyToSignWith() const {
  std::vector<std::wstring> names;
  for (const ListedKey& listed : keys_) {
    if (options_.key ? PointsAt(*options_.key, listed.name) : true) names.push_back(listed.name);
  }
  return names.size() == 1 || (options_.key && !names.empty()) ? std::optional(names.front()) : std::nullopt;
}

// By the platform, not by the provider or the token.
bool VerifyInSoftware(const RsaPublicKey& key, const HashAlgorithm& algorithm, Bytes hash, Bytes signature) {
  BCRYPT_ALG_HANDLE rsa = nullptr;
  Check(BCryptOpenAlgorithmProvider(&rsa, BCRYPT_RSA_ALGORITHM, nullptr, 0), L"Opening the platform's RSA");
  const std::unique_ptr<void, AlgorithmDeleter> rsa_owner(rsa);
  Bytes blob = PublicBlob(key);
  BCRYPT_KEY_HANDLE handle = nullptr;
  Check(BCryptImportKeyPair(rsa, nullptr, BCRYPT_RSAPUBLIC_BLOB, &handle, blob.data(), static_cast<ULONG>(blob.size()),
                            0),
        L"Handing the public key to the platform");
  const std::unique_ptr<void, KeyDeleter> key_owner(handle);
  BCRYPT_PKCS1_PADDING_INFO padding = {algorithm.cng_id};
  return BCryptVerifySignature(handle, &padding, hash.data(), static_cast<ULONG>(hash.size()), signature.data(),
                               static_cast<ULONG>(signature.size()), BCRYPT_PAD_PKCS1) == 0;
}

bool IsAboutPin(long status) {
  return status == SCARD_W_WRONG_CHV || status == SCARD_W_CHV_BLOCKED || status == SCARD_W_CANCELLED_BY_USER ||
         status == NTE_USER_CANCELLED || status == ERROR_CANCELLED;
}

void HealthCheck::CheckSigning() {
  const HashAlgorithm& algorithm = FindHash(kDefaultHash);
  const Bytes hash = HashOf(algorithm, Bytes{'c', 'h', 'e', 'c', 'k'});
  const std::optional<std::wstring> name = KeyToSignWith();
  std::optional<Key> key;
  std::optional<Failure> failure;
  Bytes signature;
  // The provider asks for the PIN when the private key is used, so that one call tells both.
  const bool logged_in = Step("sign_pin", L"The PIN is taken", provider_.has_value(), [&] {
    if (!name)
      return Failed(L"there is not exactly one key to sign with", L"Name one: keldactl check --sign --key NAME.");
    key = Open(*name);
    try {
      signature = SignHash(*key, algorithm, hash);
    } catch (const Failure& refused) {
      if (IsAboutPin(refused.status())) throw;
      failure = refused;
    }
    return Ok(failure ? L"nothing was said against it" : L"yes");
  });
  const bool made = Step("sign", L"The key signs", logged_in, [&] {
    if (failure) throw *failure;
    return Ok(std::to_wstring(signature.size()) + L" bytes, " + algorithm.title);
  });
  Step("sign_verify", L"The signature is good", made, [&] {
    return VerifyInSoftware(PublicKeyOf(*key), algorithm, hash, signature)
               ? Ok(L"verified in software")
               : Failed(L"it does not belong to the key's public half",
                        L"The key pair on the token is damaged; use another key.");
  });
}

}  // namespace

bool CheckHealth(const HealthCheckOptions& options, const std::function<void(const HealthStep&)>& tell) {
  return HealthCheck(options, tell).Run();
}

}  // namespace keldactl
