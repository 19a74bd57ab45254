// OpenProvider, step by step.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <string>

#include "kit/dialogs.h"
#include "kit/provider.h"
#include "kit/readers.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::kProviderKey;
using kit::kProviderName;
using kit::kSilent;
using kit::Line;
using kit::Pointer32;
using kit::Registry;

const char kName[] = "Norvale Token Works KSP v1.0";

class OpenProviderTest : public kit::ProviderTest {
 protected:
  SECURITY_STATUS Open(const wchar_t* name, DWORD flags) {
    constexpr NCRYPT_PROV_HANDLE kUntouched = 0xEEEE;
    handle_ = kUntouched;
    const SECURITY_STATUS status = ksp().OpenProvider(&handle_, name, flags);
    if (status != 0) {
      EXPECT_EQ(handle_, kUntouched) << "a failed open writes no handle";
      handle_ = 0;
    }
    return status;
  }
  // The frame of an open with the lines between arguments and exit.
  std::vector<Line> Lines(const std::string& name, DWORD flags, std::vector<Line> body, LONG status) {
    std::vector<Line> lines{Pointer32("phProvider       : ", &handle_), "pszProviderName  : " + name,
                            Hex32("dwFlags          : ", flags)};
    lines.insert(lines.end(), body.begin(), body.end());
    return Frame("KELDAKSPOpenProvider", lines, status);
  }
  void ExpectRefused(const wchar_t* name, DWORD flags, LONG status, std::vector<Line> body) {
    EXPECT_EQ(Open(name, flags), status);
    EXPECT_EQ(handle_, 0u);
    const std::wstring wide = name ? name : L"";
    ExpectLines(Lines(std::string(wide.begin(), wide.end()), flags, std::move(body), status));
  }
  // Throws, and so fails the test, when the open before has failed.
  kit::ProviderRecord& Record() {
    if (!handle_) throw std::runtime_error("no provider is open");
    return *kit::RecordOf(handle_);
  }
  void Close() {
    if (handle_) {
      EXPECT_EQ(ksp().FreeProvider(handle_), 0);
    }
    handle_ = 0;
  }
  void TearDown() override {
    Close();
    kit::ProviderTest::TearDown();
  }

  NCRYPT_PROV_HANDLE handle_ = 0;
};

TEST_F(OpenProviderTest, OneReaderIsTakenWithoutAsking) {
  AddReader("Reader 0");
  kit::DialogRobot robot;
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_EQ(robot.created(), 0u);
  ASSERT_NE(handle_, 0u);
  ExpectLines(Lines(
      kName, 0,
      {"Defaulted to reader: Reader 0", "Caching provider instance", Hex32("Provider handle retrieved: ", handle_)},
      0));
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=1)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=1)",
               "C_GetSlotInfo(slot=11)", "C_OpenSession(slot=11, flags=0x6, application=NULL, notify=NULL)"});
  EXPECT_EQ(Registry::Get().TakeReads(), (std::vector<std::wstring>{L"Aliases", L"dwUseProviderCache"}));
}

TEST_F(OpenProviderTest, WithoutSettingsKeyNothingIsQueriedInIt) {
  Registry::Get().RemoveKey(kit::kSdkKey);
  AddReader("Reader 0");
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_EQ(Registry::Get().TakeReads(), std::vector<std::wstring>{L"Aliases"});
}

TEST_F(OpenProviderTest, ReadsTheCacheSwitchBeforeTheLockIsMadeAndLeavesItsKeyOpen) {
  AddReader("Reader 0");
  kit::Imports::Get().StartRecording();
  EXPECT_EQ(Open(kProviderName, 0), 0);
  std::vector<std::string> steps;
  for (const kit::ImportCall& call : kit::Imports::Get().StopRecording()) {
    if (call.name.starts_with("Reg") || call.name.starts_with("InitializeCritical")) steps.push_back(call.name);
  }
  EXPECT_EQ(steps, (std::vector<std::string>{"RegGetValueW", "RegOpenKeyW", "RegQueryValueExW",
                                             "InitializeCriticalSectionAndSpinCount"}));
}

TEST_F(OpenProviderTest, CacheSwitchLiesInTheSettingsKeyOfTheMachine) {
  AddReader("Reader 0");
  std::vector<std::wstring> keys;
  const kit::Hook<"RegOpenKeyW", decltype(&RegOpenKeyW)> hook([&](auto original, HKEY root, LPCWSTR key, PHKEY opened) {
    EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
    keys.emplace_back(key);
    return original(root, key, opened);
  });
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_EQ(keys, std::vector<std::wstring>{L"SOFTWARE\\Norvale Token Works Ltd.\\KELDA SDK"});
}

// Every block that the provider allocates while it lives comes filled with 0xEE; sizes are kept by address.
class FilledMemory {
 public:
  std::size_t SizeOf(const void* block) const {
    const auto found = sizes_.find(block);
    return found == sizes_.end() ? 0 : found->second;
  }

 private:
  std::map<const void*, std::size_t> sizes_;
  kit::Hook<"malloc", void* (*)(std::size_t)> hook_{[this](auto original, std::size_t size) -> void* {
    void* block = original(size);
    if (block) {
      std::memset(block, 0xEE, size);
      sizes_[block] = size;
    }
    return block;
  }};
};

TEST_F(OpenProviderTest, FillsTheRecord) {
  AddReader("Reader 0");
  const FilledMemory memory;
  ASSERT_EQ(Open(kProviderName, kSilent), 0);
  const kit::ProviderRecord& record = Record();
  EXPECT_EQ(record.cbLength, sizeof(kit::ProviderRecord) + sizeof kProviderName);
  EXPECT_EQ(std::string(record.signature, 4), "KLDA");
  EXPECT_EQ(record.reserved1, 0u);
  EXPECT_STREQ(record.pszName, kProviderName);
  EXPECT_EQ(record.reserved2, 0xEEEEEEEEEEEEEEEEu) << "not set at creation";
  EXPECT_EQ(memory.SizeOf(&record), record.cbLength);
  // Room for twice the name and a character; one byte behind the name is zero, the rest is left as it is.
  EXPECT_EQ(memory.SizeOf(record.pszName), 2 * sizeof kProviderName + 2);
  const auto* name = reinterpret_cast<const BYTE*>(record.pszName);
  EXPECT_EQ(name[sizeof kProviderName], 0);
  EXPECT_EQ(name[sizeof kProviderName + 1], 0xEE);
  EXPECT_EQ(memory.SizeOf(record.pszReader), 33 * sizeof(wchar_t));
  EXPECT_EQ(memory.SizeOf(record.pLock), sizeof(CRITICAL_SECTION));
  EXPECT_EQ(record.pContext, nullptr);
  EXPECT_EQ(record.hSession, 0x51u);
  EXPECT_EQ(record.pKeyObjects, nullptr);
  EXPECT_EQ(record.cKeyObjects, 0u);
  EXPECT_EQ(record.pPinCache, nullptr);
  EXPECT_EQ(record.cchPinCache, 0u);
  EXPECT_EQ(record.loginState, 0u);
  EXPECT_STREQ(record.pszReader, L"Reader 0");
  EXPECT_EQ(record.slotId, 11u);
  EXPECT_EQ(record.hWnd, 0u);
  ASSERT_NE(record.pLock, nullptr);
  EXPECT_TRUE(TryEnterCriticalSection(record.pLock));
  LeaveCriticalSection(record.pLock);
}

TEST_F(OpenProviderTest, LockIsZeroFilledAndSpins1024Times) {
  AddReader();
  DWORD spins = 0;
  const CRITICAL_SECTION* section = nullptr;
  const FilledMemory memory;
  const kit::Hook<"InitializeCriticalSectionAndSpinCount", decltype(&InitializeCriticalSectionAndSpinCount)> hook(
      [&](auto original, LPCRITICAL_SECTION given, DWORD count) {
        spins = count;
        section = given;
        const auto* bytes = reinterpret_cast<const BYTE*>(given);
        EXPECT_EQ(std::count(bytes, bytes + sizeof *given, BYTE{0}), std::ptrdiff_t{sizeof *given});
        return original(given, count);
      });
  ASSERT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_EQ(spins, 1024u);
  EXPECT_EQ(section, Record().pLock);
}

TEST_F(OpenProviderTest, RefusesWithoutHandlePointer) {
  EXPECT_EQ(ksp().OpenProvider(nullptr, kProviderName, 0), NTE_INVALID_PARAMETER);
  ExpectLines(Frame("KELDAKSPOpenProvider",
                    {"phProvider       : 0x00000000", std::string("pszProviderName  : ") + kName,
                     "dwFlags          : 0x00000000", "NTE_INVALID_PARAMETER: phProvider is NULL"},
                    NTE_INVALID_PARAMETER));
  ExpectCalls({});
  EXPECT_TRUE(Registry::Get().TakeReads().empty());
}

TEST_F(OpenProviderTest, ChecksTheHandlePointerFirst) {
  EXPECT_EQ(ksp().OpenProvider(nullptr, nullptr, 0), NTE_INVALID_PARAMETER);
  ExpectLines(Frame("KELDAKSPOpenProvider",
                    {"phProvider       : 0x00000000", "pszProviderName  : ", "dwFlags          : 0x00000000",
                     "NTE_INVALID_PARAMETER: phProvider is NULL"},
                    NTE_INVALID_PARAMETER));
}

TEST_F(OpenProviderTest, RefusesWithoutName) {
  ExpectRefused(nullptr, 0, NTE_INVALID_PARAMETER, {"NTE_INVALID_PARAMETER: pszProviderName is NULL"});
  EXPECT_TRUE(Registry::Get().TakeReads().empty());
}

TEST_F(OpenProviderTest, RefusesWhenTheAliasesAreMissing) {
  Registry::Get().Remove(kProviderKey, L"Aliases");
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: OpenProvider::RegGetValue"});
}

TEST_F(OpenProviderTest, RefusesWhenTheAliasesAreOfAnotherType) {
  Registry::Get().Remove(kProviderKey, L"Aliases");
  Registry::Get().SetString(kProviderKey, L"Aliases", kProviderName);
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: OpenProvider::RegGetValue"});
}

TEST_F(OpenProviderTest, RefusesWhenTheAliasesExceed2048Bytes) {
  AddReader();
  // 1022 characters, their terminator and the list's: 2048 bytes.
  Registry::Get().SetMultiString(kProviderKey, L"Aliases", {std::wstring(1022, L'a')});
  EXPECT_EQ(Open(std::wstring(1022, L'a').c_str(), kSilent), 0);
  Close();
  Forget();
  Registry::Get().SetMultiString(kProviderKey, L"Aliases", {kProviderName, std::wstring(994, L'a')});
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: OpenProvider::RegGetValue"});
}

TEST_F(OpenProviderTest, AcceptsEveryAlias) {
  AddReader();
  Registry::Get().SetMultiString(kProviderKey, L"Aliases", {L"First", L"Second name", kProviderName});
  for (const wchar_t* alias : {L"First", L"Second name", kProviderName}) {
    EXPECT_EQ(Open(alias, kSilent), 0);
    EXPECT_STREQ(Record().pszName, alias);
    EXPECT_EQ(Record().cbLength, sizeof(kit::ProviderRecord) + (std::wcslen(alias) + 1) * sizeof(wchar_t));
    Close();
  }
}

TEST_F(OpenProviderTest, RefusesANameThatIsNoAlias) {
  Registry::Get().SetMultiString(kProviderKey, L"Aliases", {L"First", kProviderName});
  for (const wchar_t* name : {L"first", L"First ", L"Firs", L"irst", L"Norvale Token Works KSP v1.0 "}) {
    ExpectRefused(name, 0, NTE_INVALID_PARAMETER,
                  {"NTE_INVALID_PARAMETER: pszProviderName does not match the registered provider name"});
  }
  ExpectCalls({});
}

TEST_F(OpenProviderTest, EmptyNameEqualsTheEmptyStringThatEndsTheList) {
  // The walk compares every string that it meets, the last, empty one included.
  AddReader();
  EXPECT_EQ(Open(L"", kSilent), 0);
  EXPECT_STREQ(Record().pszName, L"");
}

TEST_F(OpenProviderTest, WalksOnBehindAnEmptyAlias) {
  AddReader();
  Registry::Get().SetMultiString(kProviderKey, L"Aliases", {L"First", L"", L"Last"});
  EXPECT_EQ(Open(L"Last", kSilent), 0);
}

TEST_F(OpenProviderTest, AliasesWithoutTheirTerminatorsDoNoHarm) {
  AddReader();
  for (const std::vector<BYTE>& bytes : {std::vector<BYTE>{'A', 0, 'B', 0}, std::vector<BYTE>{'A', 0, 'B', 0, 'C'},
                                         std::vector<BYTE>{}, std::vector<BYTE>(2048, 'A')}) {
    Registry::Get().SetBinary(kProviderKey, L"Aliases", REG_MULTI_SZ, bytes);
    const SECURITY_STATUS status = Open(L"Another", kSilent);
    EXPECT_TRUE(status == NTE_INVALID_PARAMETER || status == NTE_INTERNAL_ERROR) << bytes.size();
  }
}

TEST_F(OpenProviderTest, RecordThatCannotBeAllocated) {
  AddReader();
  const std::size_t size = sizeof(kit::ProviderRecord) + sizeof kProviderName;
  kit::MemoryWatch watch;
  watch.FailWhen([](std::size_t asked, std::size_t) { return asked == size; });
  ExpectRefused(kProviderName, kSilent, NTE_NO_MEMORY, {"NTE_NO_MEMORY: Not enough memory to allocate for pProvider"});
  ExpectCalls({});
}

TEST_F(OpenProviderTest, FailingSlotCount) {
  AddReader();
  token().Fail("C_GetSlotList", CKR_GENERAL_ERROR);
  ExpectRefused(kProviderName, kSilent, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: GetSlotList failed"});
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)"});
}

TEST_F(OpenProviderTest, NoSlotAtAll) {
  ExpectRefused(kProviderName, 0, NTE_FAIL, {"NTE_FAIL: No slot found"});
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)"});
}

TEST_F(OpenProviderTest, NoTokenAndSilent) {
  token().AddSlot("Reader 0", false);
  ExpectRefused(kProviderName, kSilent, NTE_FAIL, {"NTE_FAIL: No active slot was found and NCRYPT_SILENT_FLAG is set"});
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=1)",
               "C_GetSlotList(present=TRUE, list=NULL)"});
}

TEST_F(OpenProviderTest, SilentWithTwoTokensTakesTheFirst) {
  AddReader("Reader B");
  AddReader("Reader A");
  kit::DialogRobot robot;
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_EQ(robot.created(), 0u);
  ExpectLines(Lines(
      kName, kSilent,
      {"Multiple slots are detected but NCRYPT_SILENT_FLAG is set. Defaulting to first slot.",
       "Defaulted to reader: Reader B", "Caching provider instance", Hex32("Provider handle retrieved: ", handle_)},
      0));
  EXPECT_EQ(Record().slotId, 11u);
}

TEST_F(OpenProviderTest, EmptyReadersDoNotCount) {
  token().AddSlot("Empty", false);
  AddReader("Full");
  token().AddSlot("Empty too", false);
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Full");
  EXPECT_EQ(Record().slotId, 12u);
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=3)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=1)",
               "C_GetSlotInfo(slot=12)", "C_OpenSession(slot=12, flags=0x6, application=NULL, notify=NULL)"});
}

TEST_F(OpenProviderTest, OnlyTheSilentFlagIsLookedAt) {
  AddReader();
  EXPECT_EQ(Open(kProviderName, 0xFFFFFFFF), 0);
  ExpectLines(Lines(
      kName, 0xFFFFFFFF,
      {"Defaulted to reader: Reader 0", "Caching provider instance", Hex32("Provider handle retrieved: ", handle_)},
      0));
}

TEST_F(OpenProviderTest, SlotInfoThatCannotBeRead) {
  AddReader();
  token().Fail("C_GetSlotInfo", CKR_DEVICE_ERROR);
  ExpectRefused(kProviderName, kSilent, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: GetSlotInfo failed"});
}

TEST_F(OpenProviderTest, ReaderNamesLoseTrailingBlanksOnly) {
  AddReader("  A  reader   ");
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_STREQ(Record().pszReader, L"  A  reader");
}

TEST_F(OpenProviderTest, ReaderNamesLoseTrailingZeros) {
  AddReader(std::string("Zeros\0\0 \0", 9) + std::string(55, '\0'));
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_STREQ(Record().pszReader, L"Zeros");
}

TEST_F(OpenProviderTest, ReaderNamesHave32CharactersAtMost) {
  AddReader("0123456789012345678901234567890123456789");
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_STREQ(Record().pszReader, L"01234567890123456789012345678901");
}

TEST_F(OpenProviderTest, BlankReaderNameIsEmpty) {
  AddReader("");
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  EXPECT_STREQ(Record().pszReader, L"");
  ExpectLines(
      Lines(kName, kSilent,
            {"Defaulted to reader: ", "Caching provider instance", Hex32("Provider handle retrieved: ", handle_)}, 0));
}

TEST_F(OpenProviderTest, SessionThatCannotBeOpened) {
  AddReader();
  token().Fail("C_OpenSession", CKR_SESSION_COUNT);
  ExpectRefused(kProviderName, kSilent, NTE_INTERNAL_ERROR,
                {"Defaulted to reader: Reader 0", "NTE_INTERNAL_ERROR: Error in opening PKCS#11 session"});
  EXPECT_EQ(Registry::Get().TakeReads(), std::vector<std::wstring>{L"Aliases"});
}

std::multiset<std::size_t> LiveSizes(const kit::MemoryWatch& watch) {
  std::multiset<std::size_t> sizes;
  for (const auto& [address, size] : watch.Live())
    sizes.insert(size);
  return sizes;
}

TEST_F(OpenProviderTest, AFailedOpenKeepsItsRecordAndWhatTheRecordOwnsAndNothingElse) {
  AddReader();
  const std::size_t record = sizeof(kit::ProviderRecord) + sizeof kProviderName;
  const std::size_t name = 2 * sizeof kProviderName + 2;
  const std::size_t lock = sizeof(CRITICAL_SECTION);
  const std::size_t reader = 33 * sizeof(wchar_t);
  {
    token().Fail("C_OpenSession", CKR_SESSION_COUNT);
    const kit::MemoryWatch watch;
    EXPECT_EQ(Open(kProviderName, kSilent), NTE_INTERNAL_ERROR);
    EXPECT_EQ(LiveSizes(watch), (std::multiset<std::size_t>{record, name, lock, reader}));
  }
  token().SlotAt(0).tokenPresent = false;
  const kit::MemoryWatch watch;
  EXPECT_EQ(Open(kProviderName, kSilent), NTE_FAIL);
  EXPECT_EQ(LiveSizes(watch), (std::multiset<std::size_t>{record, name, lock}));
}

TEST_F(OpenProviderTest, AnOpenAndItsCloseLeaveTheLockAndTheSwitchsBuffer) {
  AddReader();
  const kit::MemoryWatch watch;
  EXPECT_EQ(Open(kProviderName, kSilent), 0);
  Close();
  EXPECT_EQ(LiveSizes(watch), (std::multiset<std::size_t>{sizeof(CRITICAL_SECTION), sizeof(DWORD)}));
}

TEST_F(OpenProviderTest, EachOpenHasASessionOfItsOwn) {
  AddReader();
  NCRYPT_PROV_HANDLE first = 0;
  NCRYPT_PROV_HANDLE second = 0;
  ASSERT_EQ(ksp().OpenProvider(&first, kProviderName, kSilent), 0);
  ASSERT_EQ(ksp().OpenProvider(&second, kProviderName, kSilent), 0);
  EXPECT_NE(first, second);
  EXPECT_NE(kit::RecordOf(first)->hSession, kit::RecordOf(second)->hSession);
  EXPECT_EQ(token().OpenSessions(), 2u);
  ksp().FreeProvider(first);
  ksp().FreeProvider(second);
  EXPECT_EQ(token().OpenSessions(), 0u);
}

TEST_F(OpenProviderTest, AnyAllocationMayFail) {
  AddReader();
  for (std::size_t nth = 1; nth < 200; ++nth) {
    kit::MemoryWatch watch;
    watch.FailAllocation(nth);
    const SECURITY_STATUS status = Open(kProviderName, kSilent);
    const bool reached = watch.Allocations() >= nth;
    watch.StopFailing();
    if (status == 0) {
      Close();
    } else {
      EXPECT_EQ(status, NTE_NO_MEMORY) << "allocation " << nth;
    }
    if (!reached) break;
    ASSERT_LT(nth, 199u);
  }
}

TEST_F(OpenProviderTest, SlotsThatChangeBetweenTheCallsDoNoHarm) {
  AddReader("Reader 0");
  // A second token appears between the count and the fetch.
  token().Before("C_GetSlotList", [&](const fake::Call& call) {
    if (call.text.find("present=TRUE, list=PTR") != std::string::npos) {
      token().Before("C_GetSlotList", nullptr);
      AddReader("Reader 1");
    }
  });
  // The module hands out no list then; what it leaves out is no slot, and the count it tells is not believed.
  const std::vector<std::string> calls{
      "C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=1)",
      "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=1)",
      "C_GetSlotInfo(slot=4294967295)"};
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: GetSlotInfo failed"});
  ExpectCalls(calls);
  // The only token goes between the count and the fetch.
  token().Reset();
  AddReader("Reader 0");
  token().Before("C_GetSlotList", [&](const fake::Call& call) {
    if (call.text.find("present=TRUE, list=PTR") != std::string::npos) token().SlotAt(0).tokenPresent = false;
  });
  ExpectRefused(kProviderName, kSilent, NTE_INTERNAL_ERROR, {"NTE_INTERNAL_ERROR: GetSlotInfo failed"});
  ExpectCalls(calls);
}

// Opens with a choice to make: the dialog lists what the smart card service lists.
class ReaderChoiceTest : public OpenProviderTest {
 protected:
  void SetUp() override {
    OpenProviderTest::SetUp();
    AddReader("Reader B");
    AddReader("Reader A");
  }
  static kit::DialogRobot::Step Choose(int index) {
    return [index](kit::Dialog& dialog) {
      dialog.Send(kit::kReaderList, CB_SETCURSEL, static_cast<WPARAM>(index));
      dialog.PressOk();
    };
  }
  static void Accept(kit::Dialog& dialog) { dialog.PressOk(); }
  // What SelectReader writes; it writes through the key-name log.
  static std::vector<Line> DialogLines(bool confirmed) {
    std::vector<Line> lines{kit::KeyName("Loading resources"), kit::KeyName("Loading Dialog"),
                            kit::KeyName("Dialog Loaded")};
    if (confirmed) {
      lines.push_back(kit::KeyName("Retrieving data"));
      lines.push_back(kit::KeyName("Data Retrieved"));
    } else {
      lines.push_back(kit::KeyName("Action was cancelled by the user"));
    }
    return lines;
  }
  std::vector<Line> Asked(bool confirmed, std::vector<Line> rest) {
    std::vector<Line> body{"Checking provider cache", "Provider not set"};
    for (Line& line : DialogLines(confirmed))
      body.push_back(std::move(line));
    for (Line& line : rest)
      body.push_back(std::move(line));
    return body;
  }

  kit::Readers readers_{{L"Reader B", L"Reader A"}};
};

TEST_F(ReaderChoiceTest, ChosenReaderIsOpened) {
  kit::DialogRobot robot({Choose(1)});  // sorted: A, B
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_EQ(robot.Finish(), 1u);
  ExpectLines(Lines(kName, 0,
                    Asked(true, {"Acquired Reader B", "Iterating through slot list", "Found slot: Reader B",
                                 "Reader name acquired. Setting active slot to Reader B", "Caching provider instance",
                                 Hex32("Provider handle retrieved: ", handle_)}),
                    0));
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=2)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=2)",
               "C_GetSlotInfo(slot=11)", "C_OpenSession(slot=11, flags=0x6, application=NULL, notify=NULL)"});
  EXPECT_EQ(readers_.established, 1);
  EXPECT_EQ(readers_.lastScope, DWORD{SCARD_SCOPE_USER});
  EXPECT_TRUE(readers_.listedRight);
  EXPECT_EQ(readers_.released, 1);
}

TEST_F(ReaderChoiceTest, PreselectedReaderIsTheAlphabeticallyFirst) {
  kit::DialogRobot robot({Accept});
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Reader A");
  EXPECT_EQ(Record().slotId, 12u);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_NE(std::find(lines.begin(), lines.end(), Line("Found slot: Reader B")), lines.end());
}

TEST_F(ReaderChoiceTest, Cancelled) {
  for (int way = 0; way < 2; ++way) {
    kit::DialogRobot robot({[way](kit::Dialog& dialog) {
      if (way == 0) dialog.PressCancel();
      if (way == 1) dialog.CloseBySystemMenu();
    }});
    ExpectRefused(kProviderName, 0, ERROR_CANCELLED, Asked(false, {"ERROR_CANCELLED: The operation was cancelled."}));
    EXPECT_EQ(robot.Finish(), 1u);
    EXPECT_EQ(token().Count("C_OpenSession"), 0u);
  }
}

TEST_F(ReaderChoiceTest, ChoiceIsAskedOnceForTwoOpensInARow) {
  kit::DialogRobot robot({Choose(1), Accept});
  ASSERT_EQ(Open(kProviderName, 0), 0);
  const NCRYPT_PROV_HANDLE first = handle_;
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Reader B");
  EXPECT_EQ(robot.Finish(), 1u);
  ksp().FreeProvider(first);
}

TEST_F(ReaderChoiceTest, ChoiceIsAskedTwiceWhenTheCacheIsSwitchedOff) {
  Registry::Get().SetDword(kit::kSdkKey, L"dwUseProviderCache", 0);
  kit::DialogRobot robot({Choose(1), Choose(0)});
  ASSERT_EQ(Open(kProviderName, 0), 0);
  const NCRYPT_PROV_HANDLE first = handle_;
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Reader A");
  EXPECT_EQ(robot.Finish(), 2u);
  ksp().FreeProvider(first);
}

TEST_F(ReaderChoiceTest, ChoiceIsAskedTwiceWhenAnotherEntryIsCalledBetween) {
  kit::DialogRobot robot({Choose(1), Choose(0)});
  ASSERT_EQ(Open(kProviderName, 0), 0);
  const NCRYPT_PROV_HANDLE first = handle_;
  DWORD length = 0;
  ksp().GetProviderProperty(first, L"Version", nullptr, 0, &length, 0);
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Reader A");
  EXPECT_EQ(robot.Finish(), 2u);
  ksp().FreeProvider(first);
}

TEST_F(ReaderChoiceTest, TrailingBlanksOfTheDescriptionDoNotCount) {
  token().SlotAt(0).description = "Reader B   ";
  kit::DialogRobot robot({Choose(1)});
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_STREQ(Record().pszReader, L"Reader B");
}

TEST_F(ReaderChoiceTest, ReaderThatIsNoSlot) {
  readers_.names = {L"Reader C", L"Reader D"};
  kit::DialogRobot robot({Accept});
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR,
                Asked(true, {"Acquired Reader C", "Iterating through slot list", "Found slot: Reader B",
                             "Found slot: Reader A", "NTE_INTERNAL_ERROR: Selected reader not found."}));
}

TEST_F(ReaderChoiceTest, NameOfMoreThan32CharactersNeverEqualsASlot) {
  const std::string name = "A reader with a name of 39 characters..";
  token().SlotAt(1).description = name;
  readers_.names = {std::wstring(name.begin(), name.end())};
  kit::DialogRobot robot({Accept});
  EXPECT_EQ(Open(kProviderName, 0), NTE_INTERNAL_ERROR);
}

TEST_F(ReaderChoiceTest, SlotInfoThatCannotBeReadInTheSearch) {
  token().Fail("C_GetSlotInfo", CKR_DEVICE_ERROR, 2);
  kit::DialogRobot robot({Accept});
  ExpectRefused(kProviderName, 0, NTE_INTERNAL_ERROR,
                Asked(true, {"Acquired Reader A", "Iterating through slot list", "Found slot: Reader B",
                             "NTE_INTERNAL_ERROR: GetSlotInfo failed"}));
}

TEST_F(ReaderChoiceTest, NoTokenAsksAndFindsTheOneInsertedMeanwhile) {
  token().SlotAt(0).tokenPresent = false;
  token().SlotAt(1).tokenPresent = false;
  kit::DialogRobot robot({[this](kit::Dialog& dialog) {
    token().SlotAt(1).tokenPresent = true;
    dialog.PressOk();
  }});
  EXPECT_EQ(Open(kProviderName, 0), 0);
  EXPECT_EQ(Record().slotId, 12u);
  ExpectLines(Lines(kName, 0,
                    Asked(true, {"Acquired Reader A", "Iterating through slot list", "Found slot: Reader A",
                                 "Reader name acquired. Setting active slot to Reader A", "Caching provider instance",
                                 Hex32("Provider handle retrieved: ", handle_)}),
                    0));
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=2)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=0)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=1)",
               "C_GetSlotInfo(slot=12)", "C_OpenSession(slot=12, flags=0x6, application=NULL, notify=NULL)"});
}

TEST_F(ReaderChoiceTest, NoTokenAfterTheChoiceEither) {
  token().SlotAt(0).tokenPresent = false;
  token().SlotAt(1).tokenPresent = false;
  kit::DialogRobot robot({Accept});
  ExpectRefused(kProviderName, 0, NTE_FAIL, Asked(true, {"Acquired Reader A", "NTE_FAIL: No active slot was found"}));
}

TEST_F(ReaderChoiceTest, FailuresOfTheServiceEndTheCallWithTheirText) {
  const auto expectFailure = [this](const std::string& text) {
    kit::DialogRobot robot;
    ExpectRefused(kProviderName, 0, NTE_FAIL,
                  {"Checking provider cache", "Provider not set", kit::KeyName("Loading resources"),
                   kit::KeyName("Loading Dialog"), kit::KeyName("Dialog Loaded"), Line(text)});
    EXPECT_EQ(robot.Finish(), 0u) << "nothing is shown";
  };
  readers_.establishResult = SCARD_E_NO_SERVICE;
  expectFailure("NTE_FAIL: SCardEstablishContext Failed: 0x8010001D");
  EXPECT_EQ(readers_.released, 0);
  readers_.establishResult = SCARD_S_SUCCESS;
  readers_.listResult = SCARD_E_NO_READERS_AVAILABLE;
  expectFailure("NTE_FAIL: SCardListReaders Failed: 0x8010002E");
  EXPECT_EQ(readers_.released, 1);
  readers_.listResult = SCARD_S_SUCCESS;
  readers_.names = {};
  expectFailure("NTE_FAIL: No cards/tokens were detected.");
  readers_.names = {L"A", L"Reader"};
  expectFailure("NTE_FAIL: No cards/tokens were detected.");
}

}  // namespace
