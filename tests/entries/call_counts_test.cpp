// What one call of each entry costs, counted: lines, calls of the platform and of the token, allocations, copies. More
// than the table says is a failure; the log is on.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using fake::Bytes;

struct Counts {
  // Exact: they are what the provider has to do.
  std::size_t lines = 0;          // to the debugger
  std::size_t announcements = 0;  // wide debugger lines, of constructors
  std::size_t registryReads = 0;
  std::size_t fileOpens = 0;
  std::size_t tokenCalls = 0;
  // At most; 32-bit code copies by a call where 64-bit code needs none.
  std::size_t allocations = 0;
  std::size_t copies = 0;
  // All other calls of the platform, in alphabetical order; exact.
  std::string others = {};

  bool operator==(const Counts&) const = default;
};

void PrintTo(const Counts& counts, std::ostream* out) {
  *out << "{" << counts.lines << ", " << counts.announcements << ", " << counts.registryReads << ", "
       << counts.fileOpens << ", " << counts.tokenCalls << ", " << counts.allocations << ", " << counts.copies << ", \""
       << counts.others << "\"}";
}

// Functions of the runtime library that only look at their arguments, or end what another has begun.
constexpr std::array kFree =
    std::to_array<std::string_view>({"HeapFree", "_errno", "_wcsnicmp", "fclose", "fflush", "fputc", "fputs", "free",
                                     "memcmp", "memset", "strcmp", "strlen", "wcscmp", "wcslen"});

Counts Count(const std::vector<kit::ImportCall>& calls, std::size_t tokenCalls) {
  Counts counts;
  counts.tokenCalls = tokenCalls;
  std::map<std::string, std::size_t> others;
  const std::map<std::string_view, std::size_t Counts::*> places = {
      {"OutputDebugStringA", &Counts::lines},
      {"OutputDebugStringW", &Counts::announcements},
      {"RegGetValueW", &Counts::registryReads},
      {"RegQueryValueExW", &Counts::registryReads},
      {"_wfsopen", &Counts::fileOpens},
      {"malloc", &Counts::allocations},
      {"calloc", &Counts::allocations},
      {"realloc", &Counts::allocations},
      {"HeapAlloc", &Counts::allocations},
      {"memcpy", &Counts::copies},
      {"memmove", &Counts::copies},
  };
  for (const kit::ImportCall& call : calls) {
    if (const auto place = places.find(call.name); place != places.end()) {
      ++(counts.*place->second);
    } else if (std::find(kFree.begin(), kFree.end(), call.name) == kFree.end()) {
      ++others[call.name];
    }
  }
  for (const auto& [name, count] : others) {
    if (!counts.others.empty()) counts.others += ", ";
    counts.others += name;
    if (count > 1) counts.others += " " + std::to_string(count);
  }
  return counts;
}

class CallCounts : public KeyEntryTest {
 protected:
  void SetUp() override {
    KeyEntryTest::SetUp();
    token().AddKeyPair(Ascii("Key1"), "Key1", 1024);
    LogIn();
    key_ = Open(L"Key1");
    Forget();
  }

  // Counts what one call costs. most: see Counts.
  void Expect(const Counts& most, const std::function<SECURITY_STATUS()>& call, SECURITY_STATUS status = 0) {
    Forget();
    kit::Imports::Get().StartRecording();
    const SECURITY_STATUS result = call();
    const Counts seen = Count(kit::Imports::Get().StopRecording(), token().Calls().size());
    EXPECT_EQ(result, status);
    Counts counts = seen;
    counts.allocations = std::max(counts.allocations, most.allocations);
    counts.copies = std::max(counts.copies, most.copies);
    EXPECT_EQ(counts, most) << "counted: " << ::testing::PrintToString(seen);
  }

  NCRYPT_KEY_HANDLE key_ = 0;
  BYTE bytes_[512] = {};
  DWORD length_ = 0;
  BYTE hash_[20] = {1};
  BYTE signature_[128] = {};
};

// What a login with a cached PIN asks of the platform.
const char kCachedLogin[] =
    "CryptAcquireContextW, CryptGenRandom 32, CryptReleaseContext, CryptUnprotectMemory 3, EnterCriticalSection, "
    "GetCurrentThreadId 2, LeaveCriticalSection, VirtualLock, VirtualUnlock 2";

TEST_F(CallCounts, Signature) {
  const auto sign = [&](BYTE* room) {
    return ksp().SignHash(provider_, key_, nullptr, hash_, sizeof(hash_), room, room ? 128 : 0, &length_, 0);
  };
  // A size query runs the whole sequence.
  Expect({35, 2, 2, 36, 4, 8, 38, kCachedLogin}, [&] { return sign(nullptr); });
  Expect({35, 2, 2, 36, 4, 8, 38, kCachedLogin}, [&] { return sign(signature_); });
  Expect(
      {33, 2, 2, 34, 4, 7, 30, kCachedLogin},
      [&] {
        return ksp().VerifySignature(provider_, key_, nullptr, hash_, sizeof(hash_), signature_, sizeof(signature_), 0);
      },
      NTE_FAIL);
}

TEST_F(CallCounts, Encryption) {
  BYTE cipher[128] = {};
  Expect({33, 2, 2, 34, 4, 7, 32, kCachedLogin}, [&] {
    return ksp().Encrypt(provider_, key_, hash_, sizeof(hash_), nullptr, cipher, sizeof(cipher), &length_, 2);
  });
  Expect({33, 2, 2, 34, 4, 7, 32, kCachedLogin}, [&] {
    return ksp().Decrypt(provider_, key_, cipher, sizeof(cipher), nullptr, bytes_, sizeof(bytes_), &length_, 2);
  });
}

TEST_F(CallCounts, ProviderHandle) {
  NCRYPT_PROV_HANDLE other = 0;
  Expect({10, 0, 2, 10, 6, 7, 12, "InitializeCriticalSectionAndSpinCount, RegOpenKeyW"},
         [&] { return ksp().OpenProvider(&other, kit::kProviderName, NCRYPT_SILENT_FLAG); });
  Expect({9, 0, 0, 9, 0, 1, 13}, [&] {
    wchar_t text[] = L"text";
    return ksp().SetProviderProperty(other, L"Use Context", reinterpret_cast<BYTE*>(text), sizeof(text), 0);
  });
  Expect({10, 0, 0, 10, 0, 0, 15},
         [&] { return ksp().GetProviderProperty(other, L"Name", bytes_, sizeof(bytes_), &length_, 0); });
  Expect(
      {8, 0, 0, 8, 0, 2, 8}, [&] { return ksp().IsAlgSupported(other, L"RSA", 0); }, NTE_NOT_SUPPORTED);
  Expect({11, 0, 0, 11, 1, 0, 4, "DeleteCriticalSection"}, [&] { return ksp().FreeProvider(other); });
}

TEST_F(CallCounts, KeyHandle) {
  NCRYPT_KEY_HANDLE key = 0;
  Expect({32, 0, 0, 32, 0, 3, 24}, [&] { return ksp().OpenKey(provider_, &key, L"Key1", 0, 0); });
  Expect({12, 0, 0, 12, 0, 0, 17},
         [&] { return ksp().GetKeyProperty(provider_, key, L"Name", bytes_, sizeof(bytes_), &length_, 0); });
  Expect({9, 0, 0, 9, 0, 0, 6}, [&] { return ksp().FreeKey(provider_, key); });
}

TEST_F(CallCounts, NewKey) {
  NCRYPT_KEY_HANDLE key = 0;
  Expect({12, 2, 3, 13, 3, 5, 16}, [&] { return ksp().CreatePersistedKey(provider_, &key, L"RSA", L"New", 0, 0); });
  Expect({11, 0, 0, 11, 0, 0, 14}, [&] {
    DWORD bits = 1024;
    return ksp().SetKeyProperty(provider_, key, L"Length", reinterpret_cast<BYTE*>(&bits), sizeof(bits), 0);
  });
  Expect({31, 2, 2, 32, 4, 9, 22, kCachedLogin}, [&] { return ksp().FinalizeKey(provider_, key, 0); });
  Expect({7, 0, 0, 7, 2, 0, 8}, [&] { return ksp().DeleteKey(provider_, key, 0); });
}

TEST_F(CallCounts, Blobs) {
  Expect({14, 0, 0, 14, 2, 4, 23}, [&] {
    return ksp().ExportKey(provider_, key_, 0, L"RSAPUBLICBLOB", nullptr, bytes_, sizeof(bytes_), &length_, 0);
  });
  NCRYPT_KEY_HANDLE imported = 0;
  Expect({14, 4, 4, 16, 3, 13, 24},
         [&] { return ksp().ImportKey(provider_, 0, L"RSAPUBLICBLOB", nullptr, &imported, bytes_, length_, 0); });
  keys_.push_back(imported);
}

TEST_F(CallCounts, Lists) {
  NCryptKeyName* name = nullptr;
  PVOID state = nullptr;
  const auto next = [&] { return ksp().EnumKeys(provider_, nullptr, &name, &state, 0); };
  Expect({48, 0, 0, 48, 16, 13, 52, "GetProcessHeap"}, next);  // builds the list of two key pairs
  ksp().FreeBuffer(name);
  Expect({14, 0, 0, 14, 0, 3, 14, "GetProcessHeap"}, next);
  ksp().FreeBuffer(name);
  Expect({14, 0, 0, 14, 0, 0, 12}, next, NTE_NO_MORE_ITEMS);
  ksp().FreeBuffer(state);
  DWORD count = 0;
  NCryptAlgorithmName* algorithms = nullptr;
  Expect({10, 0, 0, 10, 0, 1, 10}, [&] { return ksp().EnumAlgorithms(provider_, 0, &count, &algorithms, 0); });
  Expect({5, 0, 0, 5, 0, 0, 4}, [&] { return ksp().FreeBuffer(algorithms); });
}

TEST_F(CallCounts, WhatIsNotSupported) {
  HANDLE event = nullptr;
  NCRYPT_SECRET_HANDLE secret = 0;
  Expect(
      {5, 0, 0, 5, 0, 0, 0}, [&] { return ksp().PromptUser(provider_, key_, L"x", 0); }, NTE_NOT_SUPPORTED);
  Expect(
      {5, 0, 0, 5, 0, 0, 2}, [&] { return ksp().NotifyChangeKey(provider_, &event, 0); }, NTE_NOT_SUPPORTED);
  Expect(
      {5, 0, 0, 5, 0, 0, 0}, [&] { return ksp().SecretAgreement(provider_, key_, key_, &secret, 0); },
      NTE_NOT_SUPPORTED);
  Expect(
      {5, 0, 0, 5, 0, 0, 2},
      [&] { return ksp().DeriveKey(provider_, secret, L"HASH", nullptr, bytes_, sizeof(bytes_), &length_, 0); },
      NTE_NOT_SUPPORTED);
  Expect(
      {5, 0, 0, 5, 0, 0, 2}, [&] { return ksp().FreeSecret(provider_, secret); }, NTE_NOT_SUPPORTED);
}

// Building the list costs each further key the same, and so does looking through it: nothing is moved or made again for
// keys that are there already.
class KeyListCounts : public KeyEntryTest {
 protected:
  struct Cost {
    std::size_t allocations = 0;
    std::size_t bytesCopied = 0;
    std::size_t compared = 0;

    Cost operator-(const Cost& other) const {
      return {allocations - other.allocations, bytesCopied - other.bytesCopied, compared - other.compared};
    }
  };
  static Cost CostOf(const std::function<void()>& call) {
    Cost cost;
    {
      const kit::MemoryWatch memory;
      const kit::Hook<"memcpy", void* (*)(void*, const void*, std::size_t)> copies(
          [&](auto original, void* to, const void* from, std::size_t size) {
            cost.bytesCopied += size;
            return original(to, from, size);
          });
      const kit::Hook<"memcmp", int (*)(const void*, const void*, std::size_t)> comparisons(
          [&](auto original, const void* one, const void* other, std::size_t size) {
            ++cost.compared;
            return original(one, other, size);
          });
      call();
      cost.allocations = memory.Allocations();
    }
    return cost;
  }
  void AddKeys(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
      token().AddKeyPair(Ascii("Key" + std::to_string(1000 + added_++)), "");
  }
  Cost Build() {
    return CostOf([&] {
      NCryptKeyName* name = nullptr;
      PVOID state = nullptr;
      EXPECT_EQ(ksp().EnumKeys(provider_, nullptr, &name, &state, 0), 0);
      if (name) ksp().FreeBuffer(name);
      if (state) ksp().FreeBuffer(state);
    });
  }

  std::size_t added_ = 0;
};

TEST_F(KeyListCounts, BuildingGrowsWithTheNumberOfKeys) {
  constexpr std::size_t kStep = 50;
  AddKeys(kStep);
  const Cost one = Build();
  AddKeys(kStep);
  const Cost two = Build();
  AddKeys(2 * kStep);
  const Cost four = Build();
  EXPECT_EQ((two - one).allocations, kStep * 3) << "of each pair: the name twice, the record";
  EXPECT_EQ((four - two).allocations, 2 * (two - one).allocations);
  // The count in a line may have a digit more.
  EXPECT_NEAR(static_cast<double>((four - two).bytesCopied), 2.0 * static_cast<double>((two - one).bytesCopied), 16);
  EXPECT_LE(four.compared, 4 * kStep * 4) << "one or two for each key, not one for each entry";
}

TEST_F(KeyListCounts, LookingThroughTheListAllocatesNothing) {
  AddKeys(10);
  Build();
  NCRYPT_KEY_HANDLE first = 0;
  const Cost short_ = CostOf([&] { ksp().OpenKey(provider_, &first, L"Key1000", 0, 0); });
  NCRYPT_KEY_HANDLE last = 0;
  const Cost long_ = CostOf([&] { ksp().OpenKey(provider_, &last, L"Key1009", 0, 0); });
  EXPECT_EQ(long_.allocations, short_.allocations + 1) << "the hex form of the name, once";
  keys_.insert(keys_.end(), {first, last});
}

}  // namespace
