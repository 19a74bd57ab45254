// An entry of the PIN cache by itself: its protected block, and how each step fails.
#include "login/pin_cache/pin_cache_entry.h"

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "inside/process_objects.h"
#include "login/pin_cache/cache_fixture.h"

namespace {

using kit::Hook;
using Lines = std::vector<std::string>;

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
