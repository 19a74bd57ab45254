// The load of the token module, which is part of the load of the provider.
#include <cstring>
#include <string>
#include <vector>

#include "kit/process.h"
#include "kit/provider.h"

namespace {

using kit::Line;
using kit::Log;
using kit::Provider;

class CryptokiModuleTest : public kit::ProviderTest {
 protected:
  void TearDown() override {
    Provider::Get().Unload();  // the next test loads anew
    kit::ProviderTest::TearDown();
  }
  static bool Reload() {
    Provider::Get().Unload();
    Log::Get().Drop();
    Log::Get().TakeWideLines();
    fake::Token().ClearCalls();
    return Provider::Get().Load(Log::Mode::Tagged);
  }
};

Line Module(const char* text) {
  return {kit::kModuleLog, text};
}

const std::vector<Line> kLoaded{Module("PKCS#11 library loaded successfully"), Module("Get Function List success"),
                                Module("Load Function List success"), Module("PKCS#11 library function list retrieved"),
                                Module("PKCS#11 library initialized successfully")};

// The lines of the load: GetKeyStorageInterface, which the kit calls, follows them.
std::vector<Line> LoadLines() {
  std::vector<Line> lines = Log::Get().Take();
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].text == kit::kBanner) lines.resize(i);
  }
  return lines;
}

TEST_F(CryptokiModuleTest, LoadsListsAndInitialisesTheModule) {
  ASSERT_TRUE(Reload());
  EXPECT_TRUE(kit::SameLines(kLoaded, LoadLines()));
  ExpectCalls({"C_Initialize(NULL)"});
}

TEST_F(CryptokiModuleTest, IsLoadedOnceByItsBareName) {
  std::vector<std::wstring> loaded;
  const kit::Hook<"LoadLibraryW", decltype(&LoadLibraryW)> hook([&](auto original, LPCWSTR name) {
    loaded.emplace_back(name);
    return original(name);
  });
  ASSERT_TRUE(Reload());
  EXPECT_EQ(loaded, std::vector<std::wstring>{L"keldapkcs11.dll"});
}

// Only the list counts: none of the module's exports is asked for but the one that hands it out.
TEST_F(CryptokiModuleTest, OnlyTheFunctionListIsTakenByName) {
  const HMODULE module = GetModuleHandleW(L"keldapkcs11.dll");
  std::vector<std::string> names;
  const kit::Hook<"GetProcAddress", decltype(&GetProcAddress)> hook([&](auto original, HMODULE of, LPCSTR name) {
    if (of == module) names.emplace_back(name);
    return original(of, name);
  });
  ASSERT_TRUE(Reload());
  EXPECT_EQ(names, std::vector<std::string>{"C_GetFunctionList"});
}

TEST_F(CryptokiModuleTest, AcceptsAModuleThatIsInitialisedAlready) {
  token().Fail("C_Initialize", 0x191);
  ASSERT_TRUE(Reload());
  EXPECT_TRUE(kit::SameLines(kLoaded, LoadLines()));
  EXPECT_EQ(Provider::Get().table != nullptr, true);
}

TEST_F(CryptokiModuleTest, AnyOtherResultOfInitializeFailsTheLoad) {
  for (const CK_RV code : {CK_RV{1}, CK_RV{5}, CK_RV{0x190}, CK_RV{0x192}, CK_RV{0x80000191}}) {
    token().Fail("C_Initialize", code);
    EXPECT_FALSE(Reload());
    EXPECT_EQ(Provider::Get().loadError(), DWORD{ERROR_DLL_INIT_FAILED});
    std::vector<Line> expected = kLoaded;
    expected.back() = Module("Failed to intialize PKCS middleware.");
    KIT_EXPECT_LINES(expected);
    ExpectCalls({"C_Initialize(NULL)"});
  }
}

TEST_F(CryptokiModuleTest, AFailedLoadIsRetriedByTheNextLoadOnly) {
  token().Fail("C_Initialize", 5);
  EXPECT_FALSE(Reload());
  EXPECT_TRUE(Reload());
}

TEST_F(CryptokiModuleTest, FailingFunctionListFailsTheLoad) {
  token().SetFunctionListResult(0x30);
  kit::LoadTokenModule(kit::TokenModule::Working);
  EXPECT_FALSE(Reload());
  EXPECT_EQ(Provider::Get().loadError(), DWORD{ERROR_DLL_INIT_FAILED});
  KIT_EXPECT_LINES(std::vector<Line>{Module("PKCS#11 library loaded successfully"), Module("Get Function List success"),
                                     Module("Failed to load function list"),
                                     Module("Failed to retrieve middleware function list.")});
  ExpectCalls({});
  token().SetFunctionListResult(CKR_OK);
  kit::LoadTokenModule(kit::TokenModule::Working);
}

TEST_F(CryptokiModuleTest, MissingFunctionListFailsTheLoadThoughTheModuleReportsSuccess) {
  const HMODULE module = GetModuleHandleW(L"keldapkcs11.dll");
  const auto attach = reinterpret_cast<void (*)(void*, unsigned long)>(
      reinterpret_cast<void*>(GetProcAddress(module, "KeldaFakeAttach")));
  ASSERT_NE(attach, nullptr);
  attach(nullptr, CKR_OK);
  EXPECT_FALSE(Reload());
  EXPECT_EQ(Provider::Get().loadError(), DWORD{ERROR_DLL_INIT_FAILED});
  KIT_EXPECT_LINES(std::vector<Line>{Module("PKCS#11 library loaded successfully"), Module("Get Function List success"),
                                     Module("Failed to load function list"),
                                     Module("Failed to retrieve middleware function list.")});
  kit::LoadTokenModule(kit::TokenModule::Working);
}

TEST_F(CryptokiModuleTest, IsNeitherFinalisedNorFreedWhenTheProviderIsUnloaded) {
  const HMODULE module = GetModuleHandleW(L"keldapkcs11.dll");
  ASSERT_NE(module, nullptr);
  token().ClearCalls();
  Provider::Get().Unload();
  ExpectCalls({});
  EXPECT_EQ(GetModuleHandleW(L"keldapkcs11.dll"), module);
}

// In a child of its own, since this process has the module loaded for good.
int ReportLoad(kit::TokenModule kind) {
  kit::LoadTokenModule(kind);
  const bool loaded = Provider::Get().Load(Log::Mode::Tagged);
  kit::Print(loaded ? "loaded" : "failed " + std::to_string(Provider::Get().loadError()));
  for (const Line& line : Log::Get().Take())
    kit::Print(std::to_string(line.instance) + " " + line.text);
  kit::Print("constructed " + std::to_string(Log::Get().InstancesConstructed()));
  return 0;
}

const kit::Scenario kMissing("missing_module", [] { return ReportLoad(kit::TokenModule::None); });
const kit::Scenario kWithoutList("module_without_list", [] { return ReportLoad(kit::TokenModule::WithoutList); });

// A standard list of this many entries that ends with its page; what follows cannot be read. The load and all that
// needs no login do without.
int LoadFromAShortList(std::size_t entries, bool withGap) {
  kit::LoadTokenModule(kit::TokenModule::Working);
  fake::Token().AddSlot("Reader 0");
  CK_FUNCTION_LIST list = fake::Token().List()->standard;
  if (withGap) list.C_GenerateRandom = nullptr;  // its gaps are filled in a copy
  const std::size_t size = sizeof(CK_VERSION) + entries * sizeof(void*);
  constexpr std::size_t kPage = 0x1000;
  auto* pages = static_cast<unsigned char*>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS));
  if (VirtualAlloc(pages, kPage, MEM_COMMIT, PAGE_READWRITE) == nullptr) return 1;
  unsigned char* const place = pages + kPage - size;
  std::memcpy(place, &list, size);
  const HMODULE module = GetModuleHandleW(L"keldapkcs11.dll");
  const auto attach = reinterpret_cast<void (*)(void*, unsigned long)>(
      reinterpret_cast<void*>(GetProcAddress(module, "KeldaFakeAttach")));
  attach(place, CKR_OK);
  if (!Provider::Get().Load(Log::Mode::Off)) return 2;
  NCRYPT_PROV_HANDLE provider = 0;
  const SECURITY_STATUS opened = Provider::Get().table->OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG);
  kit::Print("open " + std::to_string(opened));
  kit::Print("free " + std::to_string(Provider::Get().table->FreeProvider(provider)));
  return 0;
}

constexpr std::size_t kEntries = (sizeof(CK_FUNCTION_LIST) - sizeof(CK_VERSION)) / sizeof(void*);
const kit::Scenario kStandard("standard_list", [] { return LoadFromAShortList(kEntries, false); });
const kit::Scenario kStandardGap("standard_list_with_gap", [] { return LoadFromAShortList(kEntries, true); });
// PKCS#11 v2.00 had no C_WaitForSlotEvent.
const kit::Scenario kOld("old_list", [] { return LoadFromAShortList(kEntries - 1, false); });
const kit::Scenario kOldGap("old_list_with_gap", [] { return LoadFromAShortList(kEntries - 1, true); });

TEST_F(CryptokiModuleTest, ALoadReadsNothingBehindAShorterList) {
  for (const char* scenario : {"standard_list", "standard_list_with_gap", "old_list", "old_list_with_gap"}) {
    const kit::ChildResult child = kit::RunChild(scenario);
    EXPECT_EQ(child.exitCode, 0u) << scenario;
    EXPECT_EQ(child.lines, (std::vector<std::string>{"open 0", "free 0"})) << scenario;
  }
}

TEST_F(CryptokiModuleTest, MissingModuleFailsTheLoad) {
  const kit::ChildResult child = kit::RunChild("missing_module");
  EXPECT_EQ(child.exitCode, 0u);
  EXPECT_EQ(child.lines,
            (std::vector<std::string>{"failed 1114", "3 Failed to load PKCS#11 Library.", "", "constructed 3"}));
}

TEST_F(CryptokiModuleTest, ModuleWithoutFunctionListFailsTheLoad) {
  const kit::ChildResult child = kit::RunChild("module_without_list");
  EXPECT_EQ(child.exitCode, 0u);
  EXPECT_EQ(child.lines, (std::vector<std::string>{"failed 1114", "3 PKCS#11 library loaded successfully",
                                                   "3 Failed to get function list",
                                                   "3 Failed to retrieve middleware function list.", "constructed 3"}));
}

}  // namespace
