// The log's classes by themselves: which instance a line goes through, and the forms that entries seldom write.
#include "diag/debug_log.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "inside/process_objects.h"
#include "kit/registry.h"

namespace {

// A value that comes back when the test is over.
template <typename Value>
class Replaced {
 public:
  Replaced(Value& place, Value value) : place_(place), before_(std::exchange(place, value)) {}
  ~Replaced() { place_ = before_; }
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;

 private:
  Value& place_;
  Value before_;
};

// An instance that writes to a file of its own.
class OwnLog {
 public:
  explicit OwnLog(const std::wstring& name, std::int32_t writeStartLine = 0)
      : path_(std::filesystem::temp_directory_path() /
              (L"kelda_" + std::to_wstring(GetCurrentProcessId()) + L"_" + name)) {
    kit::Registry::Get().SetString(kSettingsKey, L"KSPLOG", L"1");
    kit::Registry::Get().SetString(kSettingsKey, L"KSPDIR", path_.wstring());
    log = LogPointer::Create(-1, writeStartLine);
    kit::Registry::Get().RemoveKey(kSettingsKey);
  }
  ~OwnLog() {
    log.Destroy();
    std::filesystem::remove(path_);
  }
  OwnLog(const OwnLog&) = delete;
  OwnLog& operator=(const OwnLog&) = delete;

  std::string Text() const {
    std::ifstream file(path_);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

  LogPointer log;

 private:
  std::filesystem::path path_;
};

class DebugClassTest : public InsideTest {};

// WriteHex32Main and WriteInt have fixed targets; that is kept.
TEST_F(DebugClassTest, EveryLineHasItsInstance) {
  const OwnLog own(L"own");
  const OwnLog main(L"main");
  const OwnLog keyName(L"key-name");
  const Replaced replacedMain(g_Log, main.log);
  const Replaced replacedKeyName(g_KeyNameLog, keyName.log);
  own.log->WriteLine("line");
  own.log->WriteHex32("hex: ", 0xAB);
  own.log->WriteHex32Main("main: ", 0xCD);
  own.log->WriteInt("int: ", -12);
  own.log->WriteBytes("bytes: ", "\x01\xFE", 2);
  own.log->WriteWide("wide: ", L"text");
  EXPECT_EQ(own.Text(), "line\nhex: 0x000000AB\nbytes: 01 FE \nwide: text\n");
  EXPECT_EQ(main.Text(), "main: 0x000000CD\n");
  EXPECT_EQ(keyName.Text(), "int: -12\n");
  g_Log->WriteInt("int: ", 7);
  g_KeyNameLog->WriteHex32Main("main: ", 7);
  EXPECT_EQ(main.Text(), "main: 0x000000CD\nmain: 0x00000007\n");
  EXPECT_EQ(keyName.Text(), "int: -12\nint: 7\n");
}

TEST_F(DebugClassTest, AMissingInstanceWritesNothingButWhatHasItsTargetElsewhere) {
  const OwnLog main(L"main");
  const OwnLog keyName(L"key-name");
  const Replaced replacedMain(g_Log, main.log);
  const Replaced replacedKeyName(g_KeyNameLog, keyName.log);
  const LogPointer missing;
  EXPECT_FALSE(missing);
  TakeLines();
  missing->WriteLine("line");
  missing->WriteHex32("hex: ", 1);
  missing->WriteBytes("bytes: ", "a", 1);
  missing->WriteWide("wide: ", L"text");
  EXPECT_TRUE(TakeLines().empty());
  missing->WriteHex32Main("main: ", 1);
  missing->WriteInt("int: ", 1);
  EXPECT_EQ(main.Text(), "main: 0x00000001\n");
  EXPECT_EQ(keyName.Text(), "int: 1\n");
  TakeLines();
  const Replaced noMain(g_Log, LogPointer());
  const Replaced noKeyName(g_KeyNameLog, LogPointer());
  main.log->WriteHex32Main("main: ", 2);
  main.log->WriteInt("int: ", 2);
  EXPECT_TRUE(TakeLines().empty());
}

TEST_F(DebugClassTest, SixHundredBytesAreDumpedAsFiveHundred) {
  const OwnLog own(L"own");
  const std::vector<unsigned char> bytes(600, 0xA5);
  TakeLines();
  own.log->WriteBytes("label", bytes.data(), bytes.size());
  own.log->WriteBytes("label", bytes.data(), 0);
  own.log->WriteBytes("label", nullptr, 600);
  std::string dump;
  for (int i = 0; i < 500; ++i)
    dump += "A5 ";
  EXPECT_EQ(TakeLines(), (std::vector<std::string>{"label" + dump, "labelNULL", "labelNULL"}));
}

TEST_F(DebugClassTest, LinesOfAnyLengthComeWhole) {
  const OwnLog own(L"own");
  const std::string label(100000, 'l');
  TakeLines();
  own.log->WriteLine(label.c_str());
  own.log->WriteHex32(label.c_str(), 0x12);
  own.log->WriteWide("", std::wstring(511, L'w').c_str());
  own.log->WriteWide("none", nullptr);
  own.log->WriteLine("");
  EXPECT_EQ(own.Text(), label + "\n" + label + "0x00000012\n" + std::string(511, 'w') + "\nnone\n\n");
}

// ... unless there is no memory for one that is longer than any: the value comes whole then, behind as much as fits.
TEST_F(DebugClassTest, ALineWithoutMemoryKeepsItsValue) {
  const OwnLog own(L"own");
  {
    const FailedAllocation failed(1);
    own.log->WriteHex32(std::string(100000, 'l').c_str(), 0x12);
  }
  const std::string text = own.Text();
  EXPECT_TRUE(text.ends_with("l0x00000012\n")) << text;
  EXPECT_TRUE(text.starts_with(std::string(1000, 'l')));
}

TEST_F(DebugClassTest, AnyFlagButZeroAsksForTheStartLine) {
  EXPECT_EQ(OwnLog(L"without", 0).Text(), "");
  const std::string start = "\n\n" + std::string(66, '*') + " LOG START - ";
  for (const std::int32_t flag : {1, 2, -1})
    EXPECT_TRUE(OwnLog(L"with", flag).Text().starts_with(start)) << flag;
}

TEST_F(DebugClassTest, ADestroyedInstanceIsAMissingOne) {
  OwnLog own(L"own");
  EXPECT_TRUE(own.log);
  own.log.Destroy();
  EXPECT_FALSE(own.log);
  TakeLines();
  own.log->WriteLine("line");
  EXPECT_TRUE(TakeLines().empty());
}

}  // namespace
