// Logins on several threads at once.
#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "login_fixture.h"

namespace {

using kit::Dialog;
using kit::Hook;
using kit::kPinField;

// An event that one thread sets and another waits for.
class Event {
 public:
  Event() : handle_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}
  ~Event() { CloseHandle(handle_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  void Set() { SetEvent(handle_); }
  void Wait() { WaitForSingleObject(handle_, INFINITE); }

 private:
  HANDLE handle_;
};

class ContentionTest : public LoginTest {
 protected:
  void SetUp() override {
    LoginTest::SetUp();
    other_ = OpenProvider();
    otherKey_ = OpenKey(other_, L"K");
  }
  void TearDown() override {
    ksp().FreeKey(other_, otherKey_);
    ksp().FreeProvider(other_);
    LoginTest::TearDown();
    // Lines of several threads cannot be told apart by their files; the next test starts with new ones.
    kit::Provider::Get().Unload();
    kit::Log::Get().TakeDebuggerLines();
  }
  SECURITY_STATUS SignOther() { return Sign(other_, otherKey_); }

  NCRYPT_PROV_HANDLE other_ = 0;
  NCRYPT_KEY_HANDLE otherKey_ = 0;
};

TEST_F(ContentionTest, CachedLoginsOfTwoHandlesFollowOneAnother) {
  ASSERT_EQ(SignTyping(L"1234"), 0);
  std::atomic<int> inside = 0;
  std::atomic<int> most = 0;
  std::atomic<int> logins = 0;
  // The token's answer is held back until the other thread has had every chance to come in, too.
  token().Before("VendorLogin", [&](const fake::Call&) {
    const int now = ++inside;
    if (now > most) most = now;
    ++logins;
    for (int i = 0; i < 50; ++i)
      SwitchToThread();
    --inside;
  });
  constexpr int kRounds = 40;
  std::atomic<int> good = 0;
  const auto work = [&](NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key) {
    for (int i = 0; i < kRounds; ++i) {
      if (Sign(provider, key) == 0) ++good;
    }
  };
  std::thread first(work, provider_, key_);
  std::thread second(work, other_, otherKey_);
  first.join();
  second.join();
  EXPECT_EQ(good, 2 * kRounds);
  EXPECT_EQ(logins, 2 * kRounds);
  EXPECT_EQ(most, 1) << "two logins at once";
}

TEST_F(ContentionTest, TheSecondUncachedLoginIsCancelledWhileTheFirstAsks) {
  SECURITY_STATUS second = 0;
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              std::thread worker([&] { second = SignOther(); });
              worker.join();
              dialog.Type(kPinField, L"1234");
              dialog.PressOk();
            }),
            0);
  EXPECT_EQ(second, kCancelledByUser);
  // Once the PIN is cached the second handle signs as well.
  EXPECT_EQ(SignOther(), 0);
}

// It would take the keyboard from the dialog that the user types into.
TEST_F(ContentionTest, TheCancelledDialogDoesNotAskForTheForeground) {
  std::atomic<int> raised = 0;
  const Hook<"SetForegroundWindow", decltype(&SetForegroundWindow)> hook([&](auto original, HWND window) {
    ++raised;
    return original(window);
  });
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              raised = 0;
              std::thread worker([&] { EXPECT_EQ(SignOther(), kCancelledByUser); });
              worker.join();
              dialog.Type(kPinField, L"1234");
              dialog.PressOk();
            }),
            0);
  EXPECT_EQ(raised, 0);
}

TEST_F(ContentionTest, AnOpenDialogDoesNotHoldUpCachedLogins) {
  fake::Slot& another = AddToken("Reader 1");
  another.pin = "77";
  token().AddKeyPair(fake::Ascii("K"), "key", 2048, 1);
  // The second token's handle: the first one's token is taken out for the moment.
  slot().tokenPresent = false;
  const NCRYPT_PROV_HANDLE second = OpenProvider();
  const NCRYPT_KEY_HANDLE secondKey = OpenKey(second, L"K");
  slot().tokenPresent = true;
  {
    kit::DialogRobot robot({[](Dialog& dialog) {
      dialog.Type(kPinField, L"77");
      dialog.PressOk();
    }});
    ASSERT_EQ(Sign(second, secondKey), 0);
  }
  EXPECT_EQ(SignWith([&](Dialog& dialog) {
              std::thread worker([&] { EXPECT_EQ(Sign(second, secondKey), 0); });
              worker.join();
              EXPECT_TRUE(dialog.open());
              dialog.PressCancel();
            }),
            kCancelledByUser);
  ksp().FreeKey(second, secondKey);
  ksp().FreeProvider(second);
}

TEST_F(ContentionTest, LeavingASecondTimeDoesNotLetOthersInWhileALoginIsInside) {
  // Thread 1 has its dialog open. Thread 2 logs in with a cached PIN and is held inside the critical section. Thread
  // 1's dialog ends, and its login leaves the section for the second time. Thread 3's cached login must still wait for
  // thread 2's.
  fake::Slot& another = AddToken("Reader 1");
  another.pin = "77";
  token().AddKeyPair(fake::Ascii("K"), "key", 2048, 1);
  slot().tokenPresent = false;
  NCRYPT_PROV_HANDLE providers[2] = {OpenProvider(), OpenProvider()};
  NCRYPT_KEY_HANDLE keys[2] = {OpenKey(providers[0], L"K"), OpenKey(providers[1], L"K")};
  slot().tokenPresent = true;
  {
    kit::DialogRobot robot({[](Dialog& dialog) {
      dialog.Type(kPinField, L"77");
      dialog.PressOk();
    }});
    ASSERT_EQ(Sign(providers[0], keys[0]), 0);
  }

  Event held;
  Event proceed;
  Event asking;
  std::atomic<int> inside = 0;
  std::atomic<int> most = 0;
  std::atomic<bool> first = true;
  std::thread holder;
  std::thread waiter;
  SECURITY_STATUS status = 0;
  SignWith([&](Dialog& dialog) {
    token().Before("VendorLogin", [&](const fake::Call&) {
      const int now = ++inside;
      if (now > most) most = now;
      if (first.exchange(false)) {
        held.Set();
        proceed.Wait();
      }
      --inside;
    });
    holder = std::thread([&] { EXPECT_EQ(Sign(providers[0], keys[0]), 0); });
    held.Wait();
    dialog.PressCancel();
  });
  // The waiter asks for the section: its call tells when it is about to.
  token().Before("C_GetTokenInfo", [&](const fake::Call&) { asking.Set(); });
  waiter = std::thread([&] { status = Sign(providers[1], keys[1]); });
  asking.Wait();
  for (int i = 0; i < 200; ++i)
    SwitchToThread();
  proceed.Set();
  holder.join();
  waiter.join();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(most, 1);
  for (int i = 0; i < 2; ++i) {
    ksp().FreeKey(providers[i], keys[i]);
    ksp().FreeProvider(providers[i]);
  }
}

TEST_F(ContentionTest, EveryCriticalSectionIsLeftAsOftenAsItIsEntered) {
  std::mutex lock;
  std::map<const void*, int> entered;
  std::map<const void*, int> balance;
  Hook<"EnterCriticalSection", decltype(&EnterCriticalSection)> enter([&](auto original, LPCRITICAL_SECTION section) {
    original(section);
    const std::lock_guard guard(lock);
    ++entered[section];
    ++balance[section];
  });
  Hook<"LeaveCriticalSection", decltype(&LeaveCriticalSection)> leave([&](auto original, LPCRITICAL_SECTION section) {
    {
      const std::lock_guard guard(lock);
      --balance[section];
    }
    original(section);
  });
  const auto check = [&](const char* what) {
    const std::lock_guard guard(lock);
    EXPECT_FALSE(entered.empty()) << what;
    for (const auto& [section, count] : balance)
      EXPECT_EQ(count, 0) << what;
    entered.clear();
    balance.clear();
  };
  SignWith([](Dialog& dialog) { dialog.PressCancel(); });
  check("cancelled");
  token().Fail("C_GetTokenInfo", 5);
  Sign();
  for (const auto& [section, count] : balance)
    EXPECT_EQ(count, 0) << "before the section";
  SignTyping(L"1234");
  check("through the dialog");
  Sign();
  check("cached");
}

// The token's login entry, with a look at where the PIN lies that it is given.
struct PinPointer {
  static inline const unsigned char* pin = nullptr;
  static inline fake::VendorLogin original = nullptr;

  PinPointer() {
    original = std::exchange(fake::Token().List()->login, &Login);
    pin = nullptr;
  }
  ~PinPointer() { fake::Token().List()->login = original; }
  PinPointer(const PinPointer&) = delete;
  PinPointer& operator=(const PinPointer&) = delete;

  static CK_RV Login(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR data, CK_ULONG length) {
    pin = data;
    return original(session, user, data, length);
  }
};

TEST_F(ContentionTest, ACachedLoginIsInsideFromTheLookupUntilItsPinIsWiped) {
  ASSERT_EQ(SignTyping(L"1234"), 0);
  slot().loggedIn = false;
  for (const CK_RV result : {CK_RV{CKR_OK}, CK_RV{3}}) {
    if (result != CKR_OK) token().Fail("VendorLogin", result);
    std::vector<std::string> entered;
    std::vector<std::string> left;
    bool wiped = false;
    const PinPointer given;
    const auto lastLine = [] {
      const std::vector<kit::DebuggerLine> lines = kit::Log::Get().TakeDebuggerLines();
      return lines.empty() ? std::string() : lines.back().text;
    };
    Hook<"EnterCriticalSection", decltype(&EnterCriticalSection)> enter([&](auto original, LPCRITICAL_SECTION section) {
      entered.push_back(lastLine());
      original(section);
    });
    Hook<"LeaveCriticalSection", decltype(&LeaveCriticalSection)> leave([&](auto original, LPCRITICAL_SECTION section) {
      left.push_back(lastLine());
      // The login that holds the buffer has not returned yet.
      wiped = PinPointer::pin != nullptr &&
              std::all_of(PinPointer::pin, PinPointer::pin + 16, [](unsigned char b) { return b == 0; });
      original(section);
    });
    EXPECT_EQ(Sign() == 0, result == CKR_OK);
    EXPECT_EQ(entered, std::vector<std::string>{"Entering critical section"});
    EXPECT_EQ(left, std::vector<std::string>{"Pin buffer cleared"});
    EXPECT_TRUE(wiped);
  }
}

}  // namespace
