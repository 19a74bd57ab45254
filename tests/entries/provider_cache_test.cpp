// The provider cache: which open reuses the reader of the one before, and which entries make it forgotten.
#include <algorithm>
#include <stdexcept>
#include <string>

#include "kit/dialogs.h"
#include "kit/provider.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::kProviderName;
using kit::kSdkKey;
using kit::Line;
using kit::Pointer32;
using kit::Registry;

class ProviderCacheTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    AddReader("Reader A");
    AddReader("Reader B");
  }
  // Opens with a choice to make; the dialog, should it come, is cancelled.
  SECURITY_STATUS OpenWithChoice(NCRYPT_PROV_HANDLE& handle) {
    kit::DialogRobot robot;
    handle = 0;
    const SECURITY_STATUS status = ksp().OpenProvider(&handle, kProviderName, 0);
    robot.Finish();
    return status;
  }
  // Throws, and so fails the test, for the handle of a failed open.
  static const kit::ProviderRecord& Record(NCRYPT_PROV_HANDLE handle) {
    if (handle == 0) throw std::runtime_error("no provider is open");
    return *kit::RecordOf(handle);
  }
  bool SecondOpenReuses() {
    NCRYPT_PROV_HANDLE second = 0;
    Forget();
    OpenWithChoice(second);
    const std::vector<Line> lines = kit::Log::Get().Take();
    if (second) ksp().FreeProvider(second);
    return std::count(lines.begin(), lines.end(), Line("Provider set")) == 1;
  }
};

TEST_F(ProviderCacheTest, NextOpenReusesTheReader) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), 0);
  ExpectLines(
      Frame("KELDAKSPOpenProvider",
            {Pointer32("phProvider       : ", &second), "pszProviderName  : Norvale Token Works KSP v1.0",
             "dwFlags          : 0x00000000", "Checking provider cache", "Provider set", "Iterating through slot list",
             "Found slot: Reader A", "Reader name acquired. Setting active slot to Reader A",
             "Caching provider instance", Hex32("Provider handle retrieved: ", second)},
            0));
  ExpectCalls({"C_GetSlotList(present=FALSE, list=NULL)", "C_GetSlotList(present=FALSE, list=PTR, count=2)",
               "C_GetSlotList(present=TRUE, list=NULL)", "C_GetSlotList(present=TRUE, list=PTR, count=2)",
               "C_GetSlotInfo(slot=11)", "C_OpenSession(slot=11, flags=0x6, application=NULL, notify=NULL)"});
  EXPECT_STREQ(Record(second).pszReader, L"Reader A");
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, CachedReaderIsFoundBehindOtherSlots) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  std::swap(token().SlotAt(0).description, token().SlotAt(1).description);
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), 0);
  EXPECT_EQ(Record(second).slotId, 12u);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("Found slot: Reader B")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("Found slot: Reader A")), 1);
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, CachedReaderThatIsGone) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  token().SlotAt(0).description = "Reader C";
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), NTE_INTERNAL_ERROR);
  ExpectLines(
      Frame("KELDAKSPOpenProvider",
            {Pointer32("phProvider       : ", &second), "pszProviderName  : Norvale Token Works KSP v1.0",
             "dwFlags          : 0x00000000", "Checking provider cache", "Provider set", "Iterating through slot list",
             "Found slot: Reader C", "Found slot: Reader B", "NTE_INTERNAL_ERROR: Selected reader not found."},
            NTE_INTERNAL_ERROR));
  EXPECT_EQ(second, 0u);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, SlotInfoThatCannotBeReadEndsTheSearch) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  token().Fail("C_GetSlotInfo", CKR_DEVICE_ERROR);
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), NTE_INTERNAL_ERROR);
  const std::vector<Line> lines = kit::Log::Get().Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), Line("NTE_INTERNAL_ERROR: GetSlotInfo failed")), 1);
  EXPECT_EQ(token().Count("C_GetSlotInfo"), 1u);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, NoTokenAtAllAsksAgainAfterTheChoice) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  token().SlotAt(0).tokenPresent = false;
  token().SlotAt(1).tokenPresent = false;
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), NTE_FAIL);
  ExpectLines(Frame("KELDAKSPOpenProvider",
                    {Pointer32("phProvider       : ", &second), "pszProviderName  : Norvale Token Works KSP v1.0",
                     "dwFlags          : 0x00000000", "Checking provider cache", "Provider set",
                     "NTE_FAIL: No active slot was found"},
                    NTE_FAIL));
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, TokenInsertedMeanwhileIsFound) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  token().SlotAt(0).tokenPresent = false;
  token().SlotAt(1).tokenPresent = false;
  token().SlotAt(1).description = "Reader A";  // the remembered reader, now the second slot
  std::size_t counts = 0;
  token().Before("C_GetSlotList", [&](const fake::Call& call) {
    // The third count of present tokens is the one after the choice.
    if (call.text == "C_GetSlotList(present=TRUE, list=NULL)" && ++counts == 2) token().SlotAt(1).tokenPresent = true;
  });
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), 0);
  EXPECT_EQ(Record(second).slotId, 12u);
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, WithoutChoiceTheCacheIsNotAsked) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  token().SlotAt(0).tokenPresent = false;
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), 0);
  EXPECT_STREQ(Record(second).pszReader, L"Reader B");
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, SecondReuseFollowsTheFirst) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  NCRYPT_PROV_HANDLE second = 0;
  NCRYPT_PROV_HANDLE third = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, 0), 0);
  EXPECT_EQ(ksp().OpenProvider(&third, kProviderName, 0), 0);
  EXPECT_STREQ(Record(third).pszReader, L"Reader A");
  ksp().FreeProvider(third);
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, FailedOpenLeavesTheFlag) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  NCRYPT_PROV_HANDLE none = 0;
  EXPECT_EQ(ksp().OpenProvider(&none, nullptr, 0), NTE_INVALID_PARAMETER);
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, IsEmptyAfterTheLoad) {
  ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Tagged));
  EXPECT_FALSE(SecondOpenReuses());
}

TEST_F(ProviderCacheTest, TheEntryThatHandsOutTheTableLeavesTheFlag) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  kit::FunctionTable* table = nullptr;
  EXPECT_EQ(kit::Provider::Get().GetKeyStorageInterface(kProviderName, &table, 0), 0);
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, ACancelledChoiceLeavesItEmpty) {
  NCRYPT_PROV_HANDLE none = 0;
  EXPECT_NE(OpenWithChoice(none), 0);
  EXPECT_FALSE(SecondOpenReuses());
}

TEST_F(ProviderCacheTest, WithoutMemoryForTheSwitchItIsOn) {
  Registry::Get().SetDword(kSdkKey, L"dwUseProviderCache", 0);
  NCRYPT_PROV_HANDLE first = 0;
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t size, std::size_t) { return size == sizeof(DWORD); });
    EXPECT_EQ(ksp().OpenProvider(&first, kProviderName, NCRYPT_SILENT_FLAG), 0);
  }
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, RegistrySwitchesItOff) {
  for (const DWORD value : {DWORD{0}, DWORD{256}, DWORD{0xFFFFFF00}}) {
    Registry::Get().SetDword(kSdkKey, L"dwUseProviderCache", value);
    const NCRYPT_PROV_HANDLE first = OpenProvider();
    EXPECT_FALSE(SecondOpenReuses()) << value;
    ksp().FreeProvider(first);
  }
}

TEST_F(ProviderCacheTest, AnyOtherValueLeavesItOn) {
  for (const DWORD value : {DWORD{1}, DWORD{255}, DWORD{257}, DWORD{0x80000001}}) {
    Registry::Get().SetDword(kSdkKey, L"dwUseProviderCache", value);
    const NCRYPT_PROV_HANDLE first = OpenProvider();
    EXPECT_TRUE(SecondOpenReuses()) << value;
    ksp().FreeProvider(first);
  }
}

TEST_F(ProviderCacheTest, MissingKeyLeavesItOn) {
  Registry::Get().RemoveKey(kSdkKey);
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, ValueOfAnotherTypeIsJudgedByItsFirstByte) {
  Registry::Get().SetString(kSdkKey, L"dwUseProviderCache", L"0");  // first byte 0x30
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
  Registry::Get().SetBinary(kSdkKey, L"dwUseProviderCache", REG_BINARY, {0});
  const NCRYPT_PROV_HANDLE third = OpenProvider();
  EXPECT_FALSE(SecondOpenReuses());
  ksp().FreeProvider(third);
}

TEST_F(ProviderCacheTest, ValueLongerThanANumberIsNotRead) {
  Registry::Get().SetBinary(kSdkKey, L"dwUseProviderCache", REG_BINARY, {0, 0, 0, 0, 0});
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

TEST_F(ProviderCacheTest, OpenWhileSwitchedOffLeavesTheFlag) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  Registry::Get().SetDword(kSdkKey, L"dwUseProviderCache", 0);
  NCRYPT_PROV_HANDLE second = 0;
  EXPECT_EQ(ksp().OpenProvider(&second, kProviderName, NCRYPT_SILENT_FLAG), 0);
  EXPECT_TRUE(SecondOpenReuses());
  ksp().FreeProvider(second);
  ksp().FreeProvider(first);
}

// Each entry that forgets does so before any of its checks can fail.
struct EntryCall {
  const char* name;
  void (*call)(const kit::FunctionTable&);
};

const EntryCall kForgetting[] = {
    {"OpenKey", [](const kit::FunctionTable& t) { t.OpenKey(0, nullptr, nullptr, 0, 0); }},
    {"CreatePersistedKey",
     [](const kit::FunctionTable& t) { t.CreatePersistedKey(0, nullptr, nullptr, nullptr, 0, 0); }},
    {"GetProviderProperty",
     [](const kit::FunctionTable& t) { t.GetProviderProperty(0, nullptr, nullptr, 0, nullptr, 0); }},
    {"GetKeyProperty", [](const kit::FunctionTable& t) { t.GetKeyProperty(0, 0, nullptr, nullptr, 0, nullptr, 0); }},
    {"SetProviderProperty", [](const kit::FunctionTable& t) { t.SetProviderProperty(0, nullptr, nullptr, 0, 0); }},
    {"SetKeyProperty", [](const kit::FunctionTable& t) { t.SetKeyProperty(0, 0, nullptr, nullptr, 0, 0); }},
    {"FinalizeKey", [](const kit::FunctionTable& t) { t.FinalizeKey(0, 0, 0); }},
    {"DeleteKey", [](const kit::FunctionTable& t) { t.DeleteKey(0, 0, 0); }},
    {"FreeProvider", [](const kit::FunctionTable& t) { t.FreeProvider(0); }},
    {"FreeKey", [](const kit::FunctionTable& t) { t.FreeKey(0, 0); }},
    {"FreeBuffer", [](const kit::FunctionTable& t) { t.FreeBuffer(nullptr); }},
    {"Encrypt", [](const kit::FunctionTable& t) { t.Encrypt(0, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0); }},
    {"Decrypt", [](const kit::FunctionTable& t) { t.Decrypt(0, 0, nullptr, 0, nullptr, nullptr, 0, nullptr, 0); }},
    {"IsAlgSupported", [](const kit::FunctionTable& t) { t.IsAlgSupported(0, nullptr, 0); }},
    {"EnumAlgorithms", [](const kit::FunctionTable& t) { t.EnumAlgorithms(0, 0, nullptr, nullptr, 0); }},
    {"EnumKeys", [](const kit::FunctionTable& t) { t.EnumKeys(0, nullptr, nullptr, nullptr, 0); }},
    {"ImportKey", [](const kit::FunctionTable& t) { t.ImportKey(0, 0, nullptr, nullptr, nullptr, nullptr, 0, 0); }},
    {"ExportKey", [](const kit::FunctionTable& t) { t.ExportKey(0, 0, 0, nullptr, nullptr, nullptr, 0, nullptr, 0); }},
    {"SignHash", [](const kit::FunctionTable& t) { t.SignHash(0, 0, nullptr, nullptr, 0, nullptr, 0, nullptr, 0); }},
    {"VerifySignature",
     [](const kit::FunctionTable& t) { t.VerifySignature(0, 0, nullptr, nullptr, 0, nullptr, 0, 0); }}};

void PrintTo(const EntryCall& entry, std::ostream* out) {
  *out << entry.name;
}

class ForgettingEntries : public ProviderCacheTest, public ::testing::WithParamInterface<EntryCall> {};

TEST_P(ForgettingEntries, ForgetTheReaderEvenWhenTheyFail) {
  const NCRYPT_PROV_HANDLE first = OpenProvider();
  GetParam().call(ksp());
  EXPECT_FALSE(SecondOpenReuses());
  ksp().FreeProvider(first);
}

INSTANTIATE_TEST_SUITE_P(All, ForgettingEntries, ::testing::ValuesIn(kForgetting),
                         [](const ::testing::TestParamInfo<EntryCall>& given) {
                           return std::string(given.param.name);
                         });

}  // namespace
