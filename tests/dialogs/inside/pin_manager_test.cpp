// The PIN cache's own operations.
#include "login/pin_manager.h"

#include <array>
#include <atomic>
#include <set>
#include <string>
#include <thread>

#include "inside/process_objects.h"

namespace {

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

TEST(PinCacheEntryTest, KeepsAndReplacesItsPin) {
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

TEST(PinCacheEntryTest, BelongsToTheTokenOfItsLabel) {
  PinCacheEntry entry;
  EXPECT_FALSE(entry.HasLabel(SerialOf(1).data())) << "there is no label yet";
  ASSERT_TRUE(entry.SetLabel(SerialOf(1).data()));
  EXPECT_TRUE(entry.HasLabel(SerialOf(1).data()));
  EXPECT_FALSE(entry.HasLabel(SerialOf(2).data()));
  EXPECT_FALSE(entry.HasLabel(nullptr));
  ASSERT_TRUE(entry.SetLabel(SerialOf(2).data()));
  EXPECT_TRUE(entry.HasLabel(SerialOf(2).data()));
}

}  // namespace
