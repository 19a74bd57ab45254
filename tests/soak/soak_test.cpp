// The short run: fixed seeds, and the proof that the harness notices what it looks for.
#include <windows.h>

#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "hosts/shared_runtime.h"
#include "kit/process.h"
#include "kit/provider.h"
#include "soak/faults.h"
#include "soak/heap.h"
#include "soak/sequence.h"

namespace {

using soak::Fault;
using soak::Faults;
using soak::Heap;

// Every entry has worked and has refused, but for those that can only do one of it.
void ExpectAllEntriesMet(const soak::Tally& tally) {
  for (std::size_t slot = 0; slot < tally.succeeded.size(); ++slot) {
    const std::string name = slot < 26 ? kit::kSlots[slot] : "GetKeyStorageInterface";
    const bool onlyRefuses = name == "IsAlgSupported" || name == "PromptUser" || name == "NotifyChangeKey" ||
                             name == "SecretAgreement" || name == "DeriveKey" || name == "FreeSecret";
    EXPECT_EQ(tally.succeeded[slot] != 0, !onlyRefuses) << name;
    EXPECT_EQ(tally.refused[slot] != 0, name != "FreeBuffer") << name;
  }
}

TEST(SoakTest, SequencesWithFaults) {
  std::uint64_t before[soak::kFaultKinds];
  for (std::size_t kind = 0; kind < soak::kFaultKinds; ++kind)
    before[kind] = Faults::Get().Played(static_cast<Fault>(kind));
  soak::Soak run({});
  EXPECT_EQ(run.Run(1, 40000), "");
  ExpectAllEntriesMet(run.tally());
  EXPECT_GT(run.tally().dialogs, 20u);
  for (std::size_t kind = 0; kind < soak::kFaultKinds; ++kind)
    EXPECT_GT(Faults::Get().Played(static_cast<Fault>(kind)), before[kind] + 100) << "kind " << kind;
}

TEST(SoakTest, SequencesWithFaultsOnTheGuardHeap) {
  soak::Options options;
  options.heap = soak::HeapKind::Guard;
  soak::Soak run(options);
  EXPECT_EQ(run.Run(1000000, 12000), "");
  ExpectAllEntriesMet(run.tally());
}

TEST(SoakTest, UnloadsBetweenSequencesLeaveNothing) {
  soak::Options options;
  options.reloadAfter = 5;
  soak::Soak run(options);
  EXPECT_EQ(run.Run(2000000, 6000), "");
  EXPECT_GE(run.tally().reloads, 8u);
}

// An unload that leaves something is noticed.
TEST(SoakTest, WhatAnUnloadLeavesIsFound) {
  soak::Soak run({});
  EXPECT_EQ(run.Reload(), "");
  fake::Token().Reset();
  fake::Token().AddSlot("Reader 0");
  const kit::FunctionTable& ksp = *kit::Provider::Get().table;
  NCRYPT_PROV_HANDLE provider = 0;
  ASSERT_EQ(ksp.OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG), 0);
  DWORD count = 0;
  NCryptAlgorithmName* list = nullptr;
  ASSERT_EQ(ksp.EnumAlgorithms(provider, 0, &count, &list, 0), 0);
  const DWORD index = TlsAlloc();
  const std::string found = run.Reload();
  TlsFree(index);
  EXPECT_NE(found.find("a block of 32 bytes"), std::string::npos) << found;
  EXPECT_NE(found.find("thread-local"), std::string::npos) << found;
  EXPECT_EQ(run.Reload(), "");
}

TEST(SoakTest, HandlesThatUnloadsLeaveAreFound) {
  soak::Soak run({});
  std::vector<HANDLE> events;
  std::string found;
  for (int i = 0; i <= 10; ++i) {
    found = run.Reload();
    if (i < 10) {
      EXPECT_EQ(found, "");
    }
    events.push_back(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  }
  for (const HANDLE event : events)
    CloseHandle(event);
  EXPECT_TRUE(found.starts_with("unloads leave handles: ") && found.ends_with(" Event; ")) << found;
}

#ifdef __i386__
const kit::Scenario sharedRuntime("soak_with_shared_runtime", [] {
  hosts::LoadSharedRuntime();
  soak::Options options;
  options.reloadAfter = 5;
  soak::Soak run(options);
  kit::Print("found: " + run.Run(3000000, 4000));
  return 55;
});

TEST(SoakTest, SequencesInAProgramWithASharedRuntime) {
  const kit::ChildResult child = kit::RunChild("soak_with_shared_runtime");
  EXPECT_EQ(child.exitCode, 55u);
  EXPECT_EQ(child.lines, std::vector<std::string>{"found: "});
}
#endif

// The same seed does the same: otherwise a failing one could not be looked at again.
TEST(SoakTest, ASeedCanBeReplayed) {
  soak::Tally first;
  for (int i = 0; i < 2; ++i) {
    soak::Options options;
    options.dialogsOneIn = 1000000;
    soak::Soak run(options);
    if (i == 1) run.RunSequence(99);  // what went before plays no part
    const soak::Tally before = run.tally();
    for (std::uint64_t seed = 7; seed < 27; ++seed)
      EXPECT_EQ(run.RunSequence(seed), "");
    soak::Tally counted = run.tally();
    for (std::size_t slot = 0; slot < counted.succeeded.size(); ++slot) {
      counted.succeeded[slot] -= before.succeeded[slot];
      counted.refused[slot] -= before.refused[slot];
    }
    if (i == 0) first = counted;
    EXPECT_EQ(counted.succeeded, first.succeeded);
    EXPECT_EQ(counted.refused, first.refused);
  }
}

// ---- a process that has run out of memory
// ----------------------------------------------------------------------------

SECURITY_STATUS SetContext(NCRYPT_PROV_HANDLE provider) {
  BYTE bytes[4] = {};
  Faults::Get().PlanAll(Fault::Allocation);
  const SECURITY_STATUS status =
      kit::Provider::Get().table->SetProviderProperty(provider, L"Use Context", bytes, sizeof bytes, 0);
  Faults::Get().Clear();
  return status;
}

int FirstExceptionWithoutMemory() {
  soak::InstallHarness(soak::HeapKind::Plain);
  if (!kit::Provider::Get().LoadAsConfigured()) return 1;
  fake::Token().AddSlot("Reader 0");
  NCRYPT_PROV_HANDLE provider = 0;
  if (kit::Provider::Get().table->OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG) != 0) return 2;
  if (SetContext(provider) != NTE_NO_MEMORY) return 3;
  SECURITY_STATUS onAnotherThread = 0;
  std::thread([&] { onAnotherThread = SetContext(provider); }).join();
  if (onAnotherThread != NTE_NO_MEMORY) return 4;
  return kit::Provider::Get().table->FreeProvider(provider) == 0 ? 55 : 5;
}
const kit::Scenario firstException("first_exception_without_memory", &FirstExceptionWithoutMemory);

TEST(SoakTest, TheFirstExceptionOfAThreadNeedsNoMemory) {
  EXPECT_EQ(kit::RunChild("first_exception_without_memory").exitCode, 55u);
}

// Each allocation, platform call and token call of the load fails in turn: the load fails or the entries answer.
int LoadWithFaults() {
  soak::InstallHarness(soak::HeapKind::Guard);
  int loads = 0;
  int failed = 0;
  for (const Fault kind : {Fault::Allocation, Fault::Platform, Fault::Token}) {
    for (std::uint32_t nth = 1; nth < 200; ++nth) {
      const std::uint64_t played = Faults::Get().Played(kind);
      fake::Token().Reset();
      fake::Token().AddSlot("Reader 0");
      Faults::Get().PlanOne(kind, nth);
      const bool loaded = kit::Provider::Get().LoadAsConfigured();
      Faults::Get().Clear();
      if (loaded) {
        ++loads;
        const kit::FunctionTable* table = kit::Provider::Get().table;
        if (!table) return 1;
        NCRYPT_PROV_HANDLE provider = 0;
        NCRYPT_KEY_HANDLE key = 0;
        table->OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG);
        table->CreatePersistedKey(provider, &key, L"RSA", nullptr, 0, 0);
        table->FreeKey(provider, key);
        table->FreeProvider(provider);
      } else {
        ++failed;
      }
      kit::Provider::Get().Unload();
      if (!Heap::Get().TakeViolation().empty()) return 2;
      if (Faults::Get().Played(kind) == played) break;  // no call was left to fail
    }
  }
  return loads > 10 && failed > 0 ? 55 : 3;
}
const kit::Scenario loadWithFaults("load_with_faults", &LoadWithFaults);

TEST(SoakTest, TheLoadSurvivesFaults) {
  EXPECT_EQ(kit::RunChild("load_with_faults").exitCode, 55u);
}

// ---- the harness
// -----------------------------------------------------------------------------------------------------

TEST(SoakHarnessTest, APinIsFoundInEveryForm) {
  const auto holds = [](const std::string& text) { return soak::HoldsPin(text.data(), text.size()); };
  EXPECT_TRUE(holds("x~Pn7"));
  EXPECT_TRUE(holds(std::string("\0~\0P\0n\0007\0", 9)));
  EXPECT_TRUE(holds("bytes: 7E 50 6E 37 "));
  EXPECT_TRUE(holds("7E 00 50 00 6E 00 37 00 "));
  EXPECT_FALSE(holds("~Pn"));
  EXPECT_FALSE(holds("~ P n 7"));
  EXPECT_FALSE(holds(""));
}

class SoakHarnessHeapTest : public ::testing::Test {
 protected:
  void SetUp() override {
    soak::InstallHarness(soak::HeapKind::Guard);
    Heap::Get().TakeLive();
    Heap::Get().TakeViolation();
  }
};

TEST_F(SoakHarnessHeapTest, ABlockEndsAtAnInaccessiblePage) {
  for (const std::size_t size : {1U, 2U, 7U, 16U, 66U, 256U, 4096U, 4992U}) {
    auto* block = static_cast<BYTE*>(Heap::Get().Allocate(size));
    EXPECT_FALSE(IsBadWritePtr(block, size)) << size;
    EXPECT_TRUE(IsBadReadPtr(block + size, 1)) << size;
    Heap::Get().Release(block);
    EXPECT_TRUE(IsBadReadPtr(block, 1)) << size;
  }
}

TEST_F(SoakHarnessHeapTest, NoticesWhatIsWrittenBehindALargerBlock) {
  auto* block = static_cast<BYTE*>(Heap::Get().Allocate(101));
  block[101] = 1;
  Heap::Get().Release(block);
  EXPECT_EQ(Heap::Get().TakeViolation(), "the bytes behind a block of 101 bytes were written");
}

TEST_F(SoakHarnessHeapTest, NoticesWhatTheDllReleasesAndKeeps) {
  // Freed by the DLL's own FreeBuffer, so that the import table has its part in it.
  ASSERT_TRUE(kit::Provider::Get().LoadAsConfigured());
  const kit::FunctionTable& ksp = *kit::Provider::Get().table;
  fake::Token().Reset();
  fake::Token().AddSlot("Reader 0");
  NCRYPT_PROV_HANDLE provider = 0;
  ASSERT_EQ(ksp.OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG), 0);
  Heap::Get().TakeLive();
  DWORD count = 0;
  NCryptAlgorithmName* list = nullptr;
  Heap::Get().SetTag(77);
  ASSERT_EQ(ksp.EnumAlgorithms(provider, 0, &count, &list, 0), 0);
  const std::vector<soak::LiveBlock> live = Heap::Get().TakeLive();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].address, list);
  EXPECT_EQ(live[0].size, 32u);
  EXPECT_EQ(live[0].tag, 77u);
  EXPECT_EQ(Heap::Get().TakeViolation(), "");
  std::memcpy(list, "12~Pn7", 6);
  ksp.FreeBuffer(list);
  EXPECT_EQ(Heap::Get().TakeViolation(), "a released block of 32 bytes holds a PIN");
  ksp.FreeBuffer(list);
  EXPECT_EQ(Heap::Get().TakeViolation(), "the DLL released what is no block of its heap");
  ksp.FreeProvider(provider);
  kit::Provider::Get().Unload();
}

TEST_F(SoakHarnessHeapTest, NoticesAPinInALine) {
  ASSERT_TRUE(kit::Provider::Get().LoadAsConfigured());
  soak::TakeLeakedLine();
  kit::Provider::Get().table->IsAlgSupported(0, L"an ~Pn7", 0);
  EXPECT_EQ(soak::TakeLeakedLine(), "pszAlgId  : an ~Pn7");
  EXPECT_EQ(soak::TakeLeakedLine(), "");
  kit::Provider::Get().Unload();
}

}  // namespace
