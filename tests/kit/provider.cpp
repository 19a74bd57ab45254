#include "kit/provider.h"

#include <winternl.h>

#include <cwchar>
#include <stdexcept>

#include "kit/dialogs.h"

namespace kit {
namespace {

// ntdll's loader notification: called when a module is mapped and its imports are resolved, before its DllMain runs.
struct NotificationData {
  ULONG flags;
  const UNICODE_STRING* fullName;
  const UNICODE_STRING* baseName;
  void* base;
  ULONG size;
};
using NotificationFn = void(CALLBACK*)(ULONG reason, const NotificationData* data, void* context);
using RegisterFn = LONG(NTAPI*)(ULONG flags, NotificationFn function, void* context, void** cookie);

void CALLBACK OnModule(ULONG reason, const NotificationData* data, void*) {
  constexpr ULONG kLoaded = 1;
  const std::wstring name(data->baseName->Buffer, data->baseName->Length / sizeof(wchar_t));
  if (_wcsicmp(name.c_str(), L"keldaksp.dll") != 0) return;
  if (reason == kLoaded) {
    Imports::Get().Attach(static_cast<HMODULE>(data->base));
  } else {
    Imports::Get().Detach();
  }
}

template <typename Item>
::testing::AssertionResult Same(const std::vector<Item>& expected, const std::vector<Item>& actual) {
  const auto show = [](const Item& item) { return ::testing::PrintToString(item); };
  if (expected == actual) return ::testing::AssertionSuccess();
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  std::size_t first = 0;
  while (first < expected.size() && first < actual.size() && expected[first] == actual[first])
    ++first;
  failure << "the lists part at position " << first << " (" << expected.size() << " expected, " << actual.size()
          << " seen)\n";
  const std::size_t from = first > 3 ? first - 3 : 0;
  for (std::size_t i = from; i < first; ++i)
    failure << "    same      " << show(expected[i]) << "\n";
  for (std::size_t i = first; i < expected.size() && i < first + 8; ++i) {
    failure << "  - expected  " << show(expected[i]) << "\n";
  }
  for (std::size_t i = first; i < actual.size() && i < first + 8; ++i) {
    failure << "  + seen      " << show(actual[i]) << "\n";
  }
  return failure;
}

}  // namespace

std::wstring ProgramFolder() {
  wchar_t path[MAX_PATH];
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  const std::wstring all(path, length);
  return all.substr(0, all.find_last_of(L'\\') + 1);
}

void LoadTokenModule(TokenModule kind) {
  if (kind == TokenModule::None) return;
  const std::wstring path =
      ProgramFolder() +
      (kind == TokenModule::Working ? L"..\\fake\\keldapkcs11.dll" : L"..\\fake\\without_list\\keldapkcs11.dll");
  const HMODULE module = LoadLibraryW(path.c_str());
  if (!module) throw std::runtime_error("the fake keldapkcs11.dll does not load");
  using AttachFn = void (*)(void*, unsigned long);
  const auto attach = reinterpret_cast<AttachFn>(reinterpret_cast<void*>(GetProcAddress(module, "KeldaFakeAttach")));
  attach(fake::Token().List(), fake::Token().FunctionListResult());
}

Provider& Provider::Get() {
  static Provider provider;
  return provider;
}

bool Provider::Load(Log::Mode mode) {
  Unload();
  Log::Get().Prepare(mode);
  return LoadAsConfigured();
}

bool Provider::LoadAsConfigured() {
  Unload();
  module_ = LoadLibraryW((ProgramFolder() + L"keldaksp.dll").c_str());
  loadError_ = module_ ? 0 : GetLastError();
  if (!module_) return false;
  GetKeyStorageInterface =
      reinterpret_cast<GetKeyStorageInterfaceFn>(reinterpret_cast<void*>(Export("GetKeyStorageInterface")));
  FunctionTable* handedOut = nullptr;
  if (GetKeyStorageInterface && GetKeyStorageInterface(kProviderName, &handedOut, 0) == 0) table = handedOut;
  return true;
}

void Provider::Unload() {
  if (!module_) return;
  FreeLibrary(module_);
  module_ = nullptr;
  GetKeyStorageInterface = nullptr;
  table = nullptr;
}

FARPROC Provider::Export(const std::string& name) const {
  return GetProcAddress(module_, name.c_str());
}

void StartKit() {
  Registry::Get().Redirect();
  Registry::Get().SetDefaults();
  Log::Get().Install();
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  const auto registerNotification =
      reinterpret_cast<RegisterFn>(reinterpret_cast<void*>(GetProcAddress(ntdll, "LdrRegisterDllNotification")));
  static void* cookie = nullptr;
  if (!registerNotification || registerNotification(0, &OnModule, nullptr, &cookie) != 0) {
    throw std::runtime_error("no loader notification");
  }
}

void StopKit() {
  Provider::Get().Unload();
  Registry::Get().Release();
  Log::Get().RemoveFiles();
}

void ProviderTest::SetUp() {
  token().Reset();
  Registry::Get().SetDefaults();
  if (!Provider::Get().loaded() || Log::Get().mode() != Log::Mode::Tagged) {
    LoadTokenModule(TokenModule::Working);
    ASSERT_TRUE(Provider::Get().Load(Log::Mode::Tagged)) << "error " << Provider::Get().loadError();
  }
  ASSERT_NE(Provider::Get().table, nullptr);
  Log::Get().WriteSwitch();
  ksp().FreeBuffer(nullptr);  // no reader chosen by an earlier test is remembered
  Forget();
}

const FunctionTable& ProviderTest::ksp() const {
  const FunctionTable* table = Provider::Get().table;
  if (!table) throw std::runtime_error("the provider is not loaded");
  return *table;
}

void ProviderTest::TearDown() {
  token().ClearScript();
}

void ProviderTest::Forget() {
  Log::Get().Drop();
  Log::Get().TakeWideLines();
  token().ClearCalls();
  Registry::Get().TakeReads();
}

NCRYPT_PROV_HANDLE ProviderTest::OpenProvider(DWORD flags) {
  NCRYPT_PROV_HANDLE provider = 0;
  EXPECT_EQ(ksp().OpenProvider(&provider, kProviderName, flags), 0);
  Forget();
  return provider;
}

NCRYPT_KEY_HANDLE ProviderTest::OpenKey(NCRYPT_PROV_HANDLE provider, const wchar_t* name) {
  NCRYPT_KEY_HANDLE key = 0;
  EXPECT_EQ(ksp().OpenKey(provider, &key, name, 0, 0), 0);
  Forget();
  return key;
}

void ProviderTest::CachePin(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const std::string& pin) {
  BYTE hash[20] = {};
  DWORD length = 0;
  DialogRobot robot({[&](Dialog& dialog) {
    dialog.Type(kPinField, std::wstring(pin.begin(), pin.end()));
    dialog.PressOk();
  }});
  EXPECT_EQ(ksp().SignHash(provider, key, nullptr, hash, sizeof hash, nullptr, 0, &length, 0), 0);
  EXPECT_EQ(robot.Finish(), 1u) << "the PIN is asked for once";
  Forget();
}

void ProviderTest::ExpectLines(const std::vector<Line>& expected) {
  KIT_EXPECT_LINES(expected);
}

void ProviderTest::ExpectCalls(const std::vector<std::string>& expected) {
  KIT_EXPECT_CALLS(expected);
}

BYTE* ProviderTest::Block(std::string_view text) {
  return static_cast<BYTE*>(NewProviderBlock(text.data(), text.size()));
}

::testing::AssertionResult ProviderTest::WipedAndFreed(const MemoryWatch& watch, const void* address,
                                                       std::size_t size) {
  const std::vector<FreedBlock> freed = watch.Freed();
  const auto block = std::find_if(freed.rbegin(), freed.rend(), [&](const FreedBlock& one) {
    return one.address == address && one.contents.size() >= size;
  });
  if (block == freed.rend()) return ::testing::AssertionFailure() << "the block was not released";
  const auto end = block->contents.begin() + static_cast<std::ptrdiff_t>(size);
  if (std::any_of(block->contents.begin(), end, [](std::uint8_t byte) { return byte != 0; })) {
    return ::testing::AssertionFailure() << "the block was released unwiped";
  }
  return ::testing::AssertionSuccess();
}

void OpenedProviderTest::SetUp() {
  ProviderTest::SetUp();
  AddReader();
  provider_ = OpenProvider();
}

void OpenedProviderTest::TearDown() {
  if (provider_) ksp().FreeProvider(provider_);
  ProviderTest::TearDown();
}

SECURITY_STATUS OpenedProviderTest::BuildList() {
  NCryptKeyName* name = nullptr;
  PVOID state = nullptr;
  const SECURITY_STATUS status = ksp().EnumKeys(provider_, nullptr, &name, &state, 0);
  if (name) ksp().FreeBuffer(name);
  if (state) ksp().FreeBuffer(state);
  return status;
}

::testing::AssertionResult SameLines(const std::vector<Line>& expected, const std::vector<Line>& actual) {
  return Same(expected, actual);
}

::testing::AssertionResult SameTexts(const std::vector<std::string>& expected, const std::vector<std::string>& actual) {
  return Same(expected, actual);
}

}  // namespace kit
