// Key names by themselves: the ways that neither a key of the token nor a caller's name takes through the provider, and
// the error that a conversion leaves with the thread.
#include "token/key_names.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "diag/debug_log.h"
#include "fake_token/fake_token.h"
#include "kit/log.h"

namespace {

using fake::Ascii;
using fake::Bytes;

std::vector<std::string> g_lines;

// The provider's lines reach the debugger as 8-bit text.
LONG CALLBACK NoteLine(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD kNarrow = 0x40010006;
  const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
  if (record.ExceptionCode == kNarrow) {
    g_lines.emplace_back(static_cast<const char*>(reinterpret_cast<const void*>(record.ExceptionInformation[1])));
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

class KeyNamesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    others_ = std::exchange(g_KeyNameLog, LogPointer::Create(0, 0));
    handler_ = AddVectoredExceptionHandler(1, &NoteLine);
    g_lines.clear();
  }
  void TearDown() override {
    RemoveVectoredExceptionHandler(handler_);
    g_KeyNameLog.Destroy();
    g_KeyNameLog = others_;
  }
  // The lines of one call: googletest talks to the debugger as well.
  SECURITY_STATUS NameOf(const Bytes* id, const Bytes* label, DWORD cbId, DWORD cbLabel) {
    g_lines.clear();
    const SECURITY_STATUS status =
        KeyNameFromAttributes(id ? id->data() : nullptr, cbId, label ? label->data() : nullptr, cbLabel, name_);
    lines_ = g_lines;
    return status;
  }
  std::wstring Name() const { return name_.empty() ? L"(none)" : name_.data(); }

  WideName name_;
  std::vector<std::string> lines_;

 private:
  LogPointer others_;
  void* handler_ = nullptr;
};

TEST_F(KeyNamesTest, WithoutAnIdentifierTheLabelIsTheName) {
  const Bytes label = {'L', 0xE4, 'b'};
  EXPECT_EQ(NameOf(nullptr, &label, 0, 3), ERROR_SUCCESS);
  EXPECT_EQ(Name(), L"L\xE4\x62");
  EXPECT_EQ(name_.size(), 4u);
  EXPECT_EQ(lines_, (std::vector<std::string>{"CKA_ID is not found. Checking label...",
                                              "Converting CKA_LABEL to widestring key name", "Done"}));
  // A length without an identifier is none; the label's own length counts, and it ends at its first zero byte.
  EXPECT_EQ(NameOf(nullptr, &label, 7, 2), ERROR_SUCCESS);
  EXPECT_EQ(Name(), L"L\xE4");
  const Bytes cut = {'a', 0, 'b'};
  EXPECT_EQ(NameOf(nullptr, &cut, 0, 3), ERROR_SUCCESS);
  EXPECT_EQ(Name(), L"a");
  EXPECT_EQ(NameOf(nullptr, &label, 0, 0), ERROR_SUCCESS) << "an empty label is a label";
  EXPECT_EQ(Name(), L"");
}

TEST_F(KeyNamesTest, WithoutIdentifierAndLabelThereIsNoName) {
  EXPECT_EQ(NameOf(nullptr, nullptr, 4, 4), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Name(), L"(none)");
  EXPECT_EQ(lines_, (std::vector<std::string>{
                        "CKA_ID is not found. Checking label...",
                        "NTE_INVALID_PARAMETER: CKA_ID and label is not provided. Impossible to create valid key "
                        "name."}));
}

TEST_F(KeyNamesTest, IdentifierWinsOverTheLabelEvenWhenItGivesNoName) {
  const Bytes label = Ascii("label");
  const Bytes id = {0x4B, 0x65, 0x00, 0x31};
  EXPECT_EQ(NameOf(&id, &label, 4, 5), ERROR_SUCCESS);
  EXPECT_EQ(Name(), L"Ke");
  EXPECT_EQ(lines_, (std::vector<std::string>{"Converting CKA_ID to key name...", kit::Dump("CKA_ID: ", id),
                                              "KeyName: Ke", "Done"}));
  EXPECT_EQ(NameOf(&id, &label, 1, 5), ERROR_SUCCESS);
  EXPECT_EQ(Name(), L"K") << "no more bytes than are said";
  name_ = WideName();
  EXPECT_EQ(NameOf(&id, &label, 0, 5), NTE_INVALID_PARAMETER);
  EXPECT_EQ(Name(), L"(none)");
  EXPECT_EQ(lines_,
            (std::vector<std::string>{"NTE_INVALID_PARAMETER: non-null CKA_ID with zero-length buffer was provided."}));
}

TEST_F(KeyNamesTest, ConversionThatFailsLeavesAnErrorWithTheThread) {
  for (const wchar_t* text : {L"4", L"4B6", L"G4", L"4BG4",
                              L"\x0141"
                              L"1"}) {
    HexNameForm form(text);
    for (int time = 0; time < 2; ++time) {
      SetLastError(ERROR_SUCCESS);
      EXPECT_STREQ(form.Get(), L"") << text;
      EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_INVALID_PARAMETER)) << text << ", time " << time;
    }
  }
}

TEST_F(KeyNamesTest, ConversionThatSucceedsLeavesTheThreadsErrorAlone) {
  const struct {
    const wchar_t* text;
    const wchar_t* name;
  } cases[] = {{L"", L""}, {L"4B65", L"Ke"}, {L"00", L""}, {L"4G", L"\x04"}, {nullptr, L""}};
  for (const auto& one : cases) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    EXPECT_STREQ(HexNameForm(one.text).Get(), one.name);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  }
}

TEST_F(KeyNamesTest, StoredNameDecidesHowMuchIsCompared) {
  EXPECT_TRUE(KeyNameMatches(L"ABC", L"abc"));
  EXPECT_TRUE(KeyNameMatches(L"ABCD", L"abc"));
  EXPECT_FALSE(KeyNameMatches(L"AB", L"abc"));
  EXPECT_FALSE(KeyNameMatches(L"xbc", L"abc"));
  EXPECT_TRUE(KeyNameMatches(L"anything", L""));
  EXPECT_TRUE(KeyNameMatches(L"", L""));
  // An entry without a name is no entry of an empty one.
  EXPECT_FALSE(KeyNameMatches(L"anything", nullptr));
  EXPECT_FALSE(KeyNameMatches(nullptr, L""));
}

}  // namespace
