// The PIN cache, as seen through logins.
#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "login_fixture.h"

#include <wincrypt.h>

namespace {

using kit::Dialog;
using kit::Hex32;
using kit::Hook;
using kit::kPinField;
using kit::kSdkKey;
using kit::PinManager;
using kit::Registry;

constexpr SECURITY_STATUS kInternalError = NTE_INTERNAL_ERROR;

using ProtectHook = Hook<"CryptProtectMemory", decltype(&CryptProtectMemory)>;
using UnprotectHook = Hook<"CryptUnprotectMemory", decltype(&CryptUnprotectMemory)>;
using LockHook = Hook<"VirtualLock", decltype(&VirtualLock)>;
using UnlockHook = Hook<"VirtualUnlock", decltype(&VirtualUnlock)>;

// A memory protection that changes the bytes, which Wine's does not.
void Scramble(void* data, DWORD size) {
  auto* bytes = static_cast<BYTE*>(data);
  for (DWORD i = 0; i < size; ++i)
    bytes[i] ^= 0xA5;
}

struct Scrambling {
  std::vector<std::vector<BYTE>> blocks;  // what was to be protected
  std::vector<DWORD> flags;
  ProtectHook protect{[this](auto, LPVOID data, DWORD size, DWORD flag) -> BOOL {
    const auto* bytes = static_cast<const BYTE*>(data);
    blocks.emplace_back(bytes, bytes + size);
    flags.push_back(flag);
    Scramble(data, size);
    return TRUE;
  }};
  UnprotectHook unprotect{[this](auto, LPVOID data, DWORD size, DWORD flag) -> BOOL {
    flags.push_back(flag);
    Scramble(data, size);
    return TRUE;
  }};
};

class PinCacheTest : public LoginTest {
 protected:
  void CachePin(const std::wstring& pin = L"1234") {
    slot().pin = std::string(pin.begin(), pin.end());
    ASSERT_EQ(SignTyping(pin), 0);
    slot().loggedIn = false;
    Forget();
  }
  // A login with a field that takes more than 16 characters, as another program can make it.
  void CacheLongPin(std::size_t length) {
    const std::wstring pin(length, L'7');
    slot().pin = std::string(length, '7');
    ASSERT_EQ(SignWith([&](Dialog& dialog) {
                dialog.Send(kPinField, EM_LIMITTEXT, 1000);
                dialog.Type(kPinField, pin);
                dialog.PressOk();
              }),
              0);
    slot().loggedIn = false;
    Forget();
  }
  Lines UnexpectedError() {
    Lines lookup = Start();
    lookup.erase(lookup.begin(), lookup.begin() + 3);
    return PinLines({"Retrieving PIN from cache"}) + lookup;
  }
  std::string LoginCall(const std::string& pin) {
    return "VendorLogin(session=0x51, user=1, pin=" + fake::HexOf(fake::Ascii(pin)) + ")";
  }
};

TEST_F(PinCacheTest, SecondLoginComesFromTheCacheWithoutADialog) {
  CachePin();
  kit::DialogRobot robot;
  EXPECT_EQ(Sign(), 0);
  EXPECT_EQ(robot.Finish(), 0u);
  EXPECT_EQ(robot.created(), 0u);
  EXPECT_TRUE(kit::SameLines(CachedLogin(), LoginLines()));
  const std::vector<std::string> calls = token().TakeTexts();
  ASSERT_GE(calls.size(), 2u);
  EXPECT_TRUE(calls[0].starts_with("C_GetTokenInfo(")) << calls[0];
  EXPECT_EQ(calls[1], LoginCall("1234"));
}

TEST_F(PinCacheTest, ALoginFromTheCacheMakesOnlyThePlatformCallsItNeeds) {
  CachePin();
  Registry::Get().TakeReads();
  kit::Imports::Get().StartRecording();
  ASSERT_EQ(Sign(), 0);
  std::map<std::string, int> calls;
  for (const kit::ImportCall& call : kit::Imports::Get().StopRecording())
    ++calls[call.name];
  // The log of the object that signs afterwards; the login itself reads nothing.
  EXPECT_EQ(Registry::Get().TakeReads(), (std::vector<std::wstring>{L"KSPLOG", L"KSPDIR"}));
  EXPECT_EQ(calls["CryptAcquireContextW"], 1);
  EXPECT_EQ(calls["CryptGenRandom"], 32);
  EXPECT_EQ(calls["CryptReleaseContext"], 1);
  // Once for the presence test; for reading: once for the length and once for the PIN.
  EXPECT_EQ(calls["CryptUnprotectMemory"], 3);
  EXPECT_EQ(calls["VirtualUnlock"], 2);
  EXPECT_EQ(calls["VirtualLock"], 1);
  for (const char* name : {"DialogBoxParamW", "LoadIconW", "LoadImageW", "CreateFontIndirectW", "GetWindowTextW",
                           "SendMessageW", "SetWindowTextW", "SetWindowLongPtrW", "SetWindowLongW", "RegOpenKeyW",
                           "RegOpenKeyExW", "CryptProtectMemory", "LoadLibraryW", "CreateFileW"}) {
    EXPECT_EQ(calls[name], 0) << name;
  }
}

TEST_F(PinCacheTest, ASessionThatIsLoggedInCountsAsSuccess) {
  CachePin();
  slot().loggedIn = true;
  EXPECT_TRUE(SignsFromCache());
  EXPECT_EQ(token().Count("VendorLogin"), 1u);
}

TEST_F(PinCacheTest, AWrongCachedPinFailsEveryTimeAndStaysCached) {
  CachePin();
  token().FailAlways("VendorLogin", 2);
  for (int i = 0; i < 2; ++i) {
    kit::DialogRobot robot;
    EXPECT_EQ(Sign(), kInternalError);
    EXPECT_EQ(robot.Finish(), 0u);
    Lines expected = CachedLogin();
    const Lines failed = PinLines({"NTE_INTERNAL_ERROR: Unable to login using cached PIN. Error code: 0x00000002"});
    expected.insert(expected.end() - 5, failed.begin(), failed.end());
    EXPECT_TRUE(kit::SameLines(expected, LoginLines()));
  }
  token().ClearScript();
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, EveryOtherResultOfTheTokenFailsACachedLogin) {
  CachePin();
  for (const CK_RV result : {CK_RV{1}, CK_RV{14}, CK_RV{0xA0}, CK_RV{0xA4}, CK_RV{0xFF}, CK_RV{0x101}, CK_RV{0x30}}) {
    token().Fail("VendorLogin", result);
    EXPECT_EQ(Sign(), kInternalError) << result;
  }
  slot().loggedIn = true;
  token().Fail("VendorLogin", 0x100);
  EXPECT_EQ(Sign(), 0);
}

TEST_F(PinCacheTest, TokensAreToldApartByAllSixteenBytesOfTheSerialNumber) {
  slot().serial = slot().serial + "-AAAAAAAAAAAAAAAA";
  slot().serial.resize(16);
  CachePin();
  slot().serial.back() = 'B';
  EXPECT_FALSE(SignsFromCache());
  slot().serial.back() = 'A';
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, OneTokenIsCachedForAllProviderHandles) {
  CachePin();
  const NCRYPT_PROV_HANDLE other = OpenProvider();
  const NCRYPT_KEY_HANDLE otherKey = OpenKey(other, L"K");
  kit::DialogRobot robot;
  EXPECT_EQ(Sign(other, otherKey), 0);
  EXPECT_EQ(robot.Finish(), 0u);
  ksp().FreeKey(other, otherKey);
  ksp().FreeProvider(other);
}

TEST_F(PinCacheTest, HandsThePaddedPinToTheMemoryProtectionAndLocksTheResult) {
  const std::string base = slot().serial;
  for (const std::size_t length : {4U, 13U, 14U, 16U}) {
    slot().serial = base + "/" + std::to_string(length);
    slot().loggedIn = false;
    Scrambling scrambling;
    std::vector<std::pair<const void*, SIZE_T>> locked;
    LockHook lock([&](auto original, LPVOID block, SIZE_T size) -> BOOL {
      locked.emplace_back(block, size);
      return original(block, size);
    });
    const std::wstring pin = std::wstring(L"0123456789abcdef").substr(0, length);
    CachePin(pin);
    ASSERT_EQ(scrambling.blocks.size(), 1u);
    std::vector<BYTE> expected{0x81, static_cast<BYTE>(length)};
    expected.insert(expected.end(), pin.begin(), pin.end());
    expected.resize(length <= 13 ? 16 : 32);
    EXPECT_EQ(scrambling.blocks[0], expected);
    EXPECT_EQ(scrambling.flags, std::vector<DWORD>{CRYPTPROTECTMEMORY_SAME_PROCESS});
    ASSERT_EQ(locked.size(), 1u);
    EXPECT_EQ(locked[0].second, expected.size());
    // What is locked is the protected form.
    Scramble(expected.data(), static_cast<DWORD>(expected.size()));
    const auto* block = static_cast<const BYTE*>(locked[0].first);
    EXPECT_EQ(std::vector<BYTE>(block, block + locked[0].second), expected);

    // And a login reads it back, leaves the protected form in place and locks it again.
    EXPECT_TRUE(SignsFromCache());
    EXPECT_EQ(std::vector<BYTE>(block, block + locked[0].second), expected);
    ASSERT_EQ(locked.size(), 2u);
    EXPECT_EQ(locked[1], locked[0]);
    EXPECT_EQ(scrambling.flags, std::vector<DWORD>(4, CRYPTPROTECTMEMORY_SAME_PROCESS));
    const auto calls = token().TakeTexts();
    EXPECT_NE(std::find(calls.begin(), calls.end(), LoginCall(std::string(pin.begin(), pin.end()))), calls.end());
  }
}

TEST_F(PinCacheTest, ThePresenceTestLeavesTheBlockUnlocked) {
  CachePin();
  std::vector<std::string> sequence;
  LockHook lock([&](auto original, LPVOID block, SIZE_T size) -> BOOL {
    sequence.emplace_back("lock");
    return original(block, size);
  });
  UnlockHook unlock([&](auto original, LPVOID block, SIZE_T size) -> BOOL {
    sequence.emplace_back("unlock");
    return original(block, size);
  });
  EXPECT_TRUE(SignsFromCache());
  EXPECT_EQ(sequence, (std::vector<std::string>{"unlock", "unlock", "lock"}));
}

TEST_F(PinCacheTest, PagesThatAreNotLockedAreNoFailure) {
  CachePin();
  UnlockHook unlock([](auto, LPVOID, SIZE_T) -> BOOL {
    SetLastError(ERROR_NOT_LOCKED);
    return FALSE;
  });
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, ABlockThatCannotBeUnlockedFailsTheReading) {
  CachePin();
  {
    UnlockHook unlock([](auto, LPVOID, SIZE_T) -> BOOL {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    });
    kit::DialogRobot robot;
    EXPECT_EQ(Sign(), kInternalError);
    EXPECT_EQ(robot.Finish(), 0u);
  }
  const Lines unlockFailed{Entry("NTE_INTERNAL_ERROR: Failed to unlock memory block - 0x00000005")};
  EXPECT_TRUE(kit::SameLines(Start() + Lines{PinManager("PIN Manager - PIN buffer is NULL, returning PIN length")} +
                                 unlockFailed + UnexpectedError() + unlockFailed +
                                 Lines{PinManager("Failed to get PIN from cache")} +
                                 PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup(),
                             LoginLines()));
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, ABlockThatCannotBeLockedAgainIsGone) {
  CachePin();
  {
    LockHook lock([](auto, LPVOID, SIZE_T) -> BOOL {
      SetLastError(ERROR_WORKING_SET_QUOTA);
      return FALSE;
    });
    EXPECT_EQ(Sign(), kInternalError);
  }
  EXPECT_TRUE(kit::SameLines(
      Start() + PresenceFound() + UnexpectedError() + CacheRead() +
          Lines{Entry("Failed to lock memory block - 0x000005AD"), PinManager("Failed to get PIN from cache")} +
          PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup(),
      LoginLines()));
  // The entry stays, without a PIN: no dialog comes in its place.
  kit::DialogRobot robot;
  EXPECT_EQ(Sign(), kInternalError);
  EXPECT_EQ(robot.Finish(), 0u);
  EXPECT_TRUE(kit::SameLines(Start() + Lines{PinManager("PIN Manager - PIN buffer is NULL, returning PIN length")} +
                                 UnexpectedError() + Lines{PinManager("Failed to get PIN from cache")} +
                                 PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup(),
                             LoginLines()));
}

TEST_F(PinCacheTest, ABlockThatCannotBeDecryptedFailsTheReading) {
  CachePin();
  for (int failing = 1; failing <= 3; ++failing) {
    int calls = 0;
    UnprotectHook unprotect([&](auto original, LPVOID data, DWORD size, DWORD flags) -> BOOL {
      if (++calls != failing) return original(data, size, flags);
      SetLastError(0x57);
      return FALSE;
    });
    const SECURITY_STATUS status = Sign();
    const Lines failed{Entry("Decrypt - Failed to decrypt data - 0x00000057")};
    const Lines lost = Lines{PinManager("Failed to get PIN from cache")} +
                       PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup();
    Lines expected = Start();
    if (failing == 1) {
      // The length stays 0, and the room of 0 bytes is then too small.
      expected = expected + Lines{PinManager("PIN Manager - PIN buffer is NULL, returning PIN length")} + failed +
                 Lines{Entry("Failed to get PIN length")} + UnexpectedError() + CacheRead() + lost;
    } else if (failing == 2) {
      expected =
          expected + PresenceFound() + UnexpectedError() + failed + Lines{Entry("Failed to get PIN length")} + lost;
    } else {
      expected = expected + PresenceFound() + UnexpectedError() + CacheRead() + failed +
                 Lines{Entry("Failed to decrypt PIN")} + lost;
    }
    EXPECT_EQ(status, kInternalError) << failing;
    EXPECT_TRUE(kit::SameLines(expected, LoginLines())) << failing;
  }
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, ALengthThatCannotBeReadCountsAsNone) {
  CachePin(L"1");
  bool failed = false;
  UnprotectHook unprotect([&](auto original, LPVOID data, DWORD size, DWORD flags) -> BOOL {
    return std::exchange(failed, true) && original(data, size, flags);
  });
  EXPECT_EQ(Sign(), kInternalError) << "there is no room for even one character";
}

// A load of the provider is marked in the log once, and the logs of the cache's entries come later.
TEST_F(PinCacheTest, TheLogOfAnEntryWritesNoStartLine) {
  const int before = kit::Log::Get().InstancesConstructed();
  ASSERT_EQ(SignTyping(L"1234"), 0);
  int entries = 0;
  for (int instance = before + 1; instance <= kit::Log::Get().InstancesConstructed(); ++instance) {
    const std::string text = kit::Log::Get().FileText(instance);
    if (text.find("Encrypt - ") != std::string::npos) ++entries;
    EXPECT_EQ(text.find("LOG START"), std::string::npos);
  }
  EXPECT_EQ(entries, 1);
}

TEST_F(PinCacheTest, APinThatCannotBeEncryptedIsNotCached) {
  {
    ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
      SetLastError(0x57);
      return FALSE;
    });
    EXPECT_EQ(SignTyping(L"1234"), 0);
  }
  const Lines lines = LoginLines();
  const Lines expected{PinManager("Setting PIN"), Entry("Encrypt - Output buffer is NULL, returning output length"),
                       Entry("Encrypt - Failed to encrypt memory block - 0x00000057"), Entry("Error encrypting PIN"),
                       PinManager("Unable to set PIN. Error code: 0x00000057")};
  const auto found = std::search(lines.begin(), lines.end(), expected.begin(), expected.end());
  ASSERT_NE(found, lines.end());
  // The dialog takes an error status for success.
  EXPECT_TRUE(kit::SameLines(ButtonDone() + Cleanup(), Lines(found + 5, lines.end())));
  EXPECT_FALSE(SignsFromCache());
}

TEST_F(PinCacheTest, APinThatCannotBeLockedIsNotCached) {
  {
    LockHook lock([](auto, LPVOID, SIZE_T) -> BOOL {
      SetLastError(ERROR_WORKING_SET_QUOTA);
      return FALSE;
    });
    EXPECT_EQ(SignTyping(L"1234"), 0);
  }
  const Lines lines = LoginLines();
  const Lines expected{PinManager("Setting PIN"), Entry("Encrypt - Output buffer is NULL, returning output length"),
                       Entry("Failed to lock memory block - 0x000005AD"),
                       PinManager("Unable to set PIN. Error code: 0x8009002D")};
  EXPECT_NE(std::search(lines.begin(), lines.end(), expected.begin(), expected.end()), lines.end());
  EXPECT_FALSE(SignsFromCache());
}

TEST_F(PinCacheTest, AnyReadableSettingForbidsCachingAndEightZerosCannotBeRead) {
  struct Case {
    const wchar_t* setting;  // null for none
    bool caches;
  };
  const std::string base = slot().serial;
  int number = 0;
  for (const Case& c :
       {Case{nullptr, true}, Case{L"0", false}, Case{L"1", false}, Case{L"", false}, Case{L"0000000", false},
        Case{L"00000000", true}, Case{L"000000000", true}, Case{L"12345678", true}, Case{L"yes", false}}) {
    slot().serial = base + "/" + std::to_string(++number);
    slot().loggedIn = false;
    if (c.setting != nullptr) {
      Registry::Get().SetString(kSdkKey, L"PINCACHE", c.setting);
    } else {
      Registry::Get().Remove(kSdkKey, L"PINCACHE");
    }
    Forget();
    EXPECT_EQ(SignTyping(L"1234"), 0);
    // The dialog's own gate and the cache's read the setting, and the dialog's never closes.
    const std::vector<std::wstring> reads = Registry::Get().TakeReads();
    EXPECT_EQ(std::count(reads.begin(), reads.end(), L"PINCACHE"), 2);
    if (c.caches) {
      EXPECT_TRUE(kit::SameLines(DialogLogin(), LoginLines())) << number;
    } else {
      const Lines gate = PinLines({"Login success", "Checking PIN cache setting", "Storing PIN to PIN cache"}) +
                         Lines{PinManager("Checking PIN caching setting")} + ButtonDone() + Cleanup();
      const Lines lines = LoginLines();
      ASSERT_GE(lines.size(), gate.size());
      EXPECT_TRUE(kit::SameLines(gate, Lines(lines.end() - static_cast<std::ptrdiff_t>(gate.size()), lines.end())))
          << number;
    }
    EXPECT_EQ(SignsFromCache(), c.caches) << number;
  }
}

TEST_F(PinCacheTest, ASettingOfAnotherTypeAllowsCaching) {
  Registry::Get().SetDword(kSdkKey, L"PINCACHE", 0);
  EXPECT_EQ(SignTyping(L"1234"), 0);
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, APinLongerThanTheBufferIsRefusedWithoutOverflow) {
  CacheLongPin(17);
  EXPECT_EQ(Sign(), kInternalError);
  EXPECT_EQ(token().Count("VendorLogin"), 0u);
  EXPECT_TRUE(kit::SameLines(Start() + PresenceFound() + UnexpectedError() + CacheRead() +
                                 Lines{PinManager("Failed to get PIN from cache")} +
                                 PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup(),
                             LoginLines()));
}

TEST_F(PinCacheTest, SixteenCharactersFit) {
  CachePin(L"0123456789abcdef");
  EXPECT_TRUE(SignsFromCache());
  EXPECT_EQ(token().Calls()[1].text, LoginCall("0123456789abcdef"));
}

TEST_F(PinCacheTest, OfThePinsLengthOnlyTheLowEightBitsAreCached) {
  CacheLongPin(0x102);
  slot().loggedIn = true;  // the token would refuse what is left of the PIN
  EXPECT_EQ(Sign(), 0);
  EXPECT_EQ(token().Calls()[1].text, LoginCall("77"));
}

TEST_F(PinCacheTest, APinOf256CharactersIsCachedAsAnEmptyOne) {
  CacheLongPin(0x100);
  slot().loggedIn = true;
  EXPECT_EQ(Sign(), 0);
  EXPECT_EQ(token().Calls()[1].text, LoginCall(""));
}

TEST_F(PinCacheTest, AReadWithoutMemoryForTheCopyFails) {
  CachePin(L"0123456789a");
  {
    // Nothing else in the login asks for exactly eleven bytes.
    kit::MemoryWatch memory;
    memory.FailWhen([](std::size_t size, std::size_t) { return size == 11; });
    EXPECT_EQ(Sign(), kInternalError);
  }
  EXPECT_TRUE(kit::SameLines(Start() + PresenceFound() + UnexpectedError() +
                                 PinLines({"NTE_INTERNAL_ERROR: An unexpected error has occured."}) + Cleanup(),
                             LoginLines()));
  EXPECT_TRUE(SignsFromCache());
}

TEST_F(PinCacheTest, NoFailureOfTheMemoryProtectionLeavesThePinBehind) {
  const std::string base = slot().serial;
  slot().pin = "73914265";
  const auto expectWiped = [](const kit::MemoryWatch& memory, const char* what) {
    EXPECT_FALSE(memory.FreedContains("73914265")) << what;
    EXPECT_FALSE(memory.FreedContainsWide("73914265")) << what;
  };
  {
    kit::MemoryWatch memory;
    ProtectHook protect([](auto, LPVOID, DWORD, DWORD) -> BOOL {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    });
    EXPECT_EQ(SignTyping(L"73914265"), 0);
    expectWiped(memory, "encrypting");
  }
  slot().serial = base + "/2";
  slot().loggedIn = false;
  {
    kit::MemoryWatch memory;
    LockHook lock([](auto, LPVOID, SIZE_T) -> BOOL {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    });
    EXPECT_EQ(SignTyping(L"73914265"), 0);
    expectWiped(memory, "locking");
  }
  slot().serial = base + "/3";
  slot().loggedIn = false;
  CachePin(L"73914265");
  for (int failing = 1; failing <= 3; ++failing) {
    kit::MemoryWatch memory;
    int calls = 0;
    UnprotectHook unprotect([&](auto original, LPVOID data, DWORD size, DWORD flags) -> BOOL {
      if (++calls != failing) return original(data, size, flags);
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    });
    EXPECT_EQ(Sign(), kInternalError);
    expectWiped(memory, "decrypting");
  }
  {
    kit::MemoryWatch memory;
    LockHook lock([](auto, LPVOID, SIZE_T) -> BOOL {
      SetLastError(ERROR_ACCESS_DENIED);
      return FALSE;
    });
    EXPECT_EQ(Sign(), kInternalError);
    expectWiped(memory, "locking again");
  }
}

TEST_F(PinCacheTest, NoBlockThatIsReleasedHoldsThePin) {
  Scrambling scrambling;
  slot().pin = "73914265";
  kit::MemoryWatch memory;
  ASSERT_EQ(SignTyping(L"73914265"), 0);
  ASSERT_TRUE(SignsFromCache());
  EXPECT_FALSE(memory.FreedContains("73914265"));
  EXPECT_FALSE(memory.FreedContainsWide("73914265"));
  for (const auto& [address, size] : memory.Live()) {
    const std::string contents(static_cast<const char*>(address), size);
    EXPECT_EQ(contents.find("73914265"), std::string::npos) << "a block of " << size << " bytes";
  }
}

TEST_F(PinCacheTest, NoAllocationThatFailsInACachedLoginDoesHarm) {
  CachePin();
  kit::MemoryWatch memory;
  const std::size_t before = memory.Allocations();
  ASSERT_EQ(Sign(), 0);
  const std::size_t needed = memory.Allocations() - before;
  ASSERT_GT(needed, 3u);
  for (std::size_t nth = 1; nth <= needed; ++nth) {
    memory.FailAllocation(nth);
    kit::DialogRobot robot;
    const SECURITY_STATUS status = Sign();
    EXPECT_TRUE(status == 0 || status == NTE_NO_MEMORY || status == kInternalError)
        << nth << ": " << std::hex << status;
    EXPECT_EQ(robot.Finish(), 0u) << nth;
    memory.StopFailing();
    EXPECT_EQ(Sign(), 0) << "after failure " << nth;
    slot().loggedIn = false;
    Forget();
  }
}

}  // namespace
