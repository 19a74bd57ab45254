// The PIN cache's own operations.
#include "login/pin_cache/pin_manager.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "inside/process_objects.h"
#include "kit/imports.h"
#include "kit/registry.h"

#include <wincrypt.h>

namespace {

using kit::Hook;
using Lines = std::vector<std::string>;

using ProtectHook = Hook<"CryptProtectMemory", decltype(&CryptProtectMemory)>;
using UnprotectHook = Hook<"CryptUnprotectMemory", decltype(&CryptUnprotectMemory)>;
using LockHook = Hook<"VirtualLock", decltype(&VirtualLock)>;
using UnlockHook = Hook<"VirtualUnlock", decltype(&VirtualUnlock)>;

using Serial = std::array<unsigned char, kSerialLength>;

Serial SerialOf(unsigned number) {
  Serial serial;
  serial.fill(' ');
  const std::string text = std::to_string(number);
  std::copy(text.begin(), text.end(), serial.begin());
  return serial;
}

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

class PinManagerTest : public InsideTest {
 protected:
  std::uint32_t Set(const Serial& serial, const std::string& pin) {
    return manager_.SetPin(serial.data(), kSerialLength, Bytes(pin.c_str()), static_cast<DWORD>(pin.size()));
  }
  std::string Get(const Serial& serial) {
    DWORD length = 0;
    if (manager_.GetPin(serial.data(), nullptr, &length) != 0) return "(none)";
    std::string pin(length, '\0');
    const SECURITY_STATUS status =
        manager_.GetPin(serial.data(), reinterpret_cast<unsigned char*>(pin.data()), &length);
    return status == 0 ? pin : "(unreadable)";
  }

  PinManager manager_;
  bool leaving_ = false;
};

TEST_F(PinManagerTest, KeepsThePinOfEachToken) {
  EXPECT_EQ(Set(SerialOf(1), "1111"), 1u);
  EXPECT_EQ(Set(SerialOf(2), "a longer PIN"), 1u);
  EXPECT_EQ(Get(SerialOf(1)), "1111");
  EXPECT_EQ(Get(SerialOf(2)), "a longer PIN");
  EXPECT_EQ(Get(SerialOf(3)), "(none)");
}

TEST_F(PinManagerTest, TheFirstEntryOfATokenWins) {
  EXPECT_EQ(Set(SerialOf(1), "first"), 1u);
  EXPECT_EQ(Set(SerialOf(1), "second"), 1u);
  EXPECT_EQ(Get(SerialOf(1)), "first");
}

TEST_F(PinManagerTest, NothingIsStoredWhenAnArgumentIsMissing) {
  const Serial serial = SerialOf(1);
  TakeLines();
  EXPECT_EQ(manager_.SetPin(nullptr, kSerialLength, Bytes("1"), 1), 0u);
  EXPECT_EQ(manager_.SetPin(serial.data(), kSerialLength, nullptr, 1), 0u);
  EXPECT_EQ(manager_.SetPin(serial.data(), kSerialLength, Bytes("1"), 0), 0u);
  EXPECT_EQ(TakeLines(), std::vector<std::string>{});
  EXPECT_EQ(Get(serial), "(none)");
}

TEST_F(PinManagerTest, TheSerialLengthIsNotLookedAt) {
  const Serial serial = SerialOf(1);
  EXPECT_EQ(manager_.SetPin(serial.data(), 3, Bytes("12"), 2), 1u);
  EXPECT_EQ(Get(serial), "12");
}

TEST_F(PinManagerTest, ALookupNeedsALength) {
  TakeLines();
  EXPECT_EQ(manager_.GetPin(SerialOf(1).data(), nullptr, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), std::vector<std::string>{});
}

TEST_F(PinManagerTest, ALookupWithoutASerialFindsNothing) {
  Set(SerialOf(1), "1");
  DWORD length = 0;
  TakeLines();
  EXPECT_EQ(manager_.GetPin(nullptr, nullptr, &length), NTE_NOT_FOUND);
  EXPECT_TRUE(Holds(TakeLines(), {"PIN Manager - Retrieving PIN from PIN Cache", "pbSerial: NULL", "cbSerial: 16",
                                  "PIN Manager - Iterating through PIN caches", "PIN Manager - PIN is not found"}));
}

TEST_F(PinManagerTest, ATooSmallBufferIsNotTouched) {
  Set(SerialOf(1), "1234");
  unsigned char pin[4] = {9, 9, 9, 9};
  DWORD length = 3;
  EXPECT_EQ(manager_.GetPin(SerialOf(1).data(), pin, &length), NTE_NOT_FOUND);
  EXPECT_EQ(std::string(pin, pin + 4), "\x9\x9\x9\x9");
  EXPECT_EQ(length, 4u);
}

TEST_F(PinManagerTest, ALargerBufferIsFilledUpWithZeros) {
  Set(SerialOf(1), "12");
  unsigned char pin[5] = {9, 9, 9, 9, 9};
  DWORD length = 4;
  EXPECT_EQ(manager_.GetPin(SerialOf(1).data(), pin, &length), 0);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(std::vector<unsigned char>(pin, pin + 5), (std::vector<unsigned char>{'1', '2', 0, 0, 9}));
}

TEST_F(PinManagerTest, ALookupThatFindsNothingLeavesTheSection) {
  manager_.Enter();
  EXPECT_EQ(Get(SerialOf(1)), "(none)");
  // Another thread can come in now, and this one's second leave does not put it out.
  std::atomic<bool> entered = false;
  std::thread other([&] {
    manager_.Enter();
    entered = true;
    manager_.Leave();
  });
  other.join();
  EXPECT_TRUE(entered);
  manager_.Leave();
  manager_.Enter();
  manager_.Leave();
}

TEST_F(PinManagerTest, ALookupThatFindsSomethingStaysInTheSection) {
  Set(SerialOf(1), "1");
  manager_.Enter();
  EXPECT_EQ(Get(SerialOf(1)), "1");
  std::atomic<bool> left = false;
  std::thread other([&] {
    manager_.Leave();  // not this thread's to leave
    manager_.Enter();
    EXPECT_TRUE(left) << "two threads inside";
    manager_.Leave();
  });
  for (int i = 0; i < 200; ++i)
    SwitchToThread();
  left = true;
  manager_.Leave();
  other.join();
}

TEST_F(PinManagerTest, TheSectionIsLeftAsOftenAsItWasEntered) {
  manager_.Enter();
  manager_.Enter();
  manager_.Leave();
  std::atomic<bool> left = false;
  std::thread other([&] {
    manager_.Enter();
    EXPECT_TRUE(left);
    manager_.Leave();
  });
  for (int i = 0; i < 200; ++i)
    SwitchToThread();
  left = true;
  manager_.Leave();
  other.join();
}

TEST_F(PinManagerTest, EntriesThatSeveralThreadsAddAreAllFound) {
  constexpr unsigned kThreads = 4;
  constexpr unsigned kEach = 60;
  std::atomic<bool> done = false;
  std::thread reader([&] {
    while (!done)
      EXPECT_NE(Get(SerialOf(0)), "(unreadable)");
  });
  std::vector<std::thread> writers;
  for (unsigned t = 0; t < kThreads; ++t) {
    writers.emplace_back([&, t] {
      for (unsigned i = 0; i < kEach; ++i)
        EXPECT_EQ(Set(SerialOf(t * kEach + i), std::to_string(i + 1)), 1u);
    });
  }
  for (std::thread& writer : writers)
    writer.join();
  done = true;
  reader.join();
  for (unsigned i = 0; i < kThreads * kEach; ++i)
    EXPECT_EQ(Get(SerialOf(i)), std::to_string(i % kEach + 1));
}

TEST_F(PinManagerTest, ASettingThatForbidsCachingIsSaidByTheStatusAlone) {
  kit::Registry::Get().SetString(kit::kSdkKey, L"PINCACHE", L"0");
  TakeLines();
  EXPECT_EQ(Set(SerialOf(1), "1234"), static_cast<std::uint32_t>(NTE_NOT_SUPPORTED));
  EXPECT_EQ(TakeLines(), Lines{"Checking PIN caching setting"});
  EXPECT_EQ(Get(SerialOf(1)), "(none)");
}

TEST_F(PinManagerTest, TheSettingIsReadAsATextOfTheSettingsKey) {
  std::vector<std::pair<HKEY, std::wstring>> keys;
  Hook<"RegGetValueW", decltype(&RegGetValueW)> reads(
      [&](auto original, HKEY key, LPCWSTR subKey, LPCWSTR value, DWORD flags, LPDWORD type, PVOID data, LPDWORD size) {
        if (std::wstring(value) == L"PINCACHE") {
          keys.emplace_back(key, subKey);
          EXPECT_EQ(flags, DWORD{RRF_RT_REG_SZ});
          EXPECT_EQ(*size, 16u);
        }
        return original(key, subKey, value, flags, type, data, size);
      });
  EXPECT_EQ(Set(SerialOf(1), "1"), 1u);
  EXPECT_EQ(keys, (std::vector<std::pair<HKEY, std::wstring>>{{HKEY_LOCAL_MACHINE, kit::kSdkKey}}));
}

TEST_F(PinManagerTest, ALookupWithoutMemoryForTheCopySaysSo) {
  Set(SerialOf(1), "1234");
  unsigned char pin[4] = {9, 9, 9, 9};
  DWORD length = 4;
  TakeLines();
  {
    const FailedAllocation failed(3);  // the two lines with a value need memory before
    EXPECT_EQ(manager_.GetPin(SerialOf(1).data(), pin, &length), NTE_NO_MEMORY);
  }
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(pin[0], 9);
  EXPECT_EQ(TakeLines().back(), "PIN Manager - Iterating through PIN caches");
  EXPECT_EQ(Get(SerialOf(1)), "1234");
}

TEST_F(PinManagerTest, AStoreWithoutMemoryStoresNothing) {
  const Lines begin{"Checking PIN caching setting", "Creating cache to store token PIN"};
  const Lines label{"Checking PIN caching setting", "Creating cache to store token PIN", "Setting cache label"};
  const auto set = [&](std::size_t nth, const Serial& serial) {
    const FailedAllocation failed(nth);
    return Set(serial, "1234");
  };
  // Without what the entry's log says of itself.
  const auto takeLines = [] {
    Lines lines = TakeLines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("DebugClass ctor"); });
    return lines;
  };
  TakeLines();
  // The entry itself.
  EXPECT_EQ(set(1, SerialOf(1)), static_cast<std::uint32_t>(NTE_NO_MEMORY));
  EXPECT_EQ(takeLines(), begin);
  // Its label.
  EXPECT_EQ(set(3, SerialOf(1)), static_cast<std::uint32_t>(NTE_NO_MEMORY));
  EXPECT_EQ(takeLines(), label);
  // Its block, and what the block is made of.
  for (const std::size_t nth : {4U, 5U}) {
    EXPECT_EQ(set(nth, SerialOf(1)), static_cast<std::uint32_t>(NTE_NO_MEMORY));
    EXPECT_TRUE(Holds(TakeLines(), {nth == 4 ? "Not enough memory to continue operation" : "Error encrypting PIN",
                                    "Unable to set PIN. Error code: 0x8009000E"}));
  }
  EXPECT_EQ(Get(SerialOf(1)), "(none)");
  // Its log can be missed.
  TakeLines();
  EXPECT_EQ(set(2, SerialOf(1)), 1u);
  EXPECT_EQ(takeLines(), (Lines{"Checking PIN caching setting", "Creating cache to store token PIN",
                                "Setting cache label", "Setting PIN", "Saving cache to pool", "PIN securely saved"}));
  EXPECT_EQ(Get(SerialOf(1)), "1234");
}

TEST_F(PinManagerTest, AStoreReportsThePlatformsErrorAsItIs) {
  ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  });
  EXPECT_EQ(Set(SerialOf(1), "1234"), DWORD{ERROR_INVALID_HANDLE});
  EXPECT_EQ(Get(SerialOf(1)), "(none)");
}

TEST_F(PinManagerTest, ALookupThatFindsNothingLeavesTheSectionBeforeItSaysSo) {
  std::vector<std::string> before;
  Hook<"LeaveCriticalSection", decltype(&LeaveCriticalSection)> leave(
      [&](auto original, LPCRITICAL_SECTION section) -> void {
        if (leaving_) before = TakeLines();
        leaving_ = false;
        original(section);
      });
  manager_.Enter();
  DWORD length = 0;
  TakeLines();
  leaving_ = true;
  EXPECT_EQ(manager_.GetPin(SerialOf(1).data(), nullptr, &length), NTE_NOT_FOUND);
  ASSERT_FALSE(before.empty());
  EXPECT_EQ(before.back(), "PIN Manager - Iterating through PIN caches");
  EXPECT_EQ(TakeLines(), Lines{"PIN Manager - PIN is not found"});
}

TEST_F(PinManagerTest, TheSectionSpinsBeforeItWaits) {
  DWORD spins = 0;
  Hook<"InitializeCriticalSectionAndSpinCount", decltype(&InitializeCriticalSectionAndSpinCount)> initialize(
      [&](auto original, LPCRITICAL_SECTION section, DWORD count) -> BOOL {
        spins = count;
        return original(section, count);
      });
  const PinManager manager;
  EXPECT_EQ(spins, 1024u);
}

class PinCacheEntryTest : public InsideTest {
 protected:
  SECURITY_STATUS Set(const std::string& pin) {
    return entry_.SetPin(Bytes(pin.c_str()), static_cast<DWORD>(pin.size()));
  }
  std::string Get() {
    DWORD length = 0;
    if (entry_.GetPin(nullptr, &length) != 0) return "(none)";
    std::string pin(length, '\0');
    const SECURITY_STATUS status = entry_.GetPin(reinterpret_cast<unsigned char*>(pin.data()), &length);
    return status == 0 ? pin : "(unreadable)";
  }

  PinCacheEntry entry_;
};

// A memory protection that changes the bytes, which Wine's does not.
void Scramble(void* data, DWORD size) {
  auto* bytes = static_cast<unsigned char*>(data);
  for (DWORD i = 0; i < size; ++i)
    bytes[i] ^= 0xA5;
}

// The calls that lock and unlock memory, in order, and whether they concern the same block.
struct LockWatch {
  std::vector<std::string> calls;
  std::vector<std::pair<void*, SIZE_T>> blocks;
  DWORD lockError = 0;
  DWORD unlockError = 0;
  LockHook lock{[this](auto original, LPVOID block, SIZE_T size) -> BOOL {
    Note("lock", block, size);
    if (lockError == 0) return original(block, size);
    SetLastError(lockError);
    return FALSE;
  }};
  UnlockHook unlock{[this](auto original, LPVOID block, SIZE_T size) -> BOOL {
    Note("unlock", block, size);
    if (unlockError == 0) return original(block, size);
    SetLastError(unlockError);
    return FALSE;
  }};

  void Note(const char* call, void* block, SIZE_T size) {
    calls.emplace_back(call);
    blocks.emplace_back(block, size);
  }
  std::vector<std::string> Take() { return std::exchange(calls, {}); }
};

TEST_F(PinCacheEntryTest, KeepsAndReplacesItsPin) {
  PinCacheEntry entry;
  EXPECT_EQ(entry.SetPin(nullptr, 4), NTE_INVALID_PARAMETER);
  EXPECT_EQ(entry.SetPin(Bytes("1234"), 0), NTE_INVALID_PARAMETER);
  DWORD length = 7;
  EXPECT_EQ(entry.GetPin(nullptr, &length), NTE_INVALID_PARAMETER) << "there is no PIN yet";
  EXPECT_EQ(length, 7u);

  EXPECT_EQ(entry.SetPin(Bytes("1234"), 4), 0);
  EXPECT_EQ(entry.GetPin(nullptr, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(entry.SetPin(Bytes("98765432109876"), 14), 0);
  EXPECT_EQ(entry.GetPin(nullptr, &length), 0);
  EXPECT_EQ(length, 14u);
  unsigned char pin[14];
  length = 13;
  EXPECT_EQ(entry.GetPin(pin, &length), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(length, 14u);
  EXPECT_EQ(entry.GetPin(pin, &length), 0);
  EXPECT_EQ(std::string(pin, pin + 14), "98765432109876");
}

TEST_F(PinCacheEntryTest, BelongsToTheTokenOfItsLabel) {
  PinCacheEntry entry;
  EXPECT_FALSE(entry.HasLabel(SerialOf(1).data())) << "there is no label yet";
  ASSERT_TRUE(entry.SetLabel(SerialOf(1).data()));
  EXPECT_TRUE(entry.HasLabel(SerialOf(1).data()));
  EXPECT_FALSE(entry.HasLabel(SerialOf(2).data()));
  EXPECT_FALSE(entry.HasLabel(nullptr));
  ASSERT_TRUE(entry.SetLabel(SerialOf(2).data()));
  EXPECT_TRUE(entry.HasLabel(SerialOf(2).data()));
}

TEST_F(PinCacheEntryTest, LocksItsBlockUnlessOnlyTheLengthWasAskedFor) {
  LockWatch watch;
  {
    PinCacheEntry entry;
    EXPECT_EQ(entry.SetPin(Bytes("1234"), 4), 0);
    EXPECT_EQ(watch.Take(), Lines{"lock"});
    DWORD length = 0;
    EXPECT_EQ(entry.GetPin(nullptr, &length), 0);
    EXPECT_EQ(watch.Take(), Lines{"unlock"});
    unsigned char pin[4];
    length = 3;
    EXPECT_EQ(entry.GetPin(pin, &length), NTE_BUFFER_TOO_SMALL);
    EXPECT_EQ(watch.Take(), Lines{"unlock"});
    EXPECT_EQ(entry.GetPin(pin, &length), 0);
    EXPECT_EQ(watch.Take(), (Lines{"unlock", "lock"}));
    EXPECT_EQ(std::set(watch.blocks.begin(), watch.blocks.end()).size(), 1u) << "always the whole block";
    EXPECT_EQ(watch.blocks[0].second, 16u);
    EXPECT_EQ(entry.SetPin(Bytes("01234567890123"), 14), 0);
    EXPECT_EQ(watch.Take(), (Lines{"unlock", "lock"}));
    EXPECT_EQ(watch.blocks.back().second, 32u);
    watch.unlockError = ERROR_ACCESS_DENIED;  // nobody to tell
  }
  EXPECT_EQ(watch.Take(), Lines{"unlock"});
  { const PinCacheEntry neverFilled; }
  EXPECT_EQ(watch.Take(), Lines{});
}

TEST_F(PinCacheEntryTest, ABlockThatCannotBeUnlockedKeepsItsPin) {
  ASSERT_EQ(Set("1234"), 0);
  {
    LockWatch watch;
    watch.unlockError = ERROR_ACCESS_DENIED;
    TakeLines();
    EXPECT_EQ(Set("5678"), NTE_INTERNAL_ERROR);
    EXPECT_EQ(TakeLines(), Lines{"NTE_INTERNAL_ERROR: Failed to unlock memory block - 0x00000005"});
  }
  EXPECT_EQ(Get(), "1234");
  LockWatch watch;
  watch.unlockError = ERROR_NOT_LOCKED;
  EXPECT_EQ(Set("5678"), 0);
  EXPECT_EQ(Get(), "5678");
}

TEST_F(PinCacheEntryTest, ANewPinThatCannotBeKeptTakesTheOldOneAlong) {
  for (const bool locking : {false, true}) {
    ASSERT_EQ(Set("1234"), 0);
    TakeLines();
    if (locking) {
      LockWatch watch;
      watch.lockError = ERROR_WORKING_SET_QUOTA;
      EXPECT_EQ(Set("5678"), NTE_INTERNAL_ERROR);
      EXPECT_TRUE(Holds(TakeLines(), {"Failed to lock memory block - 0x000005AD"}));
    } else {
      ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
        SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
      });
      EXPECT_EQ(Set("5678"), ERROR_INVALID_HANDLE);
      EXPECT_TRUE(
          Holds(TakeLines(), {"Encrypt - Failed to encrypt memory block - 0x00000006", "Error encrypting PIN"}));
    }
    EXPECT_EQ(Get(), "(none)");
  }
}

TEST_F(PinCacheEntryTest, APinTooLongForAnyBlockIsRefused) {
  TakeLines();
  EXPECT_EQ(entry_.SetPin(Bytes("1"), 0xFFFFFFFF), NTE_NO_MEMORY);
  EXPECT_EQ(TakeLines(), Lines{"Error getting encrypted PIN length"});
}

TEST_F(PinCacheEntryTest, SaysWhereMemoryRanOut) {
  TakeLines();
  {
    const FailedAllocation failed(1);
    EXPECT_EQ(Set("1234"), NTE_NO_MEMORY);
  }
  EXPECT_EQ(TakeLines(), (Lines{"Encrypt - Output buffer is NULL, returning output length",
                                "Not enough memory to continue operation"}));
  {
    const FailedAllocation failed(2);
    EXPECT_EQ(Set("1234"), NTE_NO_MEMORY);
  }
  EXPECT_EQ(TakeLines(), (Lines{"Encrypt - Output buffer is NULL, returning output length", "Error encrypting PIN"}));
  ASSERT_EQ(Set("1234"), 0);
  TakeLines();
  DWORD length = 4;
  unsigned char pin[4] = {9, 9, 9, 9};
  {
    const FailedAllocation failed(1);
    EXPECT_EQ(entry_.GetPin(pin, &length), NTE_NO_MEMORY);
  }
  EXPECT_EQ(TakeLines(), (Lines{"Decrypt - not enough memory to continue operation", "Failed to get PIN length"}));
  {
    const FailedAllocation failed(2);
    EXPECT_EQ(entry_.GetPin(pin, &length), NTE_NO_MEMORY);
  }
  EXPECT_TRUE(Holds(TakeLines(), {"Decrypt - not enough memory to continue operation", "Failed to decrypt PIN"}));
  EXPECT_EQ(pin[0], 9);
  EXPECT_EQ(Get(), "1234");
}

TEST_F(PinCacheEntryTest, AFailureWithoutAReasonIsNoSuccess) {
  const auto failing = [](auto, LPVOID, DWORD, DWORD) -> BOOL {
    SetLastError(ERROR_SUCCESS);
    return FALSE;
  };
  {
    ProtectHook protect(failing);
    EXPECT_EQ(Set("1234"), NTE_INTERNAL_ERROR);
    EXPECT_EQ(Get(), "(none)");
  }
  ASSERT_EQ(Set("1234"), 0);
  UnprotectHook unprotect(failing);
  unsigned char pin[4] = {9, 9, 9, 9};
  DWORD length = 4;
  EXPECT_EQ(entry_.GetPin(pin, &length), NTE_INTERNAL_ERROR);
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(pin[0], 9);
}

TEST_F(PinCacheEntryTest, ReleasesItsLog) {
  std::array<const void*, 4> logs{};
  std::size_t made = 0;
  std::size_t released = 0;
  Hook<"malloc", void* (*)(std::size_t)> allocate([&](auto original, std::size_t size) -> void* {
    void* block = original(size);
    if (size == sizeof(DebugClass) && made < logs.size()) logs[made++] = block;
    return block;
  });
  Hook<"free", void (*)(void*)> release([&](auto original, void* block) -> void {
    if (block != nullptr) released += static_cast<std::size_t>(std::count(logs.begin(), logs.end(), block));
    original(block);
  });
  { const PinCacheEntry entry; }
  EXPECT_EQ(made, 1u);
  EXPECT_EQ(released, 1u);
  // And so does an entry that is not stored.
  ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  });
  const unsigned char serial[kSerialLength] = {};
  g_PinManager->SetPin(serial, kSerialLength, serial, 1);
  EXPECT_EQ(made, 2u);
  EXPECT_GE(released, 2u);
}

// The plain text may lie in the block only while it is being encrypted.
TEST_F(PinCacheEntryTest, TheBlockIsUnlockedWhileItIsThereAndWipedWhenItGoes) {
  const unsigned char* block = nullptr;
  bool intact = false;
  bool wiped = false;
  LockHook lock([&](auto original, LPVOID data, SIZE_T size) -> BOOL {
    block = static_cast<const unsigned char*>(data);
    return original(data, size);
  });
  UnlockHook unlock([&](auto original, LPVOID data, SIZE_T size) -> BOOL {
    intact = block[0] != 0;
    return original(data, size);
  });
  Hook<"free", void (*)(void*)> release([&](auto original, void* data) -> void {
    if (data == block && block != nullptr) wiped = std::all_of(block, block + 16, [](auto b) { return b == 0; });
    original(data);
  });
  {
    PinCacheEntry entry;
    ASSERT_EQ(entry.SetPin(Bytes("1234"), 4), 0);
  }
  EXPECT_TRUE(intact);
  EXPECT_TRUE(wiped);
}

TEST_F(PinCacheEntryTest, ProtectNamesWhatIsMissing) {
  unsigned char out[16] = {9};
  DWORD length = sizeof out;
  TakeLines();
  EXPECT_EQ(entry_.Protect(nullptr, 0, out, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - dataIn cannot be NULL"});
  EXPECT_EQ(entry_.Protect(Bytes("1"), 0, out, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - dataIn length cannot be zero"});
  EXPECT_EQ(entry_.Protect(Bytes("1"), 1, out, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - dataOut length buffer cannot be NULL"});
  length = 15;
  EXPECT_EQ(entry_.Protect(Bytes("1234"), 4, out, &length), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - Output buffer is too small."});
  EXPECT_EQ(length, 16u);
  EXPECT_EQ(out[0], 9);
  length = 0;
  EXPECT_EQ(entry_.Protect(Bytes("01234567890123"), 14, nullptr, &length), 0);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - Output buffer is NULL, returning output length"});
  EXPECT_EQ(length, 32u);
}

TEST_F(PinCacheEntryTest, ProtectEncryptsTheBlockForThisProcess) {
  std::vector<DWORD> flags;
  ProtectHook protect([&](auto, LPVOID data, DWORD size, DWORD flag) -> BOOL {
    flags.push_back(flag);
    EXPECT_EQ(size, 16u);
    Scramble(data, size);
    return TRUE;
  });
  unsigned char out[20] = {};
  DWORD length = sizeof out;
  TakeLines();
  EXPECT_EQ(entry_.Protect(Bytes("1234"), 4, out, &length), 0);
  EXPECT_EQ(TakeLines(), Lines{});
  EXPECT_EQ(length, 16u);
  EXPECT_EQ(flags, std::vector<DWORD>{CRYPTPROTECTMEMORY_SAME_PROCESS});
  Scramble(out, 16);
  EXPECT_EQ(std::vector<unsigned char>(out, out + 20),
            (std::vector<unsigned char>{0x81, 4, '1', '2', '3', '4', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(PinCacheEntryTest, NothingOfABlockThatCannotBeEncryptedComesOut) {
  ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  });
  unsigned char out[16] = {};
  DWORD length = sizeof out;
  TakeLines();
  EXPECT_EQ(entry_.Protect(Bytes("1234"), 4, out, &length), ERROR_INVALID_HANDLE);
  EXPECT_EQ(TakeLines(), Lines{"Encrypt - Failed to encrypt memory block - 0x00000006"});
  EXPECT_EQ(std::vector<unsigned char>(out, out + 16), std::vector<unsigned char>(16));
}

TEST_F(PinCacheEntryTest, UnprotectNeedsABlockOfEightBytesAndALength) {
  const unsigned char block[8] = {0x81, 2, '1', '2'};
  DWORD length = 7;
  TakeLines();
  EXPECT_EQ(entry_.Unprotect(nullptr, 16, nullptr, &length), NTE_INVALID_PARAMETER);
  EXPECT_EQ(entry_.Unprotect(block, 7, nullptr, &length), NTE_INVALID_PARAMETER);
  EXPECT_EQ(entry_.Unprotect(block, 8, nullptr, nullptr), NTE_INVALID_PARAMETER);
  EXPECT_EQ(TakeLines(), Lines{});
  EXPECT_EQ(length, 7u);
  UnprotectHook unprotect([](auto, LPVOID, DWORD, DWORD) -> BOOL { return TRUE; });  // 8 bytes are no whole unit
  EXPECT_EQ(entry_.Unprotect(block, 8, nullptr, &length), 0);
  EXPECT_EQ(length, 2u);
}

TEST_F(PinCacheEntryTest, UnprotectLooksAtTheLengthAndNotAtTheMarker) {
  unsigned char block[16] = {0x17, 3, 'a', 'b', 'c', 'd'};
  Scramble(block, sizeof block);
  const std::vector<unsigned char> before(block, block + sizeof block);
  std::vector<DWORD> flags;
  UnprotectHook unprotect([&](auto, LPVOID data, DWORD size, DWORD flag) -> BOOL {
    flags.push_back(flag);
    EXPECT_EQ(size, 16u);
    Scramble(data, size);
    return TRUE;
  });
  DWORD length = 0;
  TakeLines();
  EXPECT_EQ(entry_.Unprotect(block, sizeof block, nullptr, &length), 0);
  EXPECT_EQ(TakeLines(), Lines{"Decrypt - Output buffer is NULL. Returning data length"});
  EXPECT_EQ(length, 3u);
  unsigned char pin[4] = {9, 9, 9, 9};
  length = 2;
  EXPECT_EQ(entry_.Unprotect(block, sizeof block, pin, &length), NTE_BUFFER_TOO_SMALL);
  EXPECT_EQ(TakeLines(), Lines{"Decrypt - Output buffer size is too small"});
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(pin[0], 9);
  length = 4;
  EXPECT_EQ(entry_.Unprotect(block, sizeof block, pin, &length), 0);
  EXPECT_EQ(TakeLines(), Lines{});
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(std::string(pin, pin + 4), "abc\x9");
  EXPECT_EQ(flags, std::vector<DWORD>(3, CRYPTPROTECTMEMORY_SAME_PROCESS));
  EXPECT_EQ(std::vector<unsigned char>(block, block + sizeof block), before) << "a copy is decrypted";
}

TEST_F(PinCacheEntryTest, UnprotectReportsThePlatformsErrorAsItIs) {
  const unsigned char block[16] = {0x81, 1, '1'};
  UnprotectHook unprotect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  });
  unsigned char pin[4] = {9, 9, 9, 9};
  DWORD length = 4;
  TakeLines();
  EXPECT_EQ(entry_.Unprotect(block, sizeof block, pin, &length), ERROR_INVALID_HANDLE);
  EXPECT_EQ(TakeLines(), Lines{"Decrypt - Failed to decrypt data - 0x00000006"});
  EXPECT_EQ(length, 4u);
  EXPECT_EQ(pin[0], 9);
}

}  // namespace
