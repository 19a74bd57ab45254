// The stand-in router from outside: a caller's handles in, a provider's handles out, everything else untouched.

#include <gtest/gtest.h>
#include <windows.h>

#include <cstring>
#include <cwchar>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "standins/dummy_provider.h"

namespace {

using dummy::Call;

constexpr wchar_t kName[] = L"Dummy Key Storage Provider";
constexpr wchar_t kAlias[] = L"Dummy by another name";
constexpr ULONG_PTR kProviderHandle = 0x1110;
constexpr ULONG_PTR kKeyHandle = 0x2220;
constexpr wchar_t kPrivateHive[] = L"Software\\KeldaRouterTest";

std::wstring ProgramFolder() {
  std::wstring path(MAX_PATH, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.rfind(L'\\'));
}

// The router is loaded by its path, so that the platform's own DLL of the same name stays out of it.
HMODULE Router() {
  static const HMODULE router = LoadLibraryW((ProgramFolder() + L"\\..\\standins\\ncrypt.dll").c_str());
  return router;
}

template <typename Function>
Function* Resolve(const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(Router(), name)));
}

#define ROUTER(name) Resolve<decltype(name)>(#name)

void SetText(HKEY key, const wchar_t* value, DWORD type, const std::wstring& text) {
  ASSERT_EQ(RegSetValueExW(key, value, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                           static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
            ERROR_SUCCESS);
}

HKEY CreateKey(const std::wstring& path) {
  HKEY key = nullptr;
  RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
  return key;
}

const std::wstring kCryptography = L"System\\CurrentControlSet\\Control\\Cryptography\\";

void Register(const std::wstring& name, const std::wstring& image) {
  HKEY key = CreateKey(kCryptography + L"Providers\\" + name);
  SetText(key, L"Aliases", REG_MULTI_SZ, name + L'\0' + kAlias + L'\0');
  SetText(key, L"Comment", REG_SZ, L"For tests");
  RegCloseKey(key);
  key = CreateKey(kCryptography + L"Providers\\" + name + L"\\UM");
  SetText(key, L"Image", REG_SZ, image);
  RegCloseKey(key);
  key = CreateKey(kCryptography + L"Providers\\" + name + L"\\UM\\00010001");
  SetText(key, L"Functions", REG_MULTI_SZ, std::wstring(L"KEY_STORAGE") + L'\0');
  RegCloseKey(key);
}

void List(const std::vector<std::wstring>& names) {
  std::wstring text;
  for (const auto& name : names)
    text += name + L'\0';
  HKEY key = CreateKey(kCryptography + L"Configuration\\Local\\Default\\00010001\\KEY_STORAGE");
  SetText(key, L"Providers", REG_MULTI_SZ, text);
  RegCloseKey(key);
}

class RouterTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_NE(Router(), nullptr) << GetLastError();
    image_ = ProgramFolder() + L"\\dummyksp.dll";
    const HMODULE provider = LoadLibraryW(image_.c_str());
    ASSERT_NE(provider, nullptr) << GetLastError();
    state_ = reinterpret_cast<dummy::StateFn>(reinterpret_cast<void*>(GetProcAddress(provider, "DummyState")))();
  }

  void SetUp() override {
    RegDeleteTreeW(HKEY_CURRENT_USER, kPrivateHive);
    HKEY hive = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kPrivateHive, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hive, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, hive), ERROR_SUCCESS);
    RegCloseKey(hive);
    std::memset(static_cast<void*>(state_), 0, sizeof(*state_));
    state_->majorVersion = 1;
    state_->newHandle = kProviderHandle;
    Register(kName, image_);
    List({kName});
  }

  void TearDown() override {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, kPrivateHive);
  }

  static NCRYPT_PROV_HANDLE Open(const wchar_t* name = kName) {
    NCRYPT_PROV_HANDLE provider = 0;
    state_->newHandle = kProviderHandle;
    EXPECT_EQ(ROUTER(NCryptOpenStorageProvider)(&provider, name, 0), ERROR_SUCCESS);
    return provider;
  }

  static NCRYPT_KEY_HANDLE OpenKey(NCRYPT_PROV_HANDLE provider, ULONG_PTR handle = kKeyHandle) {
    NCRYPT_KEY_HANDLE key = 0;
    state_->newHandle = handle;
    EXPECT_EQ(ROUTER(NCryptOpenKey)(provider, &key, L"name", 0, 0), ERROR_SUCCESS);
    return key;
  }

  static void Forget() { state_->callCount = 0; }

  // The one call since the last Forget().
  static Call TheCall() {
    EXPECT_EQ(state_->callCount, 1);
    const Call call = state_->callCount >= 1 ? state_->calls[0] : Call{"no call", 0, 0, {}};
    Forget();
    return call;
  }

  static void ExpectCall(const char* name, ULONG_PTR provider, ULONG_PTR object,
                         const std::vector<ULONG_PTR>& arguments) {
    const Call call = TheCall();
    EXPECT_STREQ(call.name, name);
    EXPECT_EQ(call.provider, provider) << name;
    EXPECT_EQ(call.object, object) << name;
    for (std::size_t i = 0; i < arguments.size(); ++i)
      EXPECT_EQ(call.arguments[i], arguments[i]) << name << " " << i;
  }

  static ULONG_PTR Number(const void* pointer) { return reinterpret_cast<ULONG_PTR>(pointer); }

  static inline std::wstring image_;
  static inline dummy::State* state_ = nullptr;
};

TEST_F(RouterTest, RefusesProvidersThatCannotBeOpened) {
  const auto open = ROUTER(NCryptOpenStorageProvider);
  NCRYPT_PROV_HANDLE provider = 77;
  EXPECT_EQ(open(nullptr, kName, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(open(&provider, L"Nobody", 0), NTE_NOT_FOUND);

  Register(L"No DLL", L"there-is-no-such.dll");
  Register(L"No export", L"kernel32.dll");
  Register(L"Not listed", image_);
  List({kName, L"No DLL", L"No export", L"Not registered"});
  EXPECT_EQ(open(&provider, L"No DLL", 0), NTE_PROVIDER_DLL_FAIL);
  EXPECT_EQ(open(&provider, L"No export", 0), NTE_PROVIDER_DLL_FAIL);
  EXPECT_EQ(open(&provider, L"Not listed", 0), NTE_NOT_FOUND);
  EXPECT_EQ(open(&provider, L"Not registered", 0), NTE_NOT_FOUND);

  state_->majorVersion = 2;
  EXPECT_EQ(open(&provider, kName, 0), NTE_BAD_PROVIDER);
  state_->majorVersion = 1;
  state_->withoutTable = TRUE;
  EXPECT_EQ(open(&provider, kName, 0), NTE_BAD_PROVIDER);
  state_->withoutTable = FALSE;
  state_->interfaceStatus = static_cast<NTSTATUS>(0xC000000D);
  EXPECT_EQ(open(&provider, kName, 0), NTE_INVALID_PARAMETER);
  state_->interfaceStatus = NTE_FAIL;
  EXPECT_EQ(open(&provider, kName, 0), NTE_FAIL);
  state_->interfaceStatus = static_cast<NTSTATUS>(0xC0000001);
  EXPECT_EQ(open(&provider, kName, 0), NTE_INTERNAL_ERROR);
  EXPECT_EQ(state_->callCount, 0);

  state_->interfaceStatus = 0;
  state_->status = ERROR_CANCELLED;
  EXPECT_EQ(open(&provider, kName, 0), ERROR_CANCELLED);
  EXPECT_EQ(provider, 77u);
}

TEST_F(RouterTest, UnloadsAProviderThatCouldNotBeOpened) {
  const auto open = ROUTER(NCryptOpenStorageProvider);
  const std::wstring copy = ProgramFolder() + L"\\dummyksp_copy.dll";
  ASSERT_TRUE(CopyFileW(image_.c_str(), copy.c_str(), FALSE)) << GetLastError();
  Register(L"Copy", copy);
  List({kName, L"Copy"});
  NCRYPT_PROV_HANDLE provider = 0;
  // Nobody has told the copy yet which version its table is to have.
  EXPECT_EQ(open(&provider, L"Copy", 0), NTE_BAD_PROVIDER);
  EXPECT_EQ(GetModuleHandleW(copy.c_str()), nullptr);

  const HMODULE module = LoadLibraryW(copy.c_str());
  ASSERT_NE(module, nullptr);
  auto* state = reinterpret_cast<dummy::StateFn>(reinterpret_cast<void*>(GetProcAddress(module, "DummyState")))();
  state->majorVersion = 1;
  state->status = NTE_FAIL;
  EXPECT_EQ(open(&provider, L"Copy", 0), NTE_FAIL);
  state->status = ERROR_SUCCESS;
  state->newHandle = kProviderHandle;
  ASSERT_EQ(open(&provider, L"Copy", 0), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(provider), ERROR_SUCCESS);
  state->status = NTE_FAIL;
  EXPECT_EQ(open(&provider, L"Copy", 0), NTE_FAIL);
  // One that was opened once stays, whatever comes after.
  ASSERT_TRUE(FreeLibrary(module));
  EXPECT_EQ(GetModuleHandleW(copy.c_str()), module);

  // The router's own reference, so that the file can go. Nobody asks for this provider again.
  ASSERT_TRUE(FreeLibrary(module));
  EXPECT_TRUE(DeleteFileW(copy.c_str())) << GetLastError();
}

TEST_F(RouterTest, HandsPropertyFlagsOnAsTheyAre) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  std::array<BYTE, 4> data{};
  DWORD result = 0;
  constexpr DWORD kSetFlags[] = {NCRYPT_PERSIST_FLAG, NCRYPT_PERSIST_FLAG | NCRYPT_PERSIST_ONLY_FLAG,
                                 NCRYPT_SILENT_FLAG};
  const wchar_t* property = L"Name";
  for (const DWORD flags : kSetFlags) {
    EXPECT_EQ(ROUTER(NCryptSetProperty)(key, property, data.data(), 4, flags), ERROR_SUCCESS);
    ExpectCall("SetKeyProperty", kProviderHandle, kKeyHandle, {Number(property), Number(data.data()), 4, flags});
  }
  // For the security descriptor the flags say which parts of it are meant.
  constexpr DWORD kParts = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
  for (const DWORD flags : {DWORD{DACL_SECURITY_INFORMATION}, kParts, kParts | NCRYPT_SILENT_FLAG}) {
    const wchar_t* name = NCRYPT_SECURITY_DESCR_PROPERTY;
    EXPECT_EQ(ROUTER(NCryptGetProperty)(key, name, data.data(), 4, &result, flags), ERROR_SUCCESS);
    ExpectCall("GetKeyProperty", kProviderHandle, kKeyHandle,
               {Number(name), Number(data.data()), 4, Number(&result), flags});
    EXPECT_EQ(ROUTER(NCryptSetProperty)(key, name, data.data(), 4, flags), ERROR_SUCCESS);
    ExpectCall("SetKeyProperty", kProviderHandle, kKeyHandle, {Number(name), Number(data.data()), 4, flags});
  }
  ROUTER(NCryptFreeObject)(key);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, OpensByNameAliasAndDefault) {
  const auto freeObject = ROUTER(NCryptFreeObject);
  NCRYPT_PROV_HANDLE provider = Open();
  EXPECT_STREQ(state_->interfaceName.data(), kName);
  EXPECT_STREQ(state_->openedName.data(), kName);
  EXPECT_EQ(freeObject(provider), ERROR_SUCCESS);

  provider = Open(kAlias);
  EXPECT_STREQ(state_->interfaceName.data(), kName);
  EXPECT_STREQ(state_->openedName.data(), kAlias);
  EXPECT_EQ(freeObject(provider), ERROR_SUCCESS);

  // Without a name the platform's own provider is meant.
  EXPECT_EQ(ROUTER(NCryptOpenStorageProvider)(&provider, nullptr, 0), NTE_NOT_FOUND);
  Register(MS_KEY_STORAGE_PROVIDER, image_);
  List({kName, MS_KEY_STORAGE_PROVIDER});
  provider = Open(nullptr);
  EXPECT_STREQ(state_->interfaceName.data(), MS_KEY_STORAGE_PROVIDER);
  EXPECT_EQ(freeObject(provider), ERROR_SUCCESS);

  Forget();
  ASSERT_EQ(ROUTER(NCryptOpenStorageProvider)(&provider, kName, NCRYPT_SILENT_FLAG), ERROR_SUCCESS);
  ExpectCall("OpenProvider", 0, 0, {NCRYPT_SILENT_FLAG});
  EXPECT_EQ(freeObject(provider), ERROR_SUCCESS);
  EXPECT_EQ(state_->openProviders, 0);
}

TEST_F(RouterTest, HandsOutHandlesOfItsOwn) {
  const auto first = Open();
  const auto second = Open();
  const auto key = OpenKey(first);
  const auto twin = OpenKey(first);
  const std::set<ULONG_PTR> handles{first, second, key, twin, kProviderHandle, kKeyHandle};
  EXPECT_EQ(handles.size(), 6u);
  EXPECT_TRUE(ROUTER(NCryptIsKeyHandle)(key));
  EXPECT_FALSE(ROUTER(NCryptIsKeyHandle)(first));
  EXPECT_FALSE(ROUTER(NCryptIsKeyHandle)(kKeyHandle));
  EXPECT_FALSE(ROUTER(NCryptIsKeyHandle)(0));
  for (const auto handle : {key, twin, first, second})
    EXPECT_EQ(ROUTER(NCryptFreeObject)(handle), ERROR_SUCCESS);
  EXPECT_FALSE(ROUTER(NCryptIsKeyHandle)(key));
  // A number is not used twice.
  const auto third = Open();
  EXPECT_FALSE(handles.contains(third));
  EXPECT_EQ(ROUTER(NCryptFreeObject)(third), ERROR_SUCCESS);
}

TEST_F(RouterTest, RefusesHandlesOfOtherKinds) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  const auto freed = OpenKey(provider);
  ASSERT_EQ(ROUTER(NCryptFreeObject)(freed), ERROR_SUCCESS);
  Forget();
  std::array<BYTE, 8> bytes{};
  DWORD size = 0;
  NCRYPT_KEY_HANDLE out = 0;
  NCryptAlgorithmName* algorithms = nullptr;
  NCryptKeyName* name = nullptr;
  void* state = nullptr;
  HANDLE event = nullptr;
  auto* data = bytes.data();

  for (const NCRYPT_HANDLE bad : {NCRYPT_HANDLE{0}, NCRYPT_HANDLE{kProviderHandle}, freed, key}) {
    EXPECT_EQ(ROUTER(NCryptEnumAlgorithms)(bad, 0, &size, &algorithms, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptIsAlgSupported)(bad, L"RSA", 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptEnumKeys)(bad, nullptr, &name, &state, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptOpenKey)(bad, &out, L"name", 0, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptCreatePersistedKey)(bad, &out, L"RSA", nullptr, 0, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptImportKey)(bad, 0, L"RSAPUBLICBLOB", nullptr, &out, data, 8, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptNotifyChangeKey)(bad, &event, 0), NTE_INVALID_HANDLE);
  }
  for (const NCRYPT_HANDLE bad : {NCRYPT_HANDLE{0}, NCRYPT_HANDLE{kKeyHandle}, freed, provider}) {
    EXPECT_EQ(ROUTER(NCryptFinalizeKey)(bad, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptEncrypt)(bad, data, 8, nullptr, data, 8, &size, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptDecrypt)(bad, data, 8, nullptr, data, 8, &size, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptExportKey)(bad, 0, L"", nullptr, data, 8, &size, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptSignHash)(bad, nullptr, data, 8, data, 8, &size, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptVerifySignature)(bad, nullptr, data, 8, data, 8, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptDeleteKey)(bad, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptSecretAgreement)(bad, key, &out, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptSecretAgreement)(key, bad, &out, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptDeriveKey)(bad, L"HASH", nullptr, data, 8, &size, 0), NTE_INVALID_HANDLE);
  }
  for (const NCRYPT_HANDLE bad : {NCRYPT_HANDLE{0}, NCRYPT_HANDLE{kKeyHandle}, freed}) {
    EXPECT_EQ(ROUTER(NCryptGetProperty)(bad, L"Name", data, 8, &size, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptSetProperty)(bad, L"Name", data, 8, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptFreeObject)(bad), NTE_INVALID_HANDLE);
  }
  EXPECT_EQ(state_->callCount, 0);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(key), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(provider), ERROR_SUCCESS);
}

TEST_F(RouterTest, RefusesNullWhereItWritesAHandle) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  NCryptKeyName* name = nullptr;
  void* state = nullptr;
  DWORD count = 0;
  NCryptProviderName* providers = nullptr;
  EXPECT_EQ(ROUTER(NCryptOpenKey)(provider, nullptr, L"name", 0, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptCreatePersistedKey)(provider, nullptr, L"RSA", nullptr, 0, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptImportKey)(provider, 0, L"", nullptr, nullptr, nullptr, 0, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptSecretAgreement)(key, key, nullptr, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptEnumKeys)(provider, nullptr, nullptr, &state, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptEnumKeys)(provider, nullptr, &name, nullptr, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptEnumStorageProviders)(nullptr, &providers, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptEnumStorageProviders)(&count, nullptr, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(ROUTER(NCryptTranslateHandle)(nullptr, nullptr, 1, 0, 0, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(state_->callCount, 0);
  NCRYPT_KEY_HANDLE translated = 0;
  EXPECT_EQ(ROUTER(NCryptTranslateHandle)(nullptr, &translated, 0, 0, 0, 0), NTE_INVALID_HANDLE);
  EXPECT_EQ(ROUTER(NCryptTranslateHandle)(nullptr, &translated, 1, 0, 0, 0), NTE_NOT_SUPPORTED);
  ROUTER(NCryptFreeObject)(key);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, ForwardsEveryArgument) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  BYTE input = 1;
  BYTE output = 2;
  DWORD result = 3;
  int padding = 4;
  NCryptBufferDesc parameters{};
  HANDLE event = nullptr;
  NCRYPT_KEY_HANDLE out = 0;
  const wchar_t* text = L"text";
  const wchar_t* more = L"more";

  EXPECT_EQ(ROUTER(NCryptIsAlgSupported)(provider, text, 5), ERROR_SUCCESS);
  ExpectCall("IsAlgSupported", kProviderHandle, 0, {Number(text), 5});
  EXPECT_EQ(ROUTER(NCryptOpenKey)(provider, &out, text, 6, 7), ERROR_SUCCESS);
  ExpectCall("OpenKey", kProviderHandle, 0, {Number(text), 6, 7});
  EXPECT_EQ(ROUTER(NCryptFreeObject)(out), ERROR_SUCCESS);
  ExpectCall("FreeKey", kProviderHandle, kKeyHandle, {});
  EXPECT_EQ(ROUTER(NCryptCreatePersistedKey)(provider, &out, text, more, 8, 9), ERROR_SUCCESS);
  ExpectCall("CreatePersistedKey", kProviderHandle, 0, {Number(text), Number(more), 8, 9});
  ROUTER(NCryptFreeObject)(out);
  Forget();
  EXPECT_EQ(ROUTER(NCryptFinalizeKey)(key, 10), ERROR_SUCCESS);
  ExpectCall("FinalizeKey", kProviderHandle, kKeyHandle, {10});
  EXPECT_EQ(ROUTER(NCryptEncrypt)(key, &input, 11, &padding, &output, 12, &result, 13), ERROR_SUCCESS);
  ExpectCall("Encrypt", kProviderHandle, kKeyHandle,
             {Number(&input), 11, Number(&padding), Number(&output), 12, Number(&result), 13});
  EXPECT_EQ(ROUTER(NCryptDecrypt)(key, &input, 14, &padding, &output, 15, &result, 16), ERROR_SUCCESS);
  ExpectCall("Decrypt", kProviderHandle, kKeyHandle,
             {Number(&input), 14, Number(&padding), Number(&output), 15, Number(&result), 16});
  EXPECT_EQ(ROUTER(NCryptSignHash)(key, &padding, &input, 17, &output, 18, &result, 19), ERROR_SUCCESS);
  ExpectCall("SignHash", kProviderHandle, kKeyHandle,
             {Number(&padding), Number(&input), 17, Number(&output), 18, Number(&result), 19});
  EXPECT_EQ(ROUTER(NCryptVerifySignature)(key, &padding, &input, 20, &output, 21, 22), ERROR_SUCCESS);
  ExpectCall("VerifySignature", kProviderHandle, kKeyHandle,
             {Number(&padding), Number(&input), 20, Number(&output), 21, 22});
  EXPECT_EQ(ROUTER(NCryptImportKey)(provider, 0, text, &parameters, &out, &input, 23, 24), ERROR_SUCCESS);
  ExpectCall("ImportKey", kProviderHandle, 0, {Number(text), Number(&parameters), Number(&input), 23, 24});
  ROUTER(NCryptFreeObject)(out);
  Forget();
  EXPECT_EQ(ROUTER(NCryptExportKey)(key, 0, text, &parameters, &output, 25, &result, 26), ERROR_SUCCESS);
  ExpectCall("ExportKey", kProviderHandle, kKeyHandle,
             {0, Number(text), Number(&parameters), Number(&output), 25, Number(&result), 26});
  EXPECT_EQ(ROUTER(NCryptNotifyChangeKey)(provider, &event, 27), ERROR_SUCCESS);
  ExpectCall("NotifyChangeKey", kProviderHandle, 0, {Number(&event), 27});

  // Whatever the provider answers is the answer.
  state_->status = NTE_PERM;
  EXPECT_EQ(ROUTER(NCryptSignHash)(key, nullptr, nullptr, 0, nullptr, 0, nullptr, 0), NTE_PERM);
  EXPECT_EQ(ROUTER(NCryptOpenKey)(provider, &out, text, 0, 0), NTE_PERM);
  state_->status = ERROR_SUCCESS;
  EXPECT_EQ(ROUTER(NCryptFreeObject)(key), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(provider), ERROR_SUCCESS);
}

TEST_F(RouterTest, RoutesPropertiesByHandleKind) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  std::array<BYTE, 8> data{};
  DWORD result = 0;
  const wchar_t* name = L"Name";
  EXPECT_EQ(ROUTER(NCryptGetProperty)(provider, name, data.data(), 8, &result, 1), ERROR_SUCCESS);
  ExpectCall("GetProviderProperty", kProviderHandle, 0, {Number(name), Number(data.data()), 8, Number(&result), 1});
  EXPECT_EQ(ROUTER(NCryptGetProperty)(key, name, data.data(), 7, &result, 2), ERROR_SUCCESS);
  ExpectCall("GetKeyProperty", kProviderHandle, kKeyHandle, {Number(name), Number(data.data()), 7, Number(&result), 2});
  EXPECT_EQ(ROUTER(NCryptSetProperty)(provider, name, data.data(), 6, 3), ERROR_SUCCESS);
  ExpectCall("SetProviderProperty", kProviderHandle, 0, {Number(name), Number(data.data()), 6, 3});
  EXPECT_EQ(ROUTER(NCryptSetProperty)(key, name, data.data(), 5, 4), ERROR_SUCCESS);
  ExpectCall("SetKeyProperty", kProviderHandle, kKeyHandle, {Number(name), Number(data.data()), 5, 4});
  EXPECT_EQ(ROUTER(NCryptGetProperty)(key, nullptr, nullptr, 0, nullptr, 0), ERROR_SUCCESS);
  ExpectCall("GetKeyProperty", kProviderHandle, kKeyHandle, {0, 0, 0, 0, 0});
  ROUTER(NCryptFreeObject)(key);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, AnswersAKeysProviderHandleItself) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  NCRYPT_PROV_HANDLE again = 0;
  auto* output = reinterpret_cast<PBYTE>(&again);
  DWORD result = 0;
  const auto get = ROUTER(NCryptGetProperty);
  EXPECT_EQ(get(key, NCRYPT_PROVIDER_HANDLE_PROPERTY, nullptr, 0, &result, 0), ERROR_SUCCESS);
  EXPECT_EQ(result, sizeof(again));
  EXPECT_EQ(get(key, NCRYPT_PROVIDER_HANDLE_PROPERTY, output, sizeof(again) - 1, &result, 0), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(get(key, NCRYPT_PROVIDER_HANDLE_PROPERTY, output, sizeof(again), nullptr, 0), NTE_INVALID_PARAMETER);
  ASSERT_EQ(get(key, NCRYPT_PROVIDER_HANDLE_PROPERTY, output, sizeof(again), &result, 0), ERROR_SUCCESS);
  EXPECT_EQ(state_->callCount, 0);
  EXPECT_EQ(ROUTER(NCryptIsAlgSupported)(again, L"RSA", 0), ERROR_SUCCESS);
  ExpectCall("IsAlgSupported", kProviderHandle, 0, {});

  // The provider is closed with the last of its handles and keys, whatever their order.
  EXPECT_EQ(ROUTER(NCryptFreeObject)(provider), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(key), ERROR_SUCCESS);
  EXPECT_EQ(state_->openProviders, 1);
  state_->status = NTE_INTERNAL_ERROR;
  EXPECT_EQ(ROUTER(NCryptFreeObject)(again), NTE_INTERNAL_ERROR);
  EXPECT_EQ(state_->openProviders, 0);
}

TEST_F(RouterTest, KeysKeepTheirProviderOpen) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  EXPECT_EQ(ROUTER(NCryptFreeObject)(provider), ERROR_SUCCESS);
  EXPECT_EQ(state_->openProviders, 1);
  Forget();
  EXPECT_EQ(ROUTER(NCryptFinalizeKey)(key, 0), ERROR_SUCCESS);
  ExpectCall("FinalizeKey", kProviderHandle, kKeyHandle, {});
  EXPECT_EQ(ROUTER(NCryptFreeObject)(key), ERROR_SUCCESS);
  EXPECT_EQ(state_->openProviders, 0);
  EXPECT_STREQ(state_->calls[0].name, "FreeKey");
  EXPECT_STREQ(state_->calls[1].name, "FreeProvider");
}

TEST_F(RouterTest, TranslatesSecondKeys) {
  const auto provider = Open();
  const auto otherProvider = Open();
  const auto key = OpenKey(provider);
  const auto second = OpenKey(provider, 0x3330);
  const auto foreign = OpenKey(otherProvider, 0x4440);
  Forget();
  NCRYPT_KEY_HANDLE out = 0;
  DWORD result = 0;
  EXPECT_EQ(ROUTER(NCryptImportKey)(provider, second, L"", nullptr, &out, nullptr, 0, 0), ERROR_SUCCESS);
  ExpectCall("ImportKey", kProviderHandle, 0x3330, {});
  ROUTER(NCryptFreeObject)(out);
  Forget();
  EXPECT_EQ(ROUTER(NCryptExportKey)(key, second, L"", nullptr, nullptr, 0, &result, 0), ERROR_SUCCESS);
  ExpectCall("ExportKey", kProviderHandle, kKeyHandle, {0x3330});
  for (const NCRYPT_KEY_HANDLE bad : {foreign, provider, NCRYPT_KEY_HANDLE{0x3330}}) {
    EXPECT_EQ(ROUTER(NCryptImportKey)(provider, bad, L"", nullptr, &out, nullptr, 0, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptExportKey)(key, bad, L"", nullptr, nullptr, 0, &result, 0), NTE_INVALID_HANDLE);
    EXPECT_EQ(ROUTER(NCryptSecretAgreement)(key, bad, &out, 0), NTE_INVALID_HANDLE);
  }
  EXPECT_EQ(state_->callCount, 0);
  for (const auto handle : {key, second, foreign, provider, otherProvider})
    ROUTER(NCryptFreeObject)(handle);
}

TEST_F(RouterTest, RoutesSecrets) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  const auto second = OpenKey(provider, 0x3330);
  Forget();
  NCRYPT_SECRET_HANDLE secret = 0;
  state_->newHandle = 0x5550;
  ASSERT_EQ(ROUTER(NCryptSecretAgreement)(key, second, &secret, 1), ERROR_SUCCESS);
  ExpectCall("SecretAgreement", kProviderHandle, kKeyHandle, {0x3330, 1});
  EXPECT_NE(secret, 0x5550u);
  BYTE output = 0;
  DWORD result = 0;
  NCryptBufferDesc parameters{};
  const wchar_t* kdf = L"HASH";
  EXPECT_EQ(ROUTER(NCryptDeriveKey)(secret, kdf, &parameters, &output, 1, &result, 2), ERROR_SUCCESS);
  ExpectCall("DeriveKey", kProviderHandle, 0x5550,
             {Number(kdf), Number(&parameters), Number(&output), 1, Number(&result), 2});
  EXPECT_EQ(ROUTER(NCryptGetProperty)(secret, L"Name", nullptr, 0, &result, 0), NTE_INVALID_HANDLE);
  state_->status = NTE_NOT_SUPPORTED;
  EXPECT_EQ(ROUTER(NCryptFreeObject)(secret), NTE_NOT_SUPPORTED);
  ExpectCall("FreeSecret", kProviderHandle, 0x5550, {});
  EXPECT_EQ(ROUTER(NCryptSecretAgreement)(key, second, &secret, 1), NTE_NOT_SUPPORTED);
  state_->status = ERROR_SUCCESS;
  for (const auto handle : {key, second, provider})
    ROUTER(NCryptFreeObject)(handle);
}

TEST_F(RouterTest, DeletionEndsTheHandle) {
  const auto provider = Open();
  const auto key = OpenKey(provider);
  Forget();
  state_->status = NTE_INTERNAL_ERROR;
  EXPECT_EQ(ROUTER(NCryptDeleteKey)(key, 1), NTE_INTERNAL_ERROR);
  ExpectCall("DeleteKey", kProviderHandle, kKeyHandle, {1});
  EXPECT_TRUE(ROUTER(NCryptIsKeyHandle)(key));
  state_->status = ERROR_SUCCESS;
  EXPECT_EQ(ROUTER(NCryptDeleteKey)(key, NCRYPT_SILENT_FLAG), ERROR_SUCCESS);
  ExpectCall("DeleteKey", kProviderHandle, kKeyHandle, {NCRYPT_SILENT_FLAG});
  EXPECT_FALSE(ROUTER(NCryptIsKeyHandle)(key));
  EXPECT_EQ(ROUTER(NCryptFreeObject)(key), NTE_INVALID_HANDLE);
  EXPECT_EQ(state_->callCount, 0);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, ReturnsBuffersToTheirOwner) {
  const auto provider = Open();
  const auto freeBuffer = ROUTER(NCryptFreeBuffer);
  DWORD count = 0;
  NCryptAlgorithmName* algorithms = nullptr;
  Forget();
  ASSERT_EQ(ROUTER(NCryptEnumAlgorithms)(provider, 6, &count, &algorithms, 7), ERROR_SUCCESS);
  ExpectCall("EnumAlgorithms", kProviderHandle, 0, {6, 7});
  EXPECT_EQ(freeBuffer(algorithms), ERROR_SUCCESS);
  ExpectCall("FreeBuffer", 0, 0, {Number(algorithms)});
  EXPECT_EQ(freeBuffer(algorithms), NTE_INVALID_PARAMETER);
  EXPECT_EQ(freeBuffer(&count), NTE_INVALID_PARAMETER);
  EXPECT_EQ(freeBuffer(nullptr), NTE_INVALID_PARAMETER);

  NCryptProviderName* providers = nullptr;
  ASSERT_EQ(ROUTER(NCryptEnumStorageProviders)(&count, &providers, 0), ERROR_SUCCESS);
  ASSERT_EQ(count, 1u);
  EXPECT_STREQ(providers[0].pszName, kName);
  EXPECT_STREQ(providers[0].pszComment, L"For tests");
  EXPECT_EQ(freeBuffer(providers), ERROR_SUCCESS);
  EXPECT_EQ(freeBuffer(providers), NTE_INVALID_PARAMETER);
  EXPECT_EQ(state_->freedBuffers, 1);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, EnumeratesKeys) {
  const auto provider = Open();
  const auto other = Open();
  const auto enumKeys = ROUTER(NCryptEnumKeys);
  Forget();
  NCryptKeyName* name = nullptr;
  void* state = nullptr;
  const wchar_t* scope = L"scope";
  ASSERT_EQ(enumKeys(provider, scope, &name, &state, 5), ERROR_SUCCESS);
  ExpectCall("EnumKeys", kProviderHandle, 0, {Number(scope), 0, 5});
  ASSERT_NE(name, nullptr);
  ASSERT_NE(state, nullptr);
  NCryptKeyName* const first = name;
  void* const firstState = state;
  ASSERT_EQ(enumKeys(provider, nullptr, &name, &state, 0), ERROR_SUCCESS);
  ExpectCall("EnumKeys", kProviderHandle, 0, {0, Number(firstState), 0});
  EXPECT_NE(name, first);

  // The end leaves the last name alone.
  NCryptKeyName* const second = name;
  state_->status = NTE_NO_MORE_ITEMS;
  EXPECT_EQ(enumKeys(provider, nullptr, &name, &state, 0), NTE_NO_MORE_ITEMS);
  EXPECT_EQ(name, second);
  EXPECT_EQ(state, firstState);
  state_->status = ERROR_SUCCESS;

  int number = 0;
  void* foreign = &number;
  Forget();
  EXPECT_EQ(enumKeys(provider, nullptr, &name, &foreign, 0), NTE_INVALID_PARAMETER);
  EXPECT_EQ(state_->callCount, 0);

  EXPECT_EQ(ROUTER(NCryptFreeBuffer)(first), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeBuffer)(second), ERROR_SUCCESS);
  EXPECT_EQ(ROUTER(NCryptFreeBuffer)(state), ERROR_SUCCESS);
  EXPECT_EQ(state_->freedBuffers, 3);
  EXPECT_EQ(enumKeys(provider, nullptr, &name, &state, 0), NTE_INVALID_PARAMETER);
  ROUTER(NCryptFreeObject)(provider);
  ROUTER(NCryptFreeObject)(other);
}

TEST_F(RouterTest, HasNoKeyDerivationToForward) {
  using KeyDerivation = SECURITY_STATUS WINAPI(NCRYPT_KEY_HANDLE, NCryptBufferDesc*, PUCHAR, DWORD, DWORD*, ULONG);
  const auto derive = Resolve<KeyDerivation>("NCryptKeyDerivation");
  ASSERT_NE(derive, nullptr);
  const auto provider = Open();
  const auto key = OpenKey(provider);
  EXPECT_EQ(derive(key, nullptr, nullptr, 0, nullptr, 0), NTE_NOT_SUPPORTED);
  EXPECT_EQ(derive(provider, nullptr, nullptr, 0, nullptr, 0), NTE_INVALID_HANDLE);
  ROUTER(NCryptFreeObject)(key);
  ROUTER(NCryptFreeObject)(provider);
}

TEST_F(RouterTest, PassesPrimitiveFunctionsOn) {
  const HMODULE primitives = LoadLibraryW(L"bcrypt.dll");
  for (const char* name : {"BCryptOpenAlgorithmProvider", "BCryptHashData", "BCryptGenRandom"}) {
    const auto function = GetProcAddress(Router(), name);
    EXPECT_NE(function, nullptr) << name;
    EXPECT_EQ(function, GetProcAddress(primitives, name)) << name;
  }
  FreeLibrary(primitives);
}

TEST_F(RouterTest, TakesCallsFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 200;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  std::array<int, kThreads> failures{};
  for (int& failed : failures) {
    threads.emplace_back([&failed] {
      for (int i = 0; i < kRounds; ++i) {
        NCRYPT_PROV_HANDLE provider = 0;
        NCRYPT_KEY_HANDLE key = 0;
        DWORD count = 0;
        NCryptAlgorithmName* list = nullptr;
        if (ROUTER(NCryptOpenStorageProvider)(&provider, kName, 0) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptOpenKey)(provider, &key, L"name", 0, 0) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptEnumAlgorithms)(provider, 0, &count, &list, 0) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptFreeBuffer)(list) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptFreeObject)(provider) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptFinalizeKey)(key, 0) != ERROR_SUCCESS) ++failed;
        if (ROUTER(NCryptFreeObject)(key) != ERROR_SUCCESS) ++failed;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (const int failed : failures)
    EXPECT_EQ(failed, 0);
  EXPECT_EQ(state_->openProviders, 0);
  EXPECT_EQ(state_->freedBuffers, kThreads * kRounds);
}

}  // namespace
