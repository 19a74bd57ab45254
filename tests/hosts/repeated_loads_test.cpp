// A program that stays: it loads the provider, is done with it and unloads it, thousands of times. Windows itself does
// so with a provider whose open failed.
#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_token/fake_token.h"
#include "hosts/possessions.h"
#include "kit/ksp.h"
#include "kit/process.h"
#include "kit/provider.h"

namespace {

// More than there are indexes of thread-local storage in a process.
constexpr int kManyCycles = 2000;
constexpr int kCycles = 200;
// What the platform keeps for itself is there after a few.
constexpr int kFirstCycles = 20;

// What a process has little of.
struct Possessions {
  DWORD tlsIndex = 0;  // the next one to be handed out
  std::size_t handles = 0;
  std::size_t blocks = 0;  // of all heaps, in use
  std::size_t bytes = 0;
};

Possessions Count() {
  Possessions now;
  now.tlsIndex = hosts::NextTlsIndex();
  now.handles = hosts::CountHandles();
  HANDLE heaps[64] = {};
  const DWORD count = GetProcessHeaps(64, heaps);
  for (DWORD i = 0; i < count && i < 64; ++i) {
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(heaps[i], &entry)) {
      if ((entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) == 0) continue;
      ++now.blocks;
      now.bytes += entry.cbData;
    }
  }
  return now;
}

class LoadedProvider {
 public:
  LoadedProvider() : module_(LoadLibraryW((kit::ProgramFolder() + L"keldaksp.dll").c_str())) {}
  ~LoadedProvider() {
    if (module_ != nullptr) FreeLibrary(module_);
  }
  LoadedProvider(const LoadedProvider&) = delete;
  LoadedProvider& operator=(const LoadedProvider&) = delete;

  explicit operator bool() const { return module_ != nullptr; }
  const kit::FunctionTable& Table() const {
    const auto get = reinterpret_cast<kit::GetKeyStorageInterfaceFn>(
        reinterpret_cast<void*>(GetProcAddress(module_, "GetKeyStorageInterface")));
    kit::FunctionTable* table = nullptr;
    if (get(kit::kProviderName, &table, 0) != 0) throw std::runtime_error("no function table");
    return *table;
  }

 private:
  HMODULE module_;
};

// Goes through cycle(), which says what was wrong (null: nothing), and prints what the process has more of at the end.
int Repeat(int cycles, const char* (*cycle)()) {
  kit::Registry::Get().Redirect();
  kit::Registry::Get().SetDefaults();
  Possessions before;
  for (int i = 0; i < kFirstCycles + cycles; ++i) {
    if (i == kFirstCycles) before = Count();
    if (const char* wrong = cycle()) {
      kit::Print("cycle " + std::to_string(i) + ": " + wrong);
      return 1;
    }
  }
  const Possessions after = Count();
  const auto more = [](auto now, auto then) {
    return std::to_string(static_cast<long long>(now) - static_cast<long long>(then));
  };
  kit::Print("tls " + more(after.tlsIndex, before.tlsIndex));
  kit::Print("handles " + more(after.handles, before.handles));
  kit::Print("blocks " + more(after.blocks, before.blocks));
  kit::Print("bytes " + more(after.bytes, before.bytes));
  kit::Registry::Get().Release();
  return 0;
}

// There is no token module: each load fails.
const char* FailToLoad() {
  const LoadedProvider provider;
  if (provider) return "the provider has loaded";
  return GetLastError() == ERROR_DLL_INIT_FAILED ? nullptr : "another error";
}
const kit::Scenario kFailingLoads("failing_loads", [] { return Repeat(kManyCycles, &FailToLoad); });

// A token module whose initialisation fails.
const kit::Scenario kFailingModule("failing_module", [] {
  kit::LoadTokenModule(kit::TokenModule::Working);
  fake::Token().FailAlways("C_Initialize", CKR_DEVICE_ERROR);
  return Repeat(kCycles, []() -> const char* {
    fake::Token().ClearCalls();
    return FailToLoad();
  });
});

const char* FailToOpen() {
  const LoadedProvider provider;
  if (!provider) return "no load";
  NCRYPT_PROV_HANDLE handle = 0;
  return provider.Table().OpenProvider(&handle, L"Another provider", 0) == NTE_INVALID_PARAMETER ? nullptr
                                                                                                 : "no failure";
}
const kit::Scenario kFailingOpens("failing_opens", [] {
  kit::LoadTokenModule(kit::TokenModule::Working);
  return Repeat(kCycles, []() -> const char* {
    fake::Token().ClearCalls();
    return FailToOpen();
  });
});

// A call that asks for more memory than there is: inside the DLL it ends with an exception.
const char* UseThatThrows() {
  constexpr DWORD kTooMuch = 0x7FFFFFFF;
  fake::Token().ClearCalls();
  const LoadedProvider provider;
  if (!provider) return "no load";
  const kit::FunctionTable& table = provider.Table();
  NCRYPT_PROV_HANDLE handle = 0;
  if (table.OpenProvider(&handle, kit::kProviderName, NCRYPT_SILENT_FLAG) != 0) return "no open";
  BYTE input[2] = {};
  if (table.SetProviderProperty(handle, NCRYPT_USE_CONTEXT_PROPERTY, input, kTooMuch, 0) != NTE_NO_MEMORY) {
    return "no failure";
  }
  return table.FreeProvider(handle) == 0 ? nullptr : "no end";
}
const kit::Scenario kThrowingUses("throwing_uses", [] {
  kit::LoadTokenModule(kit::TokenModule::Working);
  fake::Token().AddSlot("Reader 0");
  return Repeat(kCycles, &UseThatThrows);
});

// Whether a walk along the heaps sees each block. Newer Wines keep small ones in groups after a while, and it sees
// those.
bool EachBlockIsSeen() {
  std::vector<std::unique_ptr<char[]>> blocks;
  const std::size_t before = Count().blocks;
  for (int i = 0; i < 1000; ++i)
    blocks.push_back(std::make_unique<char[]>(100));
  return Count().blocks >= before + blocks.size();
}

// Nothing more after so many cycles; where blocks are seen in groups only, few of these.
void ExpectNothingMore(const char* scenario, int cycles) {
  kit::ChildResult child = kit::RunChild(scenario);
  EXPECT_EQ(child.exitCode, 0u);
  ASSERT_EQ(child.lines.size(), 4u);
  if (!EachBlockIsSeen()) {
    EXPECT_LT(std::stoi(child.lines[2].substr(std::strlen("blocks "))), cycles / 20);
    child.lines.resize(2);
  }
  const std::vector<std::string> nothing = {"tls 0", "handles 0", "blocks 0", "bytes 0"};
  EXPECT_TRUE(std::equal(child.lines.begin(), child.lines.end(), nothing.begin()))
      << ::testing::PrintToString(child.lines);
}

// The counts see what they are to see.
TEST(RepeatedLoads, CountsSeeWhatIsKept) {
  const Possessions before = Count();
  const DWORD index = TlsAlloc();
  const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  void* block = std::malloc(100000);  // kept in no group
  const Possessions after = Count();
  EXPECT_GT(after.tlsIndex, before.tlsIndex);
  EXPECT_EQ(after.handles, before.handles + 1);
  EXPECT_GE(after.blocks, before.blocks + 1);
  EXPECT_GE(after.bytes, before.bytes + 100000);
  std::free(block);
  CloseHandle(event);
  TlsFree(index);
}

TEST(RepeatedLoads, LoadsThatFailForWantOfAModuleLeaveNothing) {
  ExpectNothingMore("failing_loads", kManyCycles);
}

TEST(RepeatedLoads, LoadsThatFailInTheModuleLeaveNothing) {
  ExpectNothingMore("failing_module", kCycles);
}

TEST(RepeatedLoads, UnloadsAfterAFailedOpenLeaveNothing) {
  ExpectNothingMore("failing_opens", kCycles);
}

// The block of the provider record's critical section stays behind at each FreeProvider, as it must.
TEST(RepeatedLoads, UnloadsAfterAnExceptionLeaveNothingOfIt) {
  kit::ChildResult child = kit::RunChild("throwing_uses");
  EXPECT_EQ(child.exitCode, 0u);
  // The fake token's own texts grow by a byte or two.
  std::vector<std::string> expected = {"tls 0", "handles 0", "blocks " + std::to_string(kCycles)};
  if (!EachBlockIsSeen()) expected.pop_back();
  child.lines.resize(expected.size());
  EXPECT_EQ(child.lines, expected);
}

}  // namespace
