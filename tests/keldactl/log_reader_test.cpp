#include "keldactl/log_reader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace keldactl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Kind = LogRecord::Kind;

const std::string kBanner(66, '=');
const std::string kLoad = "\n\n" + std::string(66, '*') + " LOG START - Sat Nov 21 21:48:19 2026\n\n";

std::string Call(const std::string& body) {
  return kBanner + "\n" + body + kBanner + "\n\n\n";
}

std::vector<LogRecord> Read(const std::string& text) {
  LogReader reader;
  std::vector<LogRecord> records = reader.Feed(text);
  for (LogRecord& record : reader.Finish())
    records.push_back(std::move(record));
  return records;
}

const std::string kOpenKey = Call(
    "KELDAKSPOpenKey - Entry\n"
    "hProvider       : 0x00C80750\n"
    "phKey           : 0x0021F918\n"
    "pszKeyName      : Key1\n"
    "Key opened. Handle: 0x00CD05A0\n"
    "KELDAKSPOpenKey - Exit0x00000000\n");

TEST(LogReader, HasNothingToSayAboutNothing) {
  EXPECT_THAT(Read(""), IsEmpty());
  EXPECT_THAT(Read("\n\n\r\n"), IsEmpty());
}

TEST(LogReader, ReadsACall) {
  const auto records = Read(kOpenKey);
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].kind, Kind::kCall);
  EXPECT_EQ(records[0].title, "OpenKey");
  EXPECT_EQ(records[0].key, "Key1");
  EXPECT_EQ(records[0].status, 0u);
  EXPECT_EQ(records[0].reason, "");
  EXPECT_TRUE(records[0].finished);
  EXPECT_FALSE(records[0].Failed());
  EXPECT_THAT(records[0].lines, ElementsAre("hProvider       : 0x00C80750", "phKey           : 0x0021F918",
                                            "pszKeyName      : Key1", "Key opened. Handle: 0x00CD05A0"));
}

TEST(LogReader, ReadsLinesThatEndAsWindowsEndsThem) {
  std::string text;
  for (const char c : kOpenKey)
    text += c == '\n' ? "\r\n" : std::string(1, c);
  const auto records = Read(text);
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].key, "Key1");
  EXPECT_EQ(records[0].status, 0u);
}

TEST(LogReader, TellsALoadWithItsLines) {
  const auto records = Read(kLoad + "PKCS#11 library loaded successfully\n" + kOpenKey);
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].kind, Kind::kLoad);
  EXPECT_EQ(records[0].title, "Sat Nov 21 21:48:19 2026");
  EXPECT_THAT(records[0].lines, ElementsAre("PKCS#11 library loaded successfully"));
  EXPECT_EQ(records[1].title, "OpenKey");
}

TEST(LogReader, TakesTextInPiecesOfAnySize) {
  const std::string text = kLoad + "loaded\n" + kOpenKey + kOpenKey;
  LogReader reader;
  std::vector<std::string> titles;
  for (const char c : text) {
    for (const LogRecord& record : reader.Feed(std::string_view(&c, 1)))
      titles.push_back(record.title);
  }
  EXPECT_THAT(titles, ElementsAre("Sat Nov 21 21:48:19 2026", "OpenKey", "OpenKey"));
  EXPECT_THAT(reader.Finish(), IsEmpty());
}

TEST(LogReader, HandsACallOutAsSoonAsItsClosingBannerIsThere) {
  LogReader reader;
  const std::size_t end = kOpenKey.size() - 3;
  EXPECT_THAT(reader.Feed(kOpenKey.substr(0, end)), IsEmpty());
  EXPECT_THAT(reader.Feed(kOpenKey.substr(end, 1)), SizeIs(1));
}

TEST(LogReader, TellsWhyACallWasRefused) {
  const auto records =
      Read(Call("KELDAKSPSignHash - Entry\n"
                "hKey : 0x00000004\n"
                "NTE_FAIL: the first\n"
                "Initiating cleanup routine\n"
                "NTE_INVALID_PARAMETER: cbHashValue is wrong\n"
                "CKA_ID: 4B\n"
                "KELDAKSPSignHash - Exit: 0x80090027\n"));
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_EQ(records[0].status, 0x80090027u);
  EXPECT_EQ(records[0].reason, "NTE_INVALID_PARAMETER: cbHashValue is wrong");
  EXPECT_TRUE(records[0].Failed());
}

TEST(LogReader, TakesALineThatSpeaksOfFailureForWantOfAStatus) {
  const auto records =
      Read(Call("KELDAKSPSignHash - Entry\n"
                "Failed to get PIN from cache\n"
                "Cleanup routine success\n"
                "KELDAKSPSignHash - Exit: 0x80090020\n"));
  EXPECT_EQ(records.at(0).reason, "Failed to get PIN from cache");
}

TEST(LogReader, GivesNoReasonForSuccess) {
  const auto records =
      Read(Call("KELDAKSPSignHash - Entry\nNTE_FAIL: overcome\nKELDAKSPSignHash - Exit: 0x00000000\n"));
  EXPECT_EQ(records.at(0).reason, "");
}

TEST(LogReader, TheEndOfAListIsNoFailure) {
  const auto records = Read(Call("KELDAKSPEnumKeys - Entry\nNTE_NO_MORE_ITEMS\nKELDAKSPEnumKeys - Exit: 0x8009002A\n"));
  EXPECT_EQ(records.at(0).status, 0x8009002Au);
  EXPECT_EQ(records.at(0).reason, "NTE_NO_MORE_ITEMS");
  EXPECT_FALSE(records.at(0).Failed());
}

TEST(LogReader, KnowsTheEntryWithoutMarks) {
  const auto records = Read(Call("KELDAKSPPromptUser\nNTE_NOT_SUPPORTED: PromptUser is not supported\n"
                                 "KELDAKSPPromptUser\n") +
                            kOpenKey);
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].title, "PromptUser");
  EXPECT_FALSE(records[0].status);
  EXPECT_EQ(records[0].reason, "NTE_NOT_SUPPORTED: PromptUser is not supported");
  EXPECT_TRUE(records[0].finished);
  EXPECT_TRUE(records[0].Failed());
}

TEST(LogReader, KnowsTheExitWithoutAStatus) {
  const auto records =
      Read(Call("KELDAKSPSecretAgreement - Entry\nNTE_NOT_SUPPORTED: SecretAgreement is not supported\n"
                "KELDAKSPSecretAgreement - Exit\n"));
  EXPECT_FALSE(records.at(0).status);
  EXPECT_TRUE(records.at(0).Failed());
}

TEST(LogReader, NamesKeysByTheirHandles) {
  const std::string use = Call("KELDAKSPSignHash - Entry\nhKey : 0x00CD05A0\nKELDAKSPSignHash - Exit: 0x00000000\n");
  const std::string free =
      Call("KELDAKSPFreeKey - Entry\nhKey      : 0x00CD05A0\nKELDAKSPFreeKey - Exit: 0x00000000\n");
  const auto records = Read(use + kOpenKey + use + free + use + kOpenKey + kLoad + use);
  std::vector<std::string> keys;
  for (const LogRecord& record : records)
    keys.push_back(record.key);
  EXPECT_THAT(keys, ElementsAre("0x00CD05A0", "Key1", "Key1", "Key1", "0x00CD05A0", "Key1", "", "0x00CD05A0"));
}

TEST(LogReader, NamesANewKeyByItsHandle) {
  const auto records =
      Read(Call("KELDAKSPCreatePersistedKey - Entry\npszKeyName      : New key\nKey handle: 0x00000004\n"
                "KELDAKSPCreatePersistedKey - Exit: 0x00000000\n") +
           Call("KELDAKSPFinalizeKey - Entry\nhKey      : 0x00000004\nKELDAKSPFinalizeKey - Exit: 0x00000000\n"));
  EXPECT_EQ(records.at(0).key, "New key");
  EXPECT_EQ(records.at(1).key, "New key");
}

TEST(LogReader, TellsThatACallWasBrokenOff) {
  const auto records = Read(kBanner + "\nKELDAKSPSignHash - Entry\nhKey : 0x1\n" + kLoad + kOpenKey);
  ASSERT_THAT(records, SizeIs(3));
  EXPECT_EQ(records[0].title, "SignHash");
  EXPECT_FALSE(records[0].finished);
  EXPECT_TRUE(records[0].Failed());
  EXPECT_EQ(records[1].kind, Kind::kLoad);
  EXPECT_EQ(records[2].title, "OpenKey");
}

TEST(LogReader, TellsAnotherCallInTheMiddleOfOne) {
  const auto records = Read(kBanner + "\nKELDAKSPSignHash - Entry\nhKey : 0x1\n" + kOpenKey);
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].title, "SignHash");
  EXPECT_FALSE(records[0].finished);
  EXPECT_EQ(records[1].title, "OpenKey");
}

TEST(LogReader, ReadsALogWithoutItsBeginning) {
  const auto records =
      Read("dwFlags : 0x00000000\nKELDAKSPSignHash - Exit: 0x00000000\n" + kBanner + "\n\n\n" + kOpenKey);
  ASSERT_THAT(records, SizeIs(2));
  EXPECT_EQ(records[0].kind, Kind::kOther);
  EXPECT_EQ(records[1].title, "OpenKey");
}

TEST(LogReader, KeepsLinesOutsideOfCalls) {
  const auto records = Read(kOpenKey + "PinManager destroyed\n" + kOpenKey);
  ASSERT_THAT(records, SizeIs(3));
  EXPECT_EQ(records[1].kind, Kind::kOther);
  EXPECT_THAT(records[1].lines, ElementsAre("PinManager destroyed"));
  EXPECT_FALSE(records[1].Failed());
}

TEST(LogReader, TakesOnlyWholeBannersAndWholeStatuses) {
  const auto records =
      Read(kBanner + "\nKELDAKSPSignHash - Entry\n" + std::string(65, '=') + "\n" + kBanner + "=\n" +
           std::string(65, '*') + " LOG START - now\n" + "KELDAKSPSignHash - Exit: 0x8009002g\n" + kBanner + "\n");
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_THAT(records[0].lines, SizeIs(3));
  EXPECT_TRUE(records[0].finished);
  EXPECT_FALSE(records[0].status);
}

TEST(LogReader, AnEntryWithoutThePrefixKeepsItsName) {
  const auto records = Read(Call("GetKeyStorageInterface - Entry\nGetKeyStorageInterface - Exit: 0xC000000D\n"));
  EXPECT_EQ(records.at(0).title, "GetKeyStorageInterface");
  EXPECT_EQ(records.at(0).status, 0xC000000Du);
}

TEST(LogReader, NestedRoutinesDoNotEndTheCall) {
  const auto records =
      Read(Call("KELDAKSPEnumKeys - Entry\nInitializeObjectList - Entry\nInitializeObjectList - Exit\n"
                "KELDAKSPEnumKeys - Exit: 0x00000000\n"));
  ASSERT_THAT(records, SizeIs(1));
  EXPECT_THAT(records[0].lines, SizeIs(2));
}

}  // namespace
}  // namespace keldactl
