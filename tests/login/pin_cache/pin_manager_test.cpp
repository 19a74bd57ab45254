// The PIN cache by itself: its entries, its section, and the setting that forbids it.
#include "login/pin_cache/pin_manager.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "inside/process_objects.h"
#include "kit/registry.h"
#include "login/pin_cache/cache_fixture.h"

namespace {

using kit::Hook;
using Lines = std::vector<std::string>;

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
    const FailedAllocation failed(1);
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

}  // namespace
