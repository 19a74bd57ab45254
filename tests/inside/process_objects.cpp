#include "inside/process_objects.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>

#include "kit/imports.h"
#include "kit/provider.h"
#include "support/module_handle.h"

namespace {

std::mutex g_linesLock;
std::vector<std::string> g_lines;

// How many more of this thread's allocations that may fail succeed, the failing one counted; 0: all succeed.
thread_local std::size_t t_failing = 0;

bool Fails() noexcept {
  return t_failing != 0 && --t_failing == 0;
}

LONG CALLBACK OnException(EXCEPTION_POINTERS* pointers) {
  constexpr DWORD kDebuggerNarrow = 0x40010006;
  const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
  if (record->ExceptionCode != kDebuggerNarrow || record->NumberParameters < 2) return EXCEPTION_CONTINUE_SEARCH;
  const std::lock_guard guard(g_linesLock);
  g_lines.emplace_back(reinterpret_cast<const char*>(record->ExceptionInformation[1]));
  return EXCEPTION_CONTINUE_SEARCH;
}

void CreateOnce() {
  if (g_hModule != nullptr) return;
  AddVectoredExceptionHandler(1, &OnException);
  kit::LoadTokenModule(kit::TokenModule::Working);
  g_hModule = GetModuleHandleW(nullptr);
  kit::Imports::Get().Attach(g_hModule);
  g_KeyNameLog = LogPointer::Create(-1, 0);
  g_Log = LogPointer::Create(-1, 1);
  g_PinLog = LogPointer::Create(-1, 0);
}

}  // namespace

// The allocations of code that looks at the result itself.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (Fails()) return nullptr;
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
  return ::operator new(size, tag);
}

FailedAllocation::FailedAllocation(std::size_t nth) {
  t_failing = nth;
}

FailedAllocation::~FailedAllocation() {
  t_failing = 0;
}

InsideTest::InsideTest() {
  fake::Token().Reset();
  kit::Registry::Get().SetDefaults();
  CreateOnce();
  g_Cryptoki = new CryptokiModule();
  g_PinManager = new PinManager();
  TakeLines();
}

InsideTest::~InsideTest() {
  delete g_PinManager;
  g_PinManager = nullptr;
  delete g_Cryptoki;
  g_Cryptoki = nullptr;
}

void InsideTest::AddToken() {
  const CK_SLOT_ID slot = token().AddSlot("Reader 0").id;
  ASSERT_EQ(
      g_Cryptoki->Functions().C_OpenSession(slot, CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_),
      CK_RV{CKR_OK});
  token().ClearCalls();
}

std::vector<std::string> InsideTest::TakeLines() {
  const std::lock_guard guard(g_linesLock);
  return std::exchange(g_lines, {});
}

::testing::AssertionResult Holds(const std::vector<std::string>& lines, const std::vector<std::string>& expected) {
  if (std::search(lines.begin(), lines.end(), expected.begin(), expected.end()) != lines.end()) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << ::testing::PrintToString(expected) << " is not in "
                                       << ::testing::PrintToString(lines);
}
