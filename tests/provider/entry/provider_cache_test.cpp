// The provider cache by itself: a reader's name goes in and comes out as a whole, whatever other threads do meanwhile.
#include "provider/entry/provider_cache.h"

#include <functional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

// A page that is touched once: the thread that touches it does what was asked for first, and then goes on.
class TouchedPage {
 public:
  TouchedPage() : page_(VirtualAlloc(nullptr, kSize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)) {}
  ~TouchedPage() {
    if (handler_ != nullptr) RemoveVectoredExceptionHandler(handler_);
    VirtualFree(page_, 0, MEM_RELEASE);
  }
  TouchedPage(const TouchedPage&) = delete;
  TouchedPage& operator=(const TouchedPage&) = delete;

  wchar_t* Text() const { return static_cast<wchar_t*>(page_); }
  void AtTheFirstTouch(std::function<void()> then) {
    then_ = std::move(then);
    current_ = this;
    handler_ = AddVectoredExceptionHandler(1, &OnException);
    DWORD before = 0;
    VirtualProtect(page_, kSize, PAGE_NOACCESS, &before);
  }
  int Touches() const { return touches_; }

 private:
  static constexpr SIZE_T kSize = 4096;

  static LONG CALLBACK OnException(EXCEPTION_POINTERS* pointers) {
    const EXCEPTION_RECORD& record = *pointers->ExceptionRecord;
    const auto first = reinterpret_cast<ULONG_PTR>(current_->page_);
    if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION || record.ExceptionInformation[1] < first ||
        record.ExceptionInformation[1] >= first + kSize) {
      return EXCEPTION_CONTINUE_SEARCH;
    }
    ++current_->touches_;
    DWORD before = 0;
    VirtualProtect(current_->page_, kSize, PAGE_READWRITE, &before);
    current_->then_();
    return EXCEPTION_CONTINUE_EXECUTION;
  }

  static TouchedPage* current_;
  void* page_;
  void* handler_ = nullptr;
  std::function<void()> then_;
  int touches_ = 0;
};
TouchedPage* TouchedPage::current_ = nullptr;

class ProviderCacheLockTest : public ::testing::Test {
 protected:
  void SetUp() override { others_ = std::exchange(g_ProviderCache, &cache_); }
  void TearDown() override { g_ProviderCache = others_; }

  // A provider on the reader whose name is in the page.
  KELDAKSP_PROVIDER* On(const wchar_t* reader) {
    page_.Text()[std::wstring(reader).copy(page_.Text(), kReaderNameSize - 1)] = L'\0';
    provider_.pszReader = page_.Text();
    return &provider_;
  }

  ProviderCache cache_;
  TouchedPage page_;
  KELDAKSP_PROVIDER provider_ = {};

 private:
  ProviderCache* others_ = nullptr;
};

TEST_F(ProviderCacheLockTest, NobodyReadsWhileANameIsCopiedIn) {
  KELDAKSP_PROVIDER* provider = On(L"Norvale Reader 1");
  bool readable = true;
  page_.AtTheFirstTouch([&] {
    readable = TryAcquireSRWLockShared(&cache_.copying) != FALSE;
    if (readable) ReleaseSRWLockShared(&cache_.copying);
  });
  UpdateProviderCache(provider);
  EXPECT_EQ(page_.Touches(), 1);
  EXPECT_FALSE(readable);
  wchar_t reader[kReaderNameSize] = {};
  EXPECT_TRUE(ReadProviderCache(reader, kReaderNameSize));
  EXPECT_STREQ(reader, L"Norvale Reader 1");
}

TEST_F(ProviderCacheLockTest, NobodyWritesWhileANameIsCopiedOut) {
  UpdateProviderCache(On(L"Norvale Reader 1"));
  bool writable = true;
  page_.AtTheFirstTouch([&] {
    writable = TryAcquireSRWLockExclusive(&cache_.copying) != FALSE;
    if (writable) ReleaseSRWLockExclusive(&cache_.copying);
  });
  EXPECT_TRUE(ReadProviderCache(page_.Text(), kReaderNameSize));
  EXPECT_EQ(page_.Touches(), 1);
  EXPECT_FALSE(writable);
  EXPECT_STREQ(page_.Text(), L"Norvale Reader 1");
}

TEST_F(ProviderCacheLockTest, TheLockIsFreeAfterEachCopy) {
  wchar_t reader[kReaderNameSize] = {};
  EXPECT_FALSE(ReadProviderCache(reader, kReaderNameSize));
  UpdateProviderCache(On(L"Norvale Reader 1"));
  EXPECT_TRUE(ReadProviderCache(reader, kReaderNameSize));
  ASSERT_TRUE(TryAcquireSRWLockExclusive(&cache_.copying));
  ReleaseSRWLockExclusive(&cache_.copying);
}

}  // namespace
