#include "soak/sequence.h"

#include <windows.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "diag/debug_log.h"
#include "fake_token/fake_token.h"
#include "hosts/possessions.h"
#include "kit/certificate.h"
#include "kit/dialogs.h"
#include "kit/provider.h"
#include "login/pin_cache/pin_cache_entry.h"
#include "soak/faults.h"
#include "soak/random.h"
#include "soak/watch.h"

namespace soak {
namespace {

enum Slot : std::size_t {
  kOpenProvider,
  kOpenKey,
  kCreatePersistedKey,
  kGetProviderProperty,
  kGetKeyProperty,
  kSetProviderProperty,
  kSetKeyProperty,
  kFinalizeKey,
  kDeleteKey,
  kFreeProvider,
  kFreeKey,
  kFreeBuffer,
  kEncrypt,
  kDecrypt,
  kIsAlgSupported,
  kEnumAlgorithms,
  kEnumKeys,
  kImportKey,
  kExportKey,
  kSignHash,
  kVerifySignature,
  kPromptUser,
  kNotifyChangeKey,
  kSecretAgreement,
  kDeriveKey,
  kFreeSecret,
  kGetKeyStorageInterface,
};

constexpr char kPin[] = "~Pn7~Pn7A";
constexpr const char* kPrimedSerials[] = {"PRIMED0", "PRIMED1", "PRIMED2"};
constexpr char kOtherPinSerial[] = "CHANGED";  // cached with another PIN than the token's
constexpr char kCheckSerial[] = "CHECK";

struct CallInfo {
  std::size_t slot = 0;
  SECURITY_STATUS status = 0;
  std::size_t cbName = 0;  // OpenProvider's name in bytes, the terminator counted
  std::uint32_t dialogs = 0;
};

// A thread that makes calls of its own when it is told to, and is waited for.
class OtherThread {
 public:
  OtherThread() : thread_([this] { Work(); }) {}
  ~OtherThread() {
    Do(nullptr);
    thread_.join();
  }
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;

  void Do(std::function<void()> work) {
    std::unique_lock guard(lock_);
    work_ = std::move(work);
    pending_ = true;
    changed_.notify_all();
    changed_.wait(guard, [this] { return !pending_; });
  }

 private:
  void Work() {
    std::unique_lock guard(lock_);
    for (;;) {
      changed_.wait(guard, [this] { return pending_; });
      const bool last = !work_;
      if (!last) work_();
      pending_ = false;
      changed_.notify_all();
      if (last) return;
    }
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::function<void()> work_;
  bool pending_ = false;
  std::thread thread_;
};

}  // namespace

struct Soak::Impl {
  Options options;
  // After the first unload.
  DWORD firstTlsIndex = 0;
  std::map<std::wstring, std::size_t> firstHandles;
  // Blocks that are known to stay even after an unload, among them some that may be the PIN cache's and do not.
  std::set<const void*> mayStay;
  Tally tally;
  Random random;
  OtherThread other;
  std::string failure;
  std::string replay;  // the run's options, as the replay needs them

  // Of the running sequence.
  bool dialogsWanted = false;
  bool onlyRightPin = false;
  bool straight = false;  // the running call's arguments are those of an honest caller
  std::vector<CallInfo> calls;
  std::vector<NCRYPT_PROV_HANDLE> providers;
  std::vector<NCRYPT_KEY_HANDLE> keys;  // all that were handed out; a released one stays
  std::vector<NCryptKeyName*> names;
  std::vector<void*> buffers;  // algorithm lists and enumeration states
  std::vector<PVOID> states;
  std::set<const void*> excused;
  std::vector<void*> arguments;  // of the running call

  const kit::FunctionTable& ksp() const { return *kit::Provider::Get().table; }
  fake::Module& token() const { return fake::Token(); }

  void Note(const std::string& what) {
    if (failure.empty()) failure = what;
  }

  // ---- a call
  // --------------------------------------------------------------------------------------------------------

  // Runs one entry call inside its bookkeeping.
  SECURITY_STATUS Call(std::size_t slot, const std::function<SECURITY_STATUS()>& body) {
    calls.back().slot = slot;
    const SECURITY_STATUS status = body();
    calls.back().status = status;
    ++tally.calls;
    ++(status == 0 ? tally.succeeded : tally.refused)[slot];
    return status;
  }

  void BeginCall() {
    calls.emplace_back();
    Heap::Get().SetTag(static_cast<std::uint32_t>(calls.size() - 1));
  }

  void EndCall() {
    Faults::Get().Clear();
    for (void* argument : arguments)
      Heap::Get().Release(argument);
    arguments.clear();
    token().ClearCalls();
    if (const std::string line = TakeLeakedLine(); !line.empty()) Note("a line with a PIN: " + line);
    if (const std::string violation = Heap::Get().TakeViolation(); !violation.empty()) Note(violation);
  }

  // ---- arguments
  // -----------------------------------------------------------------------------------------------------

  // Memory of a caller that ends where the argument ends.
  BYTE* Memory(std::size_t size) {
    void* block = Heap::Get().Allocate(size);
    arguments.push_back(block);
    return static_cast<BYTE*>(block);
  }
  BYTE* Input(std::size_t size) {
    BYTE* bytes = Memory(size);
    for (std::size_t i = 0; i < size; ++i)
      bytes[i] = static_cast<BYTE>(random.Next());
    return bytes;
  }
  BYTE* Copy(const void* data, std::size_t size) {
    BYTE* bytes = Memory(size);
    if (size) std::memcpy(bytes, data, size);
    return bytes;
  }
  const wchar_t* Text(const std::wstring& text) {
    return reinterpret_cast<const wchar_t*>(Copy(text.c_str(), (text.size() + 1) * sizeof(wchar_t)));
  }
  template <typename Item>
  Item* Out(Item value) {
    return Missing() ? nullptr : reinterpret_cast<Item*>(Copy(&value, sizeof value));
  }
  // Whether a pointer is left out.
  bool Missing() { return !straight && random.OneIn(16); }

  std::wstring RandomText() {
    static const std::size_t lengths[] = {0, 1, 2, 5, 63, 64, 65, 127, 258, 259, 260, 261, 511, 512, 1024};
    std::wstring text(random.Of(lengths), L'x');
    for (wchar_t& character : text) {
      character = static_cast<wchar_t>(random.OneIn(60) ? 1 + random.Below(0xFFFE) : 0x20 + random.Below(0xD0));
    }
    return text;
  }

  template <typename Item>
  Item Any(const std::vector<Item>& items) {
    return items.empty() ? Item{} : items[random.Below(static_cast<std::uint32_t>(items.size()))];
  }

  NCRYPT_PROV_HANDLE SomeProvider() {
    if (straight) return Any(providers);
    const std::uint32_t choice = random.Below(40);
    if (choice == 0) return 0;
    if (choice == 1) return Any(keys);
    if (choice == 2) return reinterpret_cast<NCRYPT_PROV_HANDLE>(Input(512));
    return Any(providers);
  }
  // Honest callers of most entries have a key that is on the token; those of FinalizeKey one that is not yet.
  NCRYPT_KEY_HANDLE HonestKey(bool finished) {
    std::vector<NCRYPT_KEY_HANDLE> fit;
    for (const NCRYPT_KEY_HANDLE key : keys) {
      const kit::KeyRecord& record = *kit::KeyOf(key);
      if (record.cbLength < sizeof record || record.dwMagic != kit::kKeyMagic) continue;
      if (finished ? record.fFinished != 0 && record.hPrivateKeyObject != 0 : record.fFinished == 0) fit.push_back(key);
    }
    return Any(fit);
  }

  NCRYPT_KEY_HANDLE SomeKey(std::size_t slot = kSignHash) {
    if (straight) return HonestKey(slot != kFinalizeKey);
    const std::uint32_t choice = random.Below(40);
    if (choice == 0) return 0;
    if (choice == 1 && !providers.empty()) return providers[0];
    if (choice == 2) return reinterpret_cast<NCRYPT_KEY_HANDLE>(Input(1024));
    return Any(keys);
  }

  // Flags that the entry accepts, most of the time.
  DWORD SomeFlags(std::initializer_list<DWORD> accepted) {
    const std::uint32_t choice = random.Below(20);
    if (straight) return choice < 5 && accepted.size() != 0 ? *accepted.begin() : 0;
    if (choice == 0) return static_cast<DWORD>(random.Next());
    if (choice == 1) return 1U << random.Below(32);
    if (choice < 12 || accepted.size() == 0) return 0;
    DWORD flags = 0;
    for (const DWORD flag : accepted)
      flags |= random.OneIn(2) ? flag : 0;
    return flags;
  }

  // A length that no buffer has: the entries refuse it before they look at the bytes.
  bool Huge() { return !straight && random.OneIn(30); }

  std::wstring SomeKeyName() {
    if (straight) return std::wstring(L"Key") + static_cast<wchar_t>(L'0' + random.Below(4));
    switch (random.Below(8)) {
      case 0:
        return RandomText();
      case 1:
        return L"";
      case 2:
        return L"Reader 0\\Key1";
      case 3:
        return L"4B657931";
      case 4:
        return L"label";
      default:
        return std::wstring(L"Key") + static_cast<wchar_t>(L'0' + random.Below(6));
    }
  }

  const wchar_t* SomeProperty() {
    static const wchar_t* const known[] = {L"Impl Type",
                                           L"Max Name Length",
                                           L"Name",
                                           L"Version",
                                           L"Use Context",
                                           L"Security Descr Support",
                                           L"Algorithm Name",
                                           L"Block Length",
                                           L"Export Policy",
                                           L"Key Usage",
                                           L"Key Type",
                                           L"Length",
                                           L"Lengths",
                                           L"Security Descr",
                                           L"Algorithm Group",
                                           L"Unique Name",
                                           L"SmartCardKeyCertificate",
                                           L"UI Policy",
                                           L"HWND Handle"};
    if (Missing()) return nullptr;
    return Text(!straight && random.OneIn(8) ? RandomText() : random.Of(known));
  }

  struct Buffer {
    BYTE* bytes;
    DWORD size;
  };
  Buffer SomeOutput() {
    static const DWORD sizes[] = {0, 1, 4, 23, 24, 64, 128, 256, 512, 2048, 2048, 2048};
    const DWORD size = straight ? 2048 : random.Of(sizes);
    if (random.OneIn(5)) return {nullptr, size};
    return {Memory(size), size};
  }
  Buffer SomeInput() {
    static const DWORD sizes[] = {0,  1,  2,  4,  4,  7,  8,   16,  20,  20,  32, 32,
                                  35, 36, 51, 64, 83, 84, 128, 245, 256, 512, 600};
    if (Missing()) return {nullptr, random.Of(sizes)};
    static const DWORD honestSizes[] = {16, 20, 32, 64, 36, 4};
    const DWORD size = straight ? random.Of(honestSizes) : random.Of(sizes);
    return {Input(size), size};
  }

  NCryptBufferDesc* SomeParameters() {
    if (random.OneIn(2)) return nullptr;
    NCryptBufferDesc list{};
    list.ulVersion = NCRYPTBUFFER_VERSION;
    list.cBuffers = random.Below(4);
    std::vector<NCryptBuffer> entries(list.cBuffers);
    for (NCryptBuffer& entry : entries) {
      entry.BufferType = random.OneIn(4) ? random.Below(60) : NCRYPTBUFFER_PKCS_KEY_NAME;
      const std::wstring name = SomeKeyName();
      const std::size_t whole = (name.size() + 1) * sizeof(wchar_t);
      entry.cbBuffer = static_cast<ULONG>(random.OneIn(3) ? random.Below(static_cast<std::uint32_t>(whole)) : whole);
      entry.pvBuffer = random.OneIn(20) ? nullptr : Copy(name.c_str(), entry.cbBuffer);
    }
    list.pBuffers = random.OneIn(30)
                        ? nullptr
                        : reinterpret_cast<NCryptBuffer*>(Copy(entries.data(), entries.size() * sizeof(NCryptBuffer)));
    return reinterpret_cast<NCryptBufferDesc*>(Copy(&list, sizeof list));
  }

  Buffer SomeBlob() {
    static const std::uint32_t magics[] = {0x31415352, 0x31415352, 0x31415352, 0x32415352, 0x32415352, 0x33415352, 0};
    static const std::uint32_t bitLengths[] = {512, 1024, 1024, 2048, 2048, 3072, 4096, 0, 7, 520, 65536};
    static const std::uint32_t oddSizes[] = {0,       1,        4,          5,          600,       4096,
                                             0x10000, 0x400000, 0x03FFFFFF, 0x04000000, 0xFFFFFFFF};
    const std::uint32_t bits = random.OneIn(40) ? static_cast<std::uint32_t>(random.Next()) : random.Of(bitLengths);
    std::uint32_t header[6] = {random.Of(magics), bits, 3, bits / 8, bits / 16, bits / 16};
    if (random.OneIn(6)) header[2 + random.Below(4)] = random.Of(oddSizes);
    std::size_t size = sizeof header;
    for (std::size_t i = 2; i < 6; ++i)
      size = std::min<std::size_t>(size + header[i], 4096);
    if (random.OneIn(6)) size = random.Below(static_cast<std::uint32_t>(size) + 1);
    BYTE* bytes = Input(size);
    if (size) std::memcpy(bytes, header, std::min(size, sizeof header));
    return {bytes, static_cast<DWORD>(size)};
  }

  // ---- dialogs
  // -------------------------------------------------------------------------------------------------------

  std::wstring SomePin() {
    static const std::wstring endings[] = {L"A", L"A", L"A", L"B", L"~Pn7", L"\x20AC", L""};
    return L"~Pn7~Pn7" + (onlyRightPin ? L"A" : random.Of(endings));
  }

  // What the user does is drawn before the dialog opens, so that the drawing does not depend on the threads' pace.
  std::intptr_t AnswerDialog(const std::function<std::intptr_t()>& open) {
    ++tally.dialogs;
    ++calls.back().dialogs;
    struct Try {
      std::wstring pin;
      std::vector<WPARAM> keys;
      std::uint32_t button;
    };
    std::vector<Try> tries(onlyRightPin ? 1 : 1 + random.Below(4));
    static const WPARAM keyCodes[] = {VK_HOME, VK_END, VK_LEFT, VK_DELETE, VK_RIGHT};
    for (Try& attempt : tries) {
      attempt.pin = SomePin();
      attempt.button = onlyRightPin ? 0 : random.Below(8);
      if (!onlyRightPin && random.OneIn(3)) attempt.keys.push_back(random.Of(keyCodes));
    }
    kit::DialogRobot robot({[&](kit::Dialog& dialog) {
      const bool asksForPin = dialog.control(kit::kPinField) != nullptr;
      for (const Try& attempt : tries) {
        if (!dialog.open()) return;
        if (asksForPin) {
          dialog.Type(kit::kPinField, attempt.pin);
          for (const WPARAM key : attempt.keys)
            dialog.Key(kit::kPinField, key);
        } else if (attempt.button & 1) {
          dialog.Send(kit::kReaderList, CB_SHOWDROPDOWN, TRUE);
          dialog.Send(kit::kReaderList, CB_SHOWDROPDOWN, FALSE);
        }
        if (attempt.button == 6) {
          dialog.PressCancel();
        } else if (attempt.button == 7) {
          dialog.CloseBySystemMenu();
        } else {
          dialog.PressOk();
        }
      }
    }});
    const std::intptr_t result = open();
    robot.Finish();
    return result;
  }

  // ---- the world
  // -----------------------------------------------------------------------------------------------------

  void SetReaders() {
    std::wstring readers;
    for (std::size_t i = 0; i < slotCount; ++i) {
      const std::string description = token().SlotAt(i).description;
      readers += std::wstring(description.begin(), description.end()) + L'\0';
    }
    Platform().readers = readers;
  }

  std::size_t slotCount = 0;

  void NewWorld(std::uint64_t seed) {
    token().Reset();
    slotCount = 1 + (random.OneIn(4) ? random.Below(3) : 0);
    for (std::size_t i = 0; i < slotCount; ++i) {
      std::string description = "Reader " + std::to_string(i);
      if (random.OneIn(10)) description.resize(32 + random.Below(33), 'r');
      fake::Slot& slot = token().AddSlot(description, i == 0 || !random.OneIn(3));
      slot.pin = kPin;
      slot.serial = random.OneIn(12) ? kOtherPinSerial : random.Of(kPrimedSerials);
      if (dialogsWanted) slot.serial = "F" + std::to_string(seed) + "." + std::to_string(i);
      static const char* const ids[] = {"Key0", "Key1", "Key2", "Key3", "K", "Key", ""};
      static const CK_ULONG sizes[] = {512, 1024, 2048};
      if (!random.OneIn(8)) token().AddKeyPair(fake::Ascii("Key1"), "label", random.Of(sizes), i);
      for (std::uint32_t k = random.Below(5); k > 0; --k) {
        fake::Bytes id = fake::Ascii(random.Of(ids));
        if (random.OneIn(8)) id.resize(150 + random.Below(60), static_cast<std::uint8_t>(random.Below(3)));
        const std::string label = random.OneIn(5) ? std::string(random.Below(210), 'l') : "label";
        switch (random.Below(8)) {
          case 0:
            token().AddPublicKey(id, label, random.Of(sizes), i);
            break;
          case 1:
            token().AddPrivateKey(id, label, random.Of(sizes), i);
            break;
          default:
            token().AddKeyPair(id, label, random.Of(sizes), i);
        }
      }
    }
    static const wchar_t* const settings[] = {nullptr, nullptr, nullptr, L"00000000", L"0", L"1"};
    static const std::uint32_t lengths[] = {2048, 2048, 1024, 512, 0, 777, 0xFFFFFFFF};
    PlatformSettings& platform = Platform();
    platform.pinCache = random.Of(settings);
    platform.keyLength = random.Of(lengths);
    platform.sdkKey = !random.OneIn(4);
    platform.providerCache = static_cast<int>(random.Below(3)) - 1;
    SetReaders();
    Faults::Get().AllowLockFaults(dialogsWanted);
  }

  // One slot whose token is in order.
  void PlainWorld(const std::string& serial) {
    token().Reset();
    slotCount = 1;
    fake::Slot& slot = token().AddSlot("Reader 0");
    slot.pin = kPin;
    slot.serial = serial;
    token().AddKeyPair(fake::Ascii("Key1"), "label", 1024);
    Platform().pinCache = nullptr;
    SetReaders();
  }

  // Opens, signs and releases; every step has to work.
  void SignOnce(const char* where) {
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    BYTE hash[20] = {};
    BYTE signature[128];
    DWORD length = 0;
    BeginCall();
    calls.back().cbName = sizeof kit::kProviderName;
    const SECURITY_STATUS opened =
        Call(kOpenProvider, [&] { return ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG); });
    BeginCall();
    const SECURITY_STATUS found = Call(kOpenKey, [&] { return ksp().OpenKey(provider, &key, L"Key1", 0, 0); });
    BeginCall();
    const SECURITY_STATUS signedStatus = Call(kSignHash, [&] {
      return ksp().SignHash(provider, key, nullptr, hash, sizeof hash, signature, sizeof signature, &length, 0);
    });
    EndCall();
    if (opened != 0 || found != 0 || signedStatus != 0 || length != sizeof signature) {
      char text[160];
      std::snprintf(text, sizeof text, "%s: open 0x%08lX, key 0x%08lX, sign 0x%08lX", where,
                    static_cast<unsigned long>(opened), static_cast<unsigned long>(found),
                    static_cast<unsigned long>(signedStatus));
      Note(text);
    }
    if (key) keys.push_back(key);
    if (provider) providers.push_back(provider);
  }

  // ---- the entries
  // ---------------------------------------------------------------------------------------------------

  std::uint64_t current = 0;

  // What a drawn call of an entry has in any case; some entries do not take all of it.
  struct Drawn {
    std::size_t slot;
    NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE key;
    DWORD* result;
  };

  void OpenProvider(const Drawn& call) {
    const bool silent = !dialogsWanted || random.OneIn(2);
    const std::wstring name = !straight && random.OneIn(6) ? RandomText() : kit::kProviderName;
    const wchar_t* const text = Missing() ? nullptr : Text(name);
    NCRYPT_PROV_HANDLE* const out = Out(NCRYPT_PROV_HANDLE{0});
    calls.back().cbName = (name.size() + 1) * sizeof(wchar_t);
    Faults::Get().Plan(random);
    const SECURITY_STATUS status =
        Call(call.slot, [&] { return ksp().OpenProvider(out, text, silent ? NCRYPT_SILENT_FLAG : 0); });
    if (status == 0) providers.push_back(*out);
  }

  void OpenKey(const Drawn& call) {
    const wchar_t* const name = Missing() ? nullptr : Text(SomeKeyName());
    NCRYPT_KEY_HANDLE* const out = Out(NCRYPT_KEY_HANDLE{0});
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    const DWORD spec = random.OneIn(2) ? 0 : random.Below(straight ? 4 : 5);
    Faults::Get().Plan(random);
    TakeKey(Call(call.slot, [&] { return ksp().OpenKey(call.provider, out, name, spec, flags); }), out);
  }

  void CreatePersistedKey(const Drawn& call) {
    const wchar_t* const algorithm = Missing() ? nullptr : Text(!straight && random.OneIn(6) ? RandomText() : L"RSA");
    const wchar_t* const name = random.OneIn(4) ? nullptr : Text(SomeKeyName());
    NCRYPT_KEY_HANDLE* const out = Out(NCRYPT_KEY_HANDLE{0});
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, NCRYPT_OVERWRITE_KEY_FLAG, NCRYPT_MACHINE_KEY_FLAG});
    const DWORD spec = random.Below(straight ? 3 : 4);
    Faults::Get().Plan(random);
    TakeKey(Call(call.slot, [&] { return ksp().CreatePersistedKey(call.provider, out, algorithm, name, spec, flags); }),
            out);
  }

  void GetProperty(const Drawn& call) {
    const wchar_t* const name = SomeProperty();
    Buffer output = SomeOutput();
    if (output.size == 2048 && Huge()) output.size = 0xFFFFFFFF;
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] {
      return call.slot == kGetKeyProperty
                 ? ksp().GetKeyProperty(call.provider, call.key, name, output.bytes, output.size, call.result, flags)
                 : ksp().GetProviderProperty(call.provider, name, output.bytes, output.size, call.result, flags);
    });
  }

  void SetProviderProperty(const Drawn& call) {
    const wchar_t* const name = random.OneIn(2) ? Text(L"Use Context") : SomeProperty();
    Buffer input = SomeInput();
    if (Huge()) input.size = 0xFFFFFFFF;
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().SetProviderProperty(call.provider, name, input.bytes, input.size, flags); });
  }

  void FinalizeKey(const Drawn& call) {
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, NCRYPT_WRITE_KEY_TO_LEGACY_STORE_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().FinalizeKey(call.provider, call.key, flags); });
  }

  void DeleteKey(const Drawn& call) {
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().DeleteKey(call.provider, call.key, flags); });
  }

  void FreeProvider(const Drawn& call) {
    Faults::Get().Plan(random);
    const SECURITY_STATUS status = Call(call.slot, [&] { return ksp().FreeProvider(call.provider); });
    if (status == 0) std::erase(providers, call.provider);
  }

  void FreeKey(const Drawn& call) {
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().FreeKey(call.provider, call.key); });
  }

  void FreeBuffer(const Drawn&) {
    Faults::Get().Plan(random);
    FreeSomething();
  }

  void Crypt(const Drawn& call) {
    Buffer input = SomeInput();
    if (straight && call.slot == kDecrypt && call.key) {
      const CK_OBJECT_HANDLE object = kit::KeyOf(call.key)->hPrivateKeyObject;
      if (token().HasObject(object)) {
        const fake::Bytes bytes = token().Ciphertext(object, fake::Bytes(20, 7));
        input = {Copy(bytes.data(), bytes.size()), static_cast<DWORD>(bytes.size())};
      }
    }
    if (Huge()) input.size = 0xFFFFFFFF;
    const Buffer output = SomeOutput();
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, NCRYPT_PAD_PKCS1_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] {
      return (call.slot == kEncrypt ? ksp().Encrypt : ksp().Decrypt)(
          call.provider, call.key, input.bytes, input.size, nullptr, output.bytes, output.size, call.result, flags);
    });
  }

  void IsAlgSupported(const Drawn& call) {
    const wchar_t* const name = random.OneIn(8) ? nullptr : Text(random.OneIn(2) ? L"RSA" : RandomText());
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().IsAlgSupported(call.provider, name, flags); });
  }

  void EnumAlgorithms(const Drawn& call) {
    NCryptAlgorithmName** const list = Out<NCryptAlgorithmName*>(nullptr);
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    const DWORD classes = random.OneIn(4) ? static_cast<DWORD>(random.Next()) : random.Below(64);
    Faults::Get().Plan(random);
    const SECURITY_STATUS status =
        Call(call.slot, [&] { return ksp().EnumAlgorithms(call.provider, classes, call.result, list, flags); });
    if (status == 0) buffers.push_back(*list);
  }

  void ImportKey(const Drawn& call) {
    static const wchar_t* const types[] = {L"RSAPUBLICBLOB", L"RSAPUBLICBLOB", L"RSAPRIVATEBLOB", L"RSAPRIVATEBLOB",
                                           L"RSAFULLPRIVATEBLOB"};
    const wchar_t* const type = Missing() ? nullptr : Text(random.Of(types));
    NCryptBufferDesc* const parameters = SomeParameters();
    NCRYPT_KEY_HANDLE* const out = Out(NCRYPT_KEY_HANDLE{0});
    Buffer blob = random.OneIn(30) ? SomeInput() : SomeBlob();
    if (Huge()) blob.size = 0xFFFFFFFF;
    const NCRYPT_KEY_HANDLE importKey = random.OneIn(5) ? call.key : 0;
    // Data whose length is a lie goes to the token as it is when it is to be unwrapped.
    if (importKey && blob.size == 0xFFFFFFFF) blob.size = 0;
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, NCRYPT_OVERWRITE_KEY_FLAG, 0x400});
    Faults::Get().Plan(random);
    TakeKey(Call(call.slot,
                 [&] {
                   return ksp().ImportKey(call.provider, importKey, type, parameters, out, blob.bytes, blob.size,
                                          flags);
                 }),
            out);
  }

  void ExportKey(const Drawn& call) {
    static const wchar_t* const types[] = {L"RSAPUBLICBLOB", L"RSAPUBLICBLOB", L"RSAPUBLICBLOB", L"RSAPRIVATEBLOB",
                                           L"RSAFULLPRIVATEBLOB"};
    const wchar_t* const type = Missing() ? nullptr : Text(random.Of(types));
    Buffer output = SomeOutput();
    if (output.size == 2048 && Huge()) output.size = 0xFFFFFFFF;
    const NCRYPT_KEY_HANDLE exportKey = random.OneIn(20) ? call.key : 0;
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    Call(call.slot, [&] {
      return ksp().ExportKey(call.provider, call.key, exportKey, type, nullptr, output.bytes, output.size, call.result,
                             flags);
    });
  }

  void SignHash(const Drawn& call) {
    const Buffer hash = SomeInput();
    const Buffer output = SomeOutput();
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, BCRYPT_PAD_PKCS1});
    Faults::Get().Plan(random);
    Call(call.slot, [&] {
      return ksp().SignHash(call.provider, call.key, nullptr, hash.bytes, hash.size, output.bytes, output.size,
                            call.result, flags);
    });
  }

  void PromptUser(const Drawn& call) {
    Call(call.slot, [&] { return ksp().PromptUser(call.provider, call.key, Text(RandomText()), SomeFlags({})); });
  }

  void NotifyChangeKey(const Drawn& call) {
    Call(call.slot, [&] { return ksp().NotifyChangeKey(call.provider, Out<HANDLE>(nullptr), SomeFlags({})); });
  }

  void SecretAgreement(const Drawn& call) {
    Call(call.slot, [&] {
      return ksp().SecretAgreement(call.provider, call.key, SomeKey(), Out(NCRYPT_SECRET_HANDLE{0}), SomeFlags({}));
    });
  }

  void DeriveKey(const Drawn& call) {
    const Buffer output = SomeOutput();
    Call(call.slot, [&] {
      return ksp().DeriveKey(call.provider, SomeKey(), Text(L"HASH"), SomeParameters(), output.bytes, output.size,
                             call.result, 0);
    });
  }

  void FreeSecret(const Drawn& call) {
    Call(call.slot, [&] { return ksp().FreeSecret(call.provider, SomeKey()); });
  }

  void GetKeyStorageInterface(const Drawn& call) {
    kit::FunctionTable** const table = Out<kit::FunctionTable*>(nullptr);
    const wchar_t* const name = Text(random.OneIn(3) ? RandomText() : kit::kProviderName);
    Call(call.slot, [&] { return kit::Provider::Get().GetKeyStorageInterface(name, table, SomeFlags({})); });
  }

  void TakeKey(SECURITY_STATUS status, const NCRYPT_KEY_HANDLE* out) {
    if (status != 0) return;
    if (!*out) {
      Note("a key was handed out without a handle");
    } else {
      keys.push_back(*out);
    }
  }

  void SetKeyProperty(const Drawn& call) {
    const wchar_t* name = SomeProperty();
    Buffer input = SomeInput();
    const NCRYPT_KEY_HANDLE key = straight ? HonestKey(random.OneIn(2)) : call.key;
    if (random.OneIn(4)) {
      name = Text(L"SmartCardKeyCertificate");
      const std::string subject(random.Below(70), 's');
      const kit::TestCertificate certificate = kit::MakeCertificate(subject, "issuer", {1, 2, 3});
      std::size_t size = certificate.der.size();
      if (!straight && random.OneIn(4)) size = random.Below(static_cast<std::uint32_t>(size));
      input = {Copy(certificate.der.data(), size), static_cast<DWORD>(size)};
      if (Huge()) input.size = 0xFFFFFFFF;
    } else if (random.OneIn(4)) {
      name = Text(random.OneIn(2) ? L"Length" : L"Key Usage");
      const DWORD number = random.OneIn(4) ? static_cast<DWORD>(random.Next()) : 512 * random.Below(10);
      input = {Copy(&number, sizeof number), sizeof number};
    }
    const DWORD flags = SomeFlags({NCRYPT_PERSIST_FLAG});
    // Nothing owns the PIN dialogs of a soak: a window of these bytes would be none.
    if (name && std::wcscmp(name, L"HWND Handle") == 0 && input.bytes && input.size)
      std::memset(input.bytes, 0, input.size);
    Faults::Get().Plan(random);
    Call(call.slot, [&] { return ksp().SetKeyProperty(call.provider, key, name, input.bytes, input.size, flags); });
  }

  void EnumKeys(const Drawn& call) {
    PVOID state = nullptr;
    if (!states.empty() && !random.OneIn(3)) state = states[random.Below(static_cast<std::uint32_t>(states.size()))];
    if (state && random.OneIn(30)) static_cast<kit::EnumState*>(state)->index = static_cast<ULONG>(random.Next());
    NCryptKeyName** const name = Out<NCryptKeyName*>(nullptr);
    PVOID* const place = Out(state);
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG});
    Faults::Get().Plan(random);
    const SECURITY_STATUS status =
        Call(call.slot, [&] { return ksp().EnumKeys(call.provider, L"", name, place, flags); });
    if (status != 0) return;
    names.push_back(*name);
    if (*place != state) {
      states.push_back(*place);
      buffers.push_back(*place);
    }
  }

  void VerifySignature(const Drawn& call) {
    Buffer hash = SomeInput();
    Buffer signature = SomeInput();
    if ((straight || random.OneIn(3)) && call.provider && call.key) {
      // A signature that is right, when the key still has its object.
      for (const NCRYPT_KEY_HANDLE known : keys) {
        if (known != call.key || !hash.bytes) continue;
        const CK_OBJECT_HANDLE object = kit::KeyOf(call.key)->hPublicKeyObject;
        if (!token().HasObject(object)) continue;
        const fake::Bytes bytes = token().Signature(object, fake::Bytes(hash.bytes, hash.bytes + hash.size));
        signature = {Copy(bytes.data(), bytes.size()), static_cast<DWORD>(bytes.size())};
        break;
      }
    }
    const DWORD flags = SomeFlags({NCRYPT_SILENT_FLAG, BCRYPT_PAD_PKCS1});
    Faults::Get().Plan(random);
    Call(call.slot, [&] {
      return ksp().VerifySignature(call.provider, call.key, nullptr, hash.bytes, hash.size, signature.bytes,
                                   signature.size, flags);
    });
  }

  // A released name leaves its two texts behind.
  void FreeName(NCryptKeyName* name) {
    excused.insert(name->pszName);
    excused.insert(name->pszAlgid);
    Call(kFreeBuffer, [&] { return ksp().FreeBuffer(name); });
  }

  void FreeSomething() {
    if (!names.empty() && random.OneIn(2)) {
      NCryptKeyName* const name = names.back();
      names.pop_back();
      FreeName(name);
    } else if (!buffers.empty() && random.OneIn(2)) {
      void* const buffer = buffers.back();
      buffers.pop_back();
      std::erase(states, buffer);
      Call(kFreeBuffer, [&] { return ksp().FreeBuffer(buffer); });
    } else {
      Call(kFreeBuffer, [&] { return ksp().FreeBuffer(nullptr); });
    }
  }

  // By slot: how often an entry is drawn, and who draws its arguments and calls it.
  struct Entry {
    std::uint32_t weight;
    void (Impl::*call)(const Drawn&);
  };
  static constexpr Entry kEntries[] = {
      {6, &Impl::OpenProvider},
      {10, &Impl::OpenKey},
      {6, &Impl::CreatePersistedKey},
      {4, &Impl::GetProperty},  // GetProviderProperty
      {6, &Impl::GetProperty},  // GetKeyProperty
      {4, &Impl::SetProviderProperty},
      {8, &Impl::SetKeyProperty},
      {6, &Impl::FinalizeKey},
      {3, &Impl::DeleteKey},
      {3, &Impl::FreeProvider},
      {6, &Impl::FreeKey},
      {4, &Impl::FreeBuffer},
      {5, &Impl::Crypt},  // Encrypt
      {5, &Impl::Crypt},  // Decrypt
      {2, &Impl::IsAlgSupported},
      {2, &Impl::EnumAlgorithms},
      {8, &Impl::EnumKeys},
      {8, &Impl::ImportKey},
      {5, &Impl::ExportKey},
      {12, &Impl::SignHash},
      {5, &Impl::VerifySignature},
      {1, &Impl::PromptUser},
      {1, &Impl::NotifyChangeKey},
      {1, &Impl::SecretAgreement},
      {1, &Impl::DeriveKey},
      {1, &Impl::FreeSecret},
      {1, &Impl::GetKeyStorageInterface},
  };
  static_assert(std::size(kEntries) == kGetKeyStorageInterface + 1);

  void OneCall() {
    std::uint32_t total = 0;
    for (const Entry& entry : kEntries)
      total += entry.weight;
    std::uint32_t drawn = random.Below(total);
    std::size_t slot = 0;
    while (drawn >= kEntries[slot].weight)
      drawn -= kEntries[slot++].weight;
    if (providers.empty() && !random.OneIn(6)) slot = kOpenProvider;
    if (slot == kOpenProvider && providers.size() >= 4) slot = kEnumKeys;
    if (keys.size() < 3 && random.OneIn(3)) slot = kOpenKey;
    straight = random.OneIn(2);
    BeginCall();
    SetPosition({current, static_cast<std::uint32_t>(calls.size()),
                 slot < 26 ? kit::kSlots[slot] : "GetKeyStorageInterface", replay.c_str()});
    // In this order, as the seeds of earlier runs have it.
    Drawn call{slot, SomeProvider(), 0, nullptr};
    call.key = SomeKey(slot);
    call.result = Out(DWORD{0xAAAAAAAA});
    (this->*kEntries[slot].call)(call);
    EndCall();
  }

  // ---- the end
  // -------------------------------------------------------------------------------------------------------

  void ReleaseAll() {
    Faults::Get().Clear();
    for (std::size_t i = 0; i < slotCount; ++i)
      token().SlotAt(i).tokenPresent = true;
    while (!names.empty()) {
      BeginCall();
      FreeName(names.back());
      names.pop_back();
      EndCall();
    }
    for (void* buffer : buffers) {
      BeginCall();
      Call(kFreeBuffer, [&] { return ksp().FreeBuffer(buffer); });
      EndCall();
    }
    buffers.clear();
    states.clear();
    if (providers.empty() && !keys.empty()) {
      NCRYPT_PROV_HANDLE provider = 0;
      BeginCall();
      calls.back().cbName = sizeof kit::kProviderName;
      Call(kOpenProvider, [&] { return ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG); });
      EndCall();
      if (provider) providers.push_back(provider);
    }
    for (const NCRYPT_KEY_HANDLE handle : keys)
      ReleaseKey(handle);
    for (const NCRYPT_PROV_HANDLE provider : providers) {
      BeginCall();
      if (Call(kFreeProvider, [&] { return ksp().FreeProvider(provider); }) != 0) Note("a provider cannot be freed");
      EndCall();
    }
    providers.clear();
  }

  void ReleaseKey(NCRYPT_KEY_HANDLE handle) {
    const kit::KeyRecord* record = kit::KeyOf(handle);
    const bool accepted = record->cbLength >= sizeof(kit::KeyRecord) && record->dwMagic == kit::kKeyMagic;
    BeginCall();
    const SECURITY_STATUS status = Call(kFreeKey, [&] { return ksp().FreeKey(providers.at(0), handle); });
    if ((status == 0) != accepted) Note("FreeKey's handle test and the record do not agree");
    EndCall();
    excused.insert(record);
    excused.insert({record->pbModulus, record->pbPrime1, record->pbPrime2, record->pbExponent1, record->pbExponent2,
                    record->pbCoefficient, record->pbPrivateExponent});
    // A private blob's record is refused by every call, so that what it owns stays as well.
    if (!accepted)
      excused.insert({record->pszKeyName, record->pbKeyFile, record->pbPrivateKey, record->pbSecurityDescr});
  }

  // Whether a block may stay behind by the size of what its call is known to leave. Each may stay once a call.
  bool IsKnownLeak(const CallInfo& call, std::size_t size, std::multiset<std::size_t>& seen) const {
    const auto atMost = [&](std::size_t count) { return seen.count(size) <= count; };
    seen.insert(size);
    if (call.slot == kOpenProvider) {
      if (size == sizeof(CRITICAL_SECTION)) return atMost(1);
      if (call.status == 0) return size == sizeof(DWORD) && atMost(1);
      return (size == sizeof(kit::ProviderRecord) + call.cbName || size == 2 * call.cbName + 2 ||
              size == 33 * sizeof(wchar_t)) &&
             atMost(1);
    }
    return call.slot == kSignHash && size >= 34 && size <= 83 && atMost(1);
  }

  // The PIN cache's entries live as long as the process: one for a dialog at most.
  static bool IsCacheEntry(const CallInfo& call, std::size_t size) {
    return call.dialogs != 0 &&
           (size == sizeof(PinCacheEntry) || size == sizeof(DebugClass) || size == 16 || size == 32);
  }

  void CheckWhatStays() {
    std::vector<std::multiset<std::size_t>> seen(calls.size());
    std::vector<std::size_t> cacheBlocks(calls.size());
    for (const LiveBlock& block : Heap::Get().TakeLive()) {
      const std::size_t tag = std::min<std::size_t>(block.tag, calls.size() - 1);
      const CallInfo& call = calls[tag];
      if (excused.contains(block.address) || IsKnownLeak(call, block.size, seen[tag])) {
        ++tally.excused;
        // By its size alone a signed block could be a cache entry, which has to live on.
        if (call.dialogs == 0 || excused.contains(block.address)) {
          Heap::Get().Reclaim(block.address);
        } else {
          mayStay.insert(block.address);
        }
      } else if (IsCacheEntry(call, block.size) && ++cacheBlocks[tag] <= 4 * call.dialogs) {
        // Of two blocks of a size that both may have, one is the cache's.
        std::multiset<std::size_t> none;
        if (IsKnownLeak(call, block.size, none)) mayStay.insert(block.address);
      } else {
        char text[160];
        std::snprintf(text, sizeof text, "call %u (%s, status 0x%08lX) leaves a block of %u bytes behind",
                      static_cast<unsigned>(tag + 1),
                      call.slot < 26 ? kit::kSlots[call.slot] : "GetKeyStorageInterface",
                      static_cast<unsigned long>(call.status), static_cast<unsigned>(block.size));
        Note(text);
      }
    }
    if (const std::string violation = Heap::Get().TakeViolation(); !violation.empty()) Note(violation);
  }

  // The calls of the honest caller that fills the PIN cache leave what such calls leave.
  void ExcuseWhatStays() {
    for (const LiveBlock& block : Heap::Get().TakeLive()) {
      std::multiset<std::size_t> none;
      const CallInfo& call = calls[std::min<std::size_t>(block.tag, calls.size() - 1)];
      if (excused.contains(block.address) || IsKnownLeak(call, block.size, none)) mayStay.insert(block.address);
    }
  }

  std::string TakeWhatAnUnloadLeaves() {
    std::string found;
    for (const LiveBlock& block : Heap::Get().AllLive()) {
      if (!mayStay.contains(block.address)) {
        found += "an unload leaves a block of " + std::to_string(block.size) + " bytes; ";
      }
      Heap::Get().Reclaim(block.address);
    }
    mayStay.clear();
    return found + Heap::Get().TakeViolation();
  }

  void Forget() {
    calls.clear();
    providers.clear();
    keys.clear();
    names.clear();
    buffers.clear();
    states.clear();
    excused.clear();
  }

  std::string Sequence(std::uint64_t seed, std::uint32_t count) {
    failure.clear();
    Forget();
    current = seed;
    random = Random(seed);
    dialogsWanted = random.OneIn(options.dialogsOneIn);
    onlyRightPin = false;
    BeginCall();
    Call(kFreeBuffer, [&] { return ksp().FreeBuffer(nullptr); });  // no reader of an earlier sequence is remembered
    EndCall();
    NewWorld(seed);
    for (std::uint32_t i = 0; i < count && failure.empty(); ++i)
      OneCall();
    SetPosition({seed, static_cast<std::uint32_t>(calls.size()), "the releases after it", replay.c_str()});
    ReleaseAll();
    CheckWhatStays();
    if (failure.empty()) CheckLocks(seed);
    SetIdle();
    return failure;
  }

  // No lock is held: another thread can log in with a cached PIN, and a PIN dialog still opens.
  void CheckLocks(std::uint64_t seed) {
    Forget();
    SetPosition({seed, 0, "another thread's signature after it", replay.c_str()});
    PlainWorld(kCheckSerial);
    other.Do([this] { SignOnce("another thread cannot sign"); });
    ReleaseAll();
    if (dialogsWanted) {
      onlyRightPin = true;
      const std::uint64_t before = tally.dialogs;
      PlainWorld("V" + std::to_string(seed));
      SignOnce("a PIN dialog does not open any more");
      if (tally.dialogs != before + 1) Note("a PIN dialog does not open any more");
      ReleaseAll();
    }
    CheckWhatStays();
  }

  void Prime() {
    onlyRightPin = true;
    for (const char* serial :
         {kPrimedSerials[0], kPrimedSerials[1], kPrimedSerials[2], kOtherPinSerial, kCheckSerial}) {
      SetPosition({0, 0, "filling the PIN cache", replay.c_str()});
      Forget();
      PlainWorld(serial);
      SignOnce("the PIN cache cannot be filled");
      // Also the first exceptions, for which the runtime library takes memory that it keeps.
      BYTE byte = 0;
      ksp().SetProviderProperty(providers.at(0), L"Use Context", &byte, 0xFFFFFFFF, 0);
      Faults::Get().PlanAll(Fault::Allocation);
      ksp().SetProviderProperty(providers.at(0), L"Use Context", &byte, 1, 0);
      Faults::Get().Clear();
      ReleaseAll();
      if (!failure.empty()) throw std::runtime_error(failure);
      ExcuseWhatStays();
    }
    SetIdle();
  }
};

void InstallHarness(HeapKind heap) {
  Heap::Get().SetKind(heap);
  Heap::Get().Install();
  InstallPlatform();
  InstallToken();
}

Soak::Soak(const Options& options) : impl_(std::make_unique<Impl>()) {
  impl_->options = options;
  if (options.heap == HeapKind::Guard) impl_->replay += " --guard";
  impl_->replay += " --dialogs " + std::to_string(options.dialogsOneIn);
  if (options.reloadAfter != 0) impl_->replay += " --reload " + std::to_string(options.reloadAfter);
  // What earlier loads have left is nobody's.
  kit::Provider::Get().Unload();
  impl_->TakeWhatAnUnloadLeaves();
  InstallHarness(options.heap);
  SetDialogAnswer(
      [impl = impl_.get()](const std::function<std::intptr_t()>& open) { return impl->AnswerDialog(open); });
  if (!kit::Provider::Get().LoadAsConfigured()) throw std::runtime_error("keldaksp.dll does not load");
  impl_->Prime();
}

Soak::~Soak() {
  SetIdle();
  SetDialogAnswer(nullptr);
  kit::Provider::Get().Unload();
}

std::string Soak::RunSequence(std::uint64_t seed, std::uint32_t calls) {
  return impl_->Sequence(seed, calls);
}

std::string Soak::Reload() {
  // Asking for every handle takes long.
  constexpr std::uint64_t kHandlesOneIn = 10;
  // The platform opens some for itself when it first needs them: with the first click of a dialog keys of the registry,
  // with the first wait for a lock an event.
  constexpr std::size_t kOnce = 8;
  SetPosition({impl_->current, 0, "the unload after it", impl_->replay.c_str()});
  kit::Provider::Get().Unload();
  std::string found = impl_->TakeWhatAnUnloadLeaves();
  const std::uint64_t reload = impl_->tally.reloads++;
  const bool first = reload == 0;
  const DWORD tlsIndex = hosts::NextTlsIndex();
  if (first) impl_->firstTlsIndex = tlsIndex;
  if (tlsIndex > impl_->firstTlsIndex) found += "an unload leaves an index of thread-local storage; ";
  if (reload % kHandlesOneIn == 0) {
    const std::map<std::wstring, std::size_t> handles = hosts::HandlesByKind();
    if (first) impl_->firstHandles = handles;
    for (const auto& [kind, count] : handles) {
      const std::size_t before = impl_->firstHandles[kind];
      if (count <= before + kOnce) continue;
      found += "unloads leave handles: " + std::to_string(count - before) + " " +
               std::string(kind.begin(), kind.end()) + "; ";
    }
  }
  SetPosition({impl_->current, 0, "the load after it", impl_->replay.c_str()});
  if (!kit::Provider::Get().LoadAsConfigured()) throw std::runtime_error("keldaksp.dll does not load again");
  impl_->Prime();
  return found;
}

std::string Soak::Run(std::uint64_t seed, std::uint64_t calls) {
  const std::uint64_t end = impl_->tally.calls + calls;
  const std::uint32_t reloadAfter = impl_->options.reloadAfter;
  for (std::uint64_t sequence = 1; impl_->tally.calls < end; ++seed, ++sequence) {
    std::string found = RunSequence(seed);
    if (found.empty() && reloadAfter != 0 && sequence % reloadAfter == 0) found = Reload();
    if (!found.empty()) {
      PrintPosition(found.c_str());
      return found;
    }
  }
  return {};
}

const Tally& Soak::tally() const {
  return impl_->tally;
}

}  // namespace soak
