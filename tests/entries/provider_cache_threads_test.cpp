// Two threads that open providers on different readers, and a third that is given the reader opened last: it gets one
// of the two names, and no mixture of them.
#include <atomic>
#include <string>
#include <thread>

#include "kit/provider.h"

namespace {

using kit::Hook;

// What a thread sees of the readers.
enum class View { kBoth, kFirst, kSecond };
thread_local View t_view = View::kBoth;

constexpr CK_SLOT_ID kFirstSlot = 11;
constexpr CK_SLOT_ID kSecondSlot = 12;

CK_RV GetSlotList(CK_BBOOL, CK_SLOT_ID* slots, CK_ULONG* count) {
  if (slots != nullptr) {
    slots[0] = t_view == View::kSecond ? kSecondSlot : kFirstSlot;
    if (t_view == View::kBoth) slots[1] = kSecondSlot;
  }
  *count = t_view == View::kBoth ? 2 : 1;
  return CKR_OK;
}

CK_RV GetSlotInfo(CK_SLOT_ID slot, CK_SLOT_INFO* info) {
  *info = {};
  std::fill_n(info->slotDescription, sizeof(info->slotDescription), slot == kFirstSlot ? 'A' : 'B');
  return CKR_OK;
}

class ProviderCacheThreadsTest : public kit::ProviderTest {
 protected:
  void TearDown() override {
    kit::Provider::Get().Unload();  // the next test loads anew, with its log
    kit::Log::Get().TakeDebuggerLines();
    kit::ProviderTest::TearDown();
  }
};

TEST_F(ProviderCacheThreadsTest, TheNameIsNeverAMixture) {
  ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Off));  // lines of threads that run at once may mix
  token().AddSlot("first");
  token().AddSlot("second");
  const fake::ListGuard guard;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  functions.C_GetSlotList = &GetSlotList;
  functions.C_GetSlotInfo = &GetSlotInfo;
  // Where nothing is cached just now, nobody is asked.
  const Hook<"DialogBoxParamW", decltype(&DialogBoxParamW)> noDialog(
      [](auto, HINSTANCE, LPCWSTR, HWND, DLGPROC, LPARAM) -> INT_PTR { return -1; });

  std::atomic<bool> done{false};
  const auto keepOpening = [&](View view) {
    t_view = view;
    while (!done) {
      NCRYPT_PROV_HANDLE provider = 0;
      if (ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG) == 0) ksp().FreeProvider(provider);
    }
  };
  std::thread first(keepOpening, View::kFirst);
  std::thread second(keepOpening, View::kSecond);
  int found = 0;
  for (int i = 0; i < 3000 && found < 500; ++i) {
    NCRYPT_PROV_HANDLE provider = 0;
    const SECURITY_STATUS status = ksp().OpenProvider(&provider, kit::kProviderName, 0);
    EXPECT_TRUE(status == 0 || status == ERROR_CANCELLED) << status;
    if (status != 0) continue;
    ++found;
    ksp().FreeProvider(provider);
  }
  done = true;
  first.join();
  second.join();
}

}  // namespace
