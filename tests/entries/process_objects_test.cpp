// The objects that the load creates: their order, and a load in which memory runs out.
#include <algorithm>
#include <string>

#include "kit/provider.h"

namespace {

using kit::kProviderName;
using kit::Log;
using kit::Provider;

class ProcessObjectsTest : public kit::ProviderTest {
 protected:
  void TearDown() override {
    Provider::Get().Unload();  // the next test loads anew
    kit::ProviderTest::TearDown();
  }
  // Every entry once, with little to go by.
  static void CallEverything() {
    kit::FunctionTable* table = nullptr;
    Provider::Get().GetKeyStorageInterface(kProviderName, &table, 0);
    ASSERT_NE(table, nullptr);
    NCRYPT_PROV_HANDLE provider = 0;
    if (table->OpenProvider(&provider, kProviderName, NCRYPT_SILENT_FLAG) != 0) provider = 0;
    NCRYPT_KEY_HANDLE key = 0;
    table->OpenKey(provider, &key, L"Key1", 0, 0);
    NCryptKeyName* name = nullptr;
    PVOID state = nullptr;
    if (table->EnumKeys(provider, nullptr, &name, &state, 0) == 0) {
      table->FreeBuffer(name);
      table->FreeBuffer(state);
    }
    BYTE hash[20] = {};
    DWORD length = 0;
    // Without a PIN manager this fails before a dialog; with one the token says that nobody has to log in.
    fake::Token().Fail("C_GetTokenInfo", CKR_DEVICE_ERROR);
    table->SignHash(provider, key, nullptr, hash, 20, nullptr, 0, &length, 0);
    fake::Token().ClearScript();
    table->GetProviderProperty(provider, L"Version", nullptr, 0, &length, 0);
    if (key) table->FreeKey(provider, key);
    if (provider) {
      EXPECT_EQ(table->FreeProvider(provider), 0);
    }
    table->PromptUser(0, 0, nullptr, 0);
  }
};

TEST_F(ProcessObjectsTest, AreConstructedInOrder) {
  ASSERT_TRUE(Provider::Get().Load(Log::Mode::Tagged));
  EXPECT_EQ(Log::Get().InstancesConstructed(), 5);
  const std::wstring enter = L"DebugClass ctor - Enter";
  const std::wstring exit = L"DebugClass ctor - Exit";
  EXPECT_EQ(Log::Get().TakeWideLines(),
            (std::vector<std::wstring>{enter, exit, enter, exit, enter, exit, L"PinManager ctor - Entry", enter, exit,
                                       L"PinManager ctor - Exit", enter, exit}));
}

// Key-name log, main log, module with its log, PIN cache with its log, provider cache: of these only the logs are
// larger than a log's path. The PIN log is no block of the heap.
TEST_F(ProcessObjectsTest, AreAllocatedInOrderAndReleasedWithTheDll) {
  Provider::Get().Unload();
  kit::MemoryWatch watch;
  std::vector<std::size_t> sizes;
  watch.FailWhen([&](std::size_t size, std::size_t) {
    sizes.push_back(size);
    return false;
  });
  ASSERT_TRUE(Provider::Get().Load(Log::Mode::Tagged));
  constexpr std::size_t kPathSize = 4096;
  const auto isLog = [](std::size_t size) { return size > kPathSize && size < 2 * kPathSize; };
  std::vector<std::ptrdiff_t> positions;
  const auto first = std::find_if(sizes.begin(), sizes.end(), isLog);
  for (auto log = first; log != sizes.end(); log = std::find_if(log + 1, sizes.end(), isLog))
    positions.push_back(log - first);
  EXPECT_EQ(positions, (std::vector<std::ptrdiff_t>{0, 1, 3, 5})) << ::testing::PrintToString(sizes);
  EXPECT_EQ(Log::Get().InstancesConstructed(), 5);

  Provider::Get().Unload();
  EXPECT_TRUE(watch.Live().empty()) << "a process may load and unload the provider as often as it likes";
}

TEST_F(ProcessObjectsTest, OnlyTheMainLogWritesTheStartLine) {
  ASSERT_TRUE(Provider::Get().Load(Log::Mode::Tagged));
  for (int instance = 1; instance <= 5; ++instance) {
    const bool starts = Log::Get().FileText(instance).find("LOG START") != std::string::npos;
    EXPECT_EQ(starts, instance == kit::kMainLog) << instance;
  }
}

TEST_F(ProcessObjectsTest, AnyAllocationOfTheLoadMayFail) {
  AddReader();
  token().AddKeyPair(fake::Ascii("Key1"), "");
  bool withoutModule = false;
  for (std::size_t nth = 1; nth < 200; ++nth) {
    Provider::Get().Unload();
    token().ClearCalls();
    bool loaded = false;
    bool reached = false;
    {
      kit::MemoryWatch watch;
      watch.FailAllocation(nth);
      loaded = Provider::Get().Load(Log::Mode::Off);
      reached = watch.Allocations() >= nth;
    }
    if (loaded) {
      if (token().Count("C_Initialize") == 0) {
        // The module object itself found no memory: nothing was logged of it, and no provider can be opened.
        withoutModule = true;
        NCRYPT_PROV_HANDLE provider = 0;
        EXPECT_EQ(Provider::Get().table->OpenProvider(&provider, kProviderName, NCRYPT_SILENT_FLAG),
                  NTE_INTERNAL_ERROR);
        EXPECT_EQ(provider, 0u);
      }
      CallEverything();
    } else if (Log::Get().TakeWideLines().empty()) {
      // The runtime library of the 32-bit DLL found no memory and failed in its own way before the provider's code ran.
      EXPECT_EQ(Provider::Get().loadError(), DWORD{ERROR_NOACCESS});
    } else {
      EXPECT_EQ(Provider::Get().loadError(), DWORD{ERROR_DLL_INIT_FAILED});
    }
    if (!reached) break;
    ASSERT_LT(nth, 199u);
  }
  EXPECT_TRUE(withoutModule);
}

TEST_F(ProcessObjectsTest, WithTheLogOffNoFileIsTouched) {
  ASSERT_TRUE(Provider::Get().Load(Log::Mode::Off));
  AddReader();
  token().AddKeyPair(fake::Ascii("Key1"), "");
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const NCRYPT_KEY_HANDLE key = OpenKey(provider, L"Key1");
  CachePin(provider, key);
  kit::Imports::Get().StartRecording();
  BYTE hash[20] = {};
  BYTE signature[256];
  DWORD length = 0;
  EXPECT_EQ(ksp().SignHash(provider, key, nullptr, hash, 20, signature, sizeof signature, &length, 0), 0);
  const std::vector<kit::ImportCall> calls = kit::Imports::Get().StopRecording();
  EXPECT_FALSE(calls.empty());
  for (const kit::ImportCall& call : calls) {
    EXPECT_TRUE(call.name.find("open") == std::string::npos && call.name.find("CreateFile") == std::string::npos &&
                call.name.find("WriteFile") == std::string::npos && call.name.find("fput") == std::string::npos &&
                call.name.find("fwrite") == std::string::npos)
        << call.name;
  }
  EXPECT_FALSE(Log::Get().TakeDebuggerLines().empty());
  ksp().FreeKey(provider, key);
  ksp().FreeProvider(provider);
}

}  // namespace
