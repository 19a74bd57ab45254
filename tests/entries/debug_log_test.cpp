// The debug log from outside: its switch and path in the registry, the file, the debugger's lines.
#include <share.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include "kit/provider.h"

namespace {

using kit::kSdkKey;
using kit::Line;
using kit::Log;
using kit::Provider;
using kit::Registry;

const char kRetrieved[] = "Function table retrieved - Norvale Token Works KSP 4, 2, 0, 1 x86 (Release Build)";

// Loads the provider with a registry of the test's own; the default registry and log come back with the next test.
class DebugLogTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    Provider::Get().Unload();
    Log::Get().Prepare(Log::Mode::File);
    path_ = Log::Get().FilePath();
    DeleteFileW(path_.c_str());
    Forget();
  }
  void TearDown() override {
    Provider::Get().Unload();
    DeleteFileW(path_.c_str());
    kit::ProviderTest::TearDown();
  }
  bool Load() { return Provider::Get().LoadAsConfigured(); }
  bool FileExists() const { return GetFileAttributesW(path_.c_str()) != INVALID_FILE_ATTRIBUTES; }
  static std::vector<std::string> DebuggerTexts() {
    std::vector<std::string> texts;
    for (const kit::DebuggerLine& line : Log::Get().TakeDebuggerLines())
      texts.push_back(line.text);
    return texts;
  }
  static bool Holds(const std::vector<std::string>& texts, const std::string& text) {
    return std::find(texts.begin(), texts.end(), text) != texts.end();
  }
  static std::size_t Reads(const std::vector<std::wstring>& reads, const wchar_t* value) {
    return static_cast<std::size_t>(std::count(reads.begin(), reads.end(), value));
  }
  // Loads, and expects debugger lines but neither a file nor a read of the path.
  void ExpectOffBeforeThePathIsRead() {
    ASSERT_TRUE(Load());
    EXPECT_FALSE(FileExists());
    const std::vector<std::wstring> reads = Registry::Get().TakeReads();
    EXPECT_EQ(Reads(reads, L"KSPLOG"), 5u);
    EXPECT_EQ(Reads(reads, L"KSPDIR"), 0u);
    EXPECT_TRUE(Holds(DebuggerTexts(), kRetrieved));
    const std::vector<std::wstring> wide = Log::Get().TakeWideLines();
    EXPECT_EQ(std::count(wide.begin(), wide.end(), L"DebugClass ctor - Enter"), 5);
    EXPECT_EQ(std::count(wide.begin(), wide.end(), L"DebugClass ctor - Exit"), 0);
  }

  std::wstring path_;
};

TEST_F(DebugLogTest, MissingSwitchIsOff) {
  Registry::Get().Remove(kSdkKey, L"KSPLOG");
  ExpectOffBeforeThePathIsRead();
}

TEST_F(DebugLogTest, EightZerosAreOff) {
  Registry::Get().SetString(kSdkKey, L"KSPLOG", L"00000000");
  ExpectOffBeforeThePathIsRead();
}

TEST_F(DebugLogTest, SwitchOfAnotherTypeIsOff) {
  Registry::Get().Remove(kSdkKey, L"KSPLOG");
  Registry::Get().SetDword(kSdkKey, L"KSPLOG", 1);
  ExpectOffBeforeThePathIsRead();
}

TEST_F(DebugLogTest, SwitchOf16CharactersIsTooLongToBeRead) {
  Registry::Get().SetString(kSdkKey, L"KSPLOG", L"1234567890123456");
  ExpectOffBeforeThePathIsRead();
}

TEST_F(DebugLogTest, AnyOtherSwitchIsOn) {
  for (const wchar_t* text : {L"1", L"", L"0", L"0000000", L"000000000", L"00000000 ", L"123456789012345"}) {
    Registry::Get().SetString(kSdkKey, L"KSPLOG", text);
    ASSERT_TRUE(Load());
    EXPECT_TRUE(FileExists()) << "switch " << std::wstring(text).size() << " characters long";
    Provider::Get().Unload();
    DeleteFileW(path_.c_str());
  }
}

TEST_F(DebugLogTest, MissingPathIsOff) {
  Registry::Get().Remove(kSdkKey, L"KSPDIR");
  ASSERT_TRUE(Load());
  EXPECT_FALSE(FileExists());
  const std::vector<std::wstring> reads = Registry::Get().TakeReads();
  EXPECT_EQ(Reads(reads, L"KSPLOG"), 5u);
  EXPECT_EQ(Reads(reads, L"KSPDIR"), 5u);
  EXPECT_TRUE(Holds(DebuggerTexts(), kRetrieved));
  const std::vector<std::wstring> wide = Log::Get().TakeWideLines();
  EXPECT_EQ(std::count(wide.begin(), wide.end(), L"DebugClass ctor - Exit"), 0);
}

TEST_F(DebugLogTest, PathOfAnotherTypeIsOff) {
  Registry::Get().Remove(kSdkKey, L"KSPDIR");
  Registry::Get().SetBinary(kSdkKey, L"KSPDIR", REG_BINARY, {'C', 0, 0, 0});
  ASSERT_TRUE(Load());
  EXPECT_FALSE(FileExists());
}

TEST_F(DebugLogTest, PathOf2047CharactersIsReadAndALongerOneIsNot) {
  for (const bool fits : {true, false}) {
    Provider::Get().Unload();
    Log::Get().TakeWideLines();
    Registry::Get().SetString(kSdkKey, L"KSPDIR", std::wstring(fits ? 2047 : 2048, L'p'));
    ASSERT_TRUE(Load());
    // Only an instance that has its path comes to the end of its constructor, although no such file can be opened.
    const std::vector<std::wstring> wide = Log::Get().TakeWideLines();
    EXPECT_EQ(std::count(wide.begin(), wide.end(), L"DebugClass ctor - Exit"), fits ? 5 : 0);
  }
}

TEST_F(DebugLogTest, FileIsOpenedForReadingAndAppendingAroundEveryLine) {
  std::vector<std::wstring> opens;
  std::size_t closes = 0;
  const kit::Hook<"_wfsopen", decltype(&_wfsopen)> open(
      [&](auto original, const wchar_t* path, const wchar_t* mode, int share) {
        EXPECT_EQ(path, path_);
        EXPECT_EQ(share, _SH_DENYNO);
        opens.emplace_back(mode);
        return original(path, mode, share);
      });
  const kit::Hook<"fclose", decltype(&std::fclose)> close([&](auto original, std::FILE* file) {
    ++closes;
    return original(file);
  });
  ASSERT_TRUE(Load());
  EXPECT_EQ(opens.size(), 5 + DebuggerTexts().size()) << "once by each instance, and once for each line";
  EXPECT_EQ(closes, opens.size());
  for (const std::wstring& mode : opens)
    EXPECT_EQ(mode, L"a+t");
}

TEST_F(DebugLogTest, LinesEndAsThePlatformEndsThem) {
  ASSERT_TRUE(Load());
  std::ifstream file(std::filesystem::path(path_), std::ios::binary);
  const std::string raw((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const auto ends = std::count(raw.begin(), raw.end(), '\n');
  EXPECT_GT(ends, 0);
  EXPECT_EQ(std::count(raw.begin(), raw.end(), '\r'), ends);
  EXPECT_TRUE(raw.starts_with("\r\n\r\n***"));
}

TEST_F(DebugLogTest, StartLineTellsTheTimeOfTheLoad) {
  const __time64_t before = _time64(nullptr);
  ASSERT_TRUE(Load());
  const __time64_t after = _time64(nullptr);
  const std::string text = Log::Get().FileText();
  bool found = false;
  for (__time64_t time = before; time <= after; ++time)
    found = found || text.find(std::string("LOG START - ") + _ctime64(&time)) != std::string::npos;
  EXPECT_TRUE(found) << text.substr(0, 150);
}

TEST_F(DebugLogTest, FileBeginsWithOneStartLine) {
  ASSERT_TRUE(Load());
  const std::string text = Log::Get().FileText();
  // Two line ends, 66 asterisks, the time as ctime writes it with its own line end, one more line end.
  const std::regex start(
      "^\n\n\\*{66} LOG START - [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9][0-9] [0-9]{2}:[0-9]{2}:[0-9]{2} [0-9]{4}\n\n");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(text, match, start)) << text.substr(0, 200);
  EXPECT_EQ(text.find("LOG START", static_cast<std::size_t>(match.length())), std::string::npos);
}

TEST_F(DebugLogTest, FileHoldsEveryDebuggerLine) {
  ASSERT_TRUE(Load());
  std::string expected;
  for (const std::string& line : DebuggerTexts())
    expected += line + "\n";
  std::string text = Log::Get().FileText();
  const std::size_t start = text.find("LOG START");
  ASSERT_NE(start, std::string::npos);
  text = text.substr(text.find('\n', start) + 2);
  EXPECT_EQ(text, expected);
}

TEST_F(DebugLogTest, ClosingBannerLeavesTwoEmptyLinesInTheFile) {
  ASSERT_TRUE(Load());
  const std::string text = Log::Get().FileText();
  const std::string ending = std::string("0x00000000\n") + kit::kBanner + "\n\n\n";
  ASSERT_GE(text.size(), ending.size());
  EXPECT_EQ(text.substr(text.size() - ending.size()), ending);
}

TEST_F(DebugLogTest, LinesReachTheDebuggerWithoutALineEnd) {
  ASSERT_TRUE(Load());
  DebuggerTexts();
  Provider::Get().table->PromptUser(0, 0, nullptr, 0);
  EXPECT_EQ(DebuggerTexts(), (std::vector<std::string>{kit::kBanner, "KELDAKSPPromptUser",
                                                       "NTE_NOT_SUPPORTED: PromptUser is not supported",
                                                       "KELDAKSPPromptUser", kit::kClosingBanner}));
}

TEST_F(DebugLogTest, LaterLoadsAppend) {
  ASSERT_TRUE(Load());
  const std::string first = Log::Get().FileText();
  Provider::Get().Unload();
  ASSERT_TRUE(Load());
  const std::string both = Log::Get().FileText();
  EXPECT_TRUE(both.starts_with(first));
  EXPECT_NE(both.find("LOG START", first.size()), std::string::npos);
}

TEST_F(DebugLogTest, DeletedFileIsMadeAgainByTheNextLine) {
  ASSERT_TRUE(Load());
  ASSERT_TRUE(DeleteFileW(path_.c_str())) << "the file is kept open between lines";
  Provider::Get().table->PromptUser(0, 0, nullptr, 0);
  EXPECT_TRUE(Log::Get().FileText().starts_with(std::string(kit::kBanner) + "\nKELDAKSPPromptUser\n"));
}

TEST_F(DebugLogTest, SwitchIsReadAtLoadOnly) {
  ASSERT_TRUE(Load());
  Registry::Get().SetString(kSdkKey, L"KSPLOG", L"00000000");
  Registry::Get().Remove(kSdkKey, L"KSPDIR");
  Registry::Get().TakeReads();
  const std::size_t before = Log::Get().FileText().size();
  Provider::Get().table->PromptUser(0, 0, nullptr, 0);
  EXPECT_GT(Log::Get().FileText().size(), before);
  EXPECT_TRUE(Registry::Get().TakeReads().empty());
}

TEST_F(DebugLogTest, PathThatBecomesValidLaterIsWrittenTo) {
  const std::wstring folder = path_ + L".folder";
  const std::wstring file = folder + L"\\log.txt";
  Registry::Get().SetString(kSdkKey, L"KSPDIR", file);
  ASSERT_TRUE(Load());
  EXPECT_TRUE(Holds(DebuggerTexts(), kRetrieved));
  EXPECT_EQ(GetFileAttributesW(file.c_str()), INVALID_FILE_ATTRIBUTES);
  ASSERT_TRUE(CreateDirectoryW(folder.c_str(), nullptr));
  Provider::Get().table->PromptUser(0, 0, nullptr, 0);
  EXPECT_NE(GetFileAttributesW(file.c_str()), INVALID_FILE_ATTRIBUTES);
  DeleteFileW(file.c_str());
  RemoveDirectoryW(folder.c_str());
}

TEST_F(DebugLogTest, FileThatCannotBeOpenedIsPassedOverInSilence) {
  ASSERT_TRUE(Load());
  DebuggerTexts();
  const HANDLE holder = CreateFileW(path_.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(holder, INVALID_HANDLE_VALUE);
  EXPECT_EQ(Provider::Get().table->PromptUser(0, 0, nullptr, 0), NTE_NOT_SUPPORTED);
  CloseHandle(holder);
  EXPECT_EQ(DebuggerTexts().size(), 5u);
  EXPECT_EQ(Log::Get().FileText().find("PromptUser"), std::string::npos);
}

TEST_F(DebugLogTest, FileIsSharedWithOtherReadersAndWriters) {
  ASSERT_TRUE(Load());
  const HANDLE other = CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(other, INVALID_HANDLE_VALUE);
  Provider::Get().table->PromptUser(0, 0, nullptr, 0);
  CloseHandle(other);
  EXPECT_NE(Log::Get().FileText().find("PromptUser"), std::string::npos);
}

TEST_F(DebugLogTest, StartLineIsWrittenWhileOthersHaveTheFileOpen) {
  const HANDLE other = CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                   nullptr, CREATE_ALWAYS, 0, nullptr);
  ASSERT_NE(other, INVALID_HANDLE_VALUE);
  ASSERT_TRUE(Load());
  CloseHandle(other);
  EXPECT_NE(Log::Get().FileText().find("LOG START"), std::string::npos);
}

// The forms of lines with a value, seen through entries.
class LogFormTest : public kit::ProviderTest {
 protected:
  std::string NameLine(const wchar_t* name) {
    kit::FunctionTable* table = nullptr;
    Provider::Get().GetKeyStorageInterface(name, &table, 0);
    const std::vector<Line> lines = Log::Get().Take();
    return lines.size() > 2 ? lines[2].text : std::string();
  }
};

TEST_F(LogFormTest, WideTextOf511CharactersIsWritten) {
  const std::wstring name(511, L'n');
  EXPECT_EQ(NameLine(name.c_str()), "pszProviderName : " + std::string(511, 'n'));
}

TEST_F(LogFormTest, WideTextOf512CharactersLeavesTheValueEmpty) {
  const std::wstring name(512, L'n');
  EXPECT_EQ(NameLine(name.c_str()), "pszProviderName : ");
}

TEST_F(LogFormTest, WideTextOutsideTheCodePageLeavesTheValueEmpty) {
  EXPECT_EQ(NameLine(L"abc\x20AC"), "pszProviderName : ");
}

TEST_F(LogFormTest, WideTextUpTo0xFFIsWrittenByteForByte) {
  EXPECT_EQ(NameLine(L"\xE9\xFF"), "pszProviderName : \xE9\xFF");
}

TEST_F(LogFormTest, NumbersHaveEightUpperCaseDigits) {
  kit::FunctionTable* table = nullptr;
  Provider::Get().GetKeyStorageInterface(L"", &table, 0xABCDEF);
  const std::vector<Line> lines = Log::Get().Take();
  ASSERT_GT(lines.size(), 4u);
  EXPECT_EQ(lines[4].text, "dwFlags         : 0x00ABCDEF");
}

// The debugger gets each line, whatever else there is no memory for.
TEST_F(LogFormTest, LinesWithAValueNeedNoMemory) {
  kit::FunctionTable* table = nullptr;
  const std::vector<Line> expected = [&] {
    Provider::Get().GetKeyStorageInterface(kit::kProviderName, &table, 0);
    return Log::Get().Take();
  }();
  ASSERT_GT(expected.size(), 4u);
  {
    kit::MemoryWatch watch;
    watch.FailWhen([](std::size_t, std::size_t) { return true; });
    EXPECT_EQ(Provider::Get().GetKeyStorageInterface(kit::kProviderName, &table, 0), 0);
    EXPECT_EQ(watch.Allocations(), 0u);
  }
  EXPECT_EQ(table, Provider::Get().table);
  ExpectLines(expected);
}

TEST_F(LogFormTest, BytesAreCutAt500WithoutAMark) {
  AddReader();
  token().AddKeyPair(fake::Ascii("K"), "", 4096);
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const NCRYPT_KEY_HANDLE key = OpenKey(provider, L"K");
  BYTE hash[20] = {};
  BYTE signature[512];
  DWORD length = 0;
  CachePin(provider, key);
  EXPECT_EQ(ksp().SignHash(provider, key, nullptr, hash, 20, signature, sizeof signature, &length, 0), 0);
  std::string line;
  for (const Line& written : Log::Get().Take()) {
    if (written.text.starts_with("Signature\t\t: ")) line = written.text;
  }
  EXPECT_EQ(line, kit::Dump("Signature\t\t: ", std::vector<unsigned char>(signature, signature + 500)));
  EXPECT_EQ(line.size(), std::string("Signature\t\t: ").size() + 1500);
  ksp().FreeKey(provider, key);
  ksp().FreeProvider(provider);
}

}  // namespace
