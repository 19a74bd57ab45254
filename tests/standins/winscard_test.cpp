// The stand-in smart card service from outside: the readers of the reader file, in every form callers ask for.

#include <gtest/gtest.h>
#include <windows.h>

#include <winscard.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "standins/replace_reader_file.h"

namespace {

std::wstring ProgramFolder() {
  std::wstring path(MAX_PATH, L'\0');
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return path.substr(0, path.rfind(L'\\'));
}

// A copy under a name of its own, so that the platform's DLL stays out of it.
HMODULE Service() {
  static const HMODULE service = LoadLibraryW((ProgramFolder() + L"\\standin_winscard.dll").c_str());
  return service;
}

template <typename Function>
Function* Resolve(const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(Service(), name)));
}

#define SCARD(name) Resolve<decltype(name)>(#name)

template <typename Char>
std::vector<std::basic_string<Char>> Split(const Char* text) {
  std::vector<std::basic_string<Char>> names;
  for (; *text != 0; text += names.back().size() + 1)
    names.emplace_back(text);
  return names;
}

class WinscardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { ASSERT_NE(Service(), nullptr) << GetLastError(); }

  void SetUp() override {
    std::array<char, MAX_PATH> folder{};
    ASSERT_NE(GetTempPathA(static_cast<DWORD>(folder.size()), folder.data()), 0u);
    path_ = std::string(folder.data()) + "readers-" + std::to_string(GetCurrentProcessId());
    SetEnvironmentVariableA("KELDA_READERS", path_.c_str());
    Write("Reader B = token\n# nothing\nReader A =\n");
    ASSERT_EQ(SCARD(SCardEstablishContext)(SCARD_SCOPE_USER, nullptr, nullptr, &context_), SCARD_S_SUCCESS);
  }

  void TearDown() override {
    SCARD(SCardReleaseContext)(context_);
    SetEnvironmentVariableA("KELDA_READERS", nullptr);
    DeleteFileA(path_.c_str());
  }

  void Write(const std::string& text) const { ASSERT_TRUE(standins::ReplaceReaderFile(path_, text)) << GetLastError(); }

  std::vector<std::wstring> List() const {
    wchar_t* names = nullptr;
    DWORD count = SCARD_AUTOALLOCATE;
    EXPECT_EQ(SCARD(SCardListReadersW)(context_, nullptr, reinterpret_cast<LPWSTR>(&names), &count), SCARD_S_SUCCESS);
    if (names == nullptr) return {};
    auto list = Split(names);
    EXPECT_EQ(SCARD(SCardFreeMemory)(context_, names), SCARD_S_SUCCESS);
    EXPECT_EQ(SCARD(SCardFreeMemory)(context_, names), SCARD_E_INVALID_PARAMETER);
    return list;
  }

  std::string path_;
  SCARDCONTEXT context_ = 0;
};

TEST_F(WinscardTest, KnowsItsContexts) {
  EXPECT_EQ(SCARD(SCardIsValidContext)(context_), SCARD_S_SUCCESS);
  EXPECT_EQ(SCARD(SCardIsValidContext)(context_ + 1), SCARD_E_INVALID_HANDLE);
  EXPECT_EQ(SCARD(SCardEstablishContext)(SCARD_SCOPE_USER, nullptr, nullptr, nullptr), SCARD_E_INVALID_PARAMETER);
  EXPECT_EQ(SCARD(SCardEstablishContext)(99, nullptr, nullptr, &context_), SCARD_E_INVALID_VALUE);
  SCARDCONTEXT other = 0;
  ASSERT_EQ(SCARD(SCardEstablishContext)(SCARD_SCOPE_SYSTEM, nullptr, nullptr, &other), SCARD_S_SUCCESS);
  EXPECT_NE(other, context_);
  EXPECT_EQ(SCARD(SCardReleaseContext)(other), SCARD_S_SUCCESS);
  EXPECT_EQ(SCARD(SCardReleaseContext)(other), SCARD_E_INVALID_HANDLE);
  DWORD count = 0;
  EXPECT_EQ(SCARD(SCardListReadersW)(other, nullptr, nullptr, &count), SCARD_E_INVALID_HANDLE);
}

TEST_F(WinscardTest, ListsReadersInTheirOrderInEveryForm) {
  EXPECT_EQ(List(), (std::vector<std::wstring>{L"Reader B", L"Reader A"}));
  const auto list = SCARD(SCardListReadersW);
  DWORD count = 0;
  ASSERT_EQ(list(context_, nullptr, nullptr, &count), SCARD_S_SUCCESS);
  EXPECT_EQ(count, 19u);
  std::array<wchar_t, 19> wide{};
  count = 18;
  EXPECT_EQ(list(context_, nullptr, wide.data(), &count), SCARD_E_INSUFFICIENT_BUFFER);
  EXPECT_EQ(count, 19u);
  EXPECT_EQ(wide[0], L'\0');
  ASSERT_EQ(list(context_, L"SCard$AllReaders\0", wide.data(), &count), SCARD_S_SUCCESS);
  EXPECT_EQ(Split(wide.data()).size(), 2u);
  EXPECT_EQ(list(context_, L"Another group\0", wide.data(), &count), SCARD_E_NO_READERS_AVAILABLE);
  EXPECT_EQ(list(context_, nullptr, wide.data(), nullptr), SCARD_E_INVALID_PARAMETER);
  ASSERT_EQ(list(0, nullptr, nullptr, &count), SCARD_S_SUCCESS);

  std::array<char, 19> narrow{};
  count = 19;
  ASSERT_EQ(SCARD(SCardListReadersA)(context_, "SCard$DefaultReaders\0", narrow.data(), &count), SCARD_S_SUCCESS);
  EXPECT_EQ(Split(narrow.data()), (std::vector<std::string>{"Reader B", "Reader A"}));
}

TEST_F(WinscardTest, ReadersComeAndGo) {
  Write("Reader C\n");
  EXPECT_EQ(List(), std::vector<std::wstring>{L"Reader C"});
  Write("\xC3\x84rger = x\r\n");
  EXPECT_EQ(List(), std::vector<std::wstring>{L"\u00C4rger"});
  Write("");
  DWORD count = 0;
  EXPECT_EQ(SCARD(SCardListReadersW)(context_, nullptr, nullptr, &count), SCARD_E_NO_READERS_AVAILABLE);
  DeleteFileA(path_.c_str());
  EXPECT_EQ(SCARD(SCardListReadersW)(context_, nullptr, nullptr, &count), SCARD_E_NO_READERS_AVAILABLE);
}

TEST_F(WinscardTest, FailsWhenToldTo) {
  Write("!establish 8010001D\nReader A\n");
  SCARDCONTEXT other = 0;
  EXPECT_EQ(SCARD(SCardEstablishContext)(SCARD_SCOPE_USER, nullptr, nullptr, &other), SCARD_E_NO_SERVICE);
  Write("!list 80100011\nReader A\n");
  DWORD count = 0;
  EXPECT_EQ(SCARD(SCardListReadersW)(context_, nullptr, nullptr, &count), SCARD_E_INVALID_VALUE);
  Write("!list empty\nReader A\n");
  EXPECT_TRUE(List().empty());
  ASSERT_EQ(SCARD(SCardListReadersW)(context_, nullptr, nullptr, &count), SCARD_S_SUCCESS);
  EXPECT_EQ(count, 1u);
}

TEST_F(WinscardTest, TellsChanges) {
  std::array<SCARD_READERSTATEW, 3> states{};
  states[0].szReader = L"Reader A";
  states[1].szReader = L"Reader B";
  states[2].szReader = L"Reader C";
  const auto change = SCARD(SCardGetStatusChangeW);
  ASSERT_EQ(change(context_, 0, states.data(), 3), SCARD_S_SUCCESS);
  EXPECT_EQ(states[0].dwEventState, DWORD{SCARD_STATE_EMPTY | SCARD_STATE_CHANGED});
  EXPECT_EQ(states[1].dwEventState, DWORD{SCARD_STATE_PRESENT | SCARD_STATE_CHANGED});
  EXPECT_EQ(states[2].dwEventState, DWORD{SCARD_STATE_UNKNOWN | SCARD_STATE_CHANGED});
  for (auto& state : states)
    state.dwCurrentState = state.dwEventState;
  EXPECT_EQ(change(context_, 0, states.data(), 3), SCARD_E_TIMEOUT);
  EXPECT_EQ(change(context_ + 1, 0, states.data(), 3), SCARD_E_INVALID_HANDLE);

  // A token that is inserted ends the wait for it.
  std::thread waiting([&] { EXPECT_EQ(change(context_, 60000, states.data(), 3), SCARD_S_SUCCESS); });
  Write("Reader B = token\nReader A = other\n");
  waiting.join();
  EXPECT_EQ(states[0].dwEventState, DWORD{SCARD_STATE_PRESENT | SCARD_STATE_CHANGED});
}

}  // namespace
