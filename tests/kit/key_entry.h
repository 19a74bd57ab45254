// The base of the tests of the entries that make, change and remove keys.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "kit/dialogs.h"
#include "kit/provider.h"

// A provider on one reader, with session 0x51 on slot 11.
class KeyEntryTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    AddReader();
    provider_ = OpenProvider();
  }
  void TearDown() override {
    for (const NCRYPT_KEY_HANDLE key : keys_)
      ksp().FreeKey(provider_, key);
    if (provider_) ksp().FreeProvider(provider_);
    kit::ProviderTest::TearDown();
  }

  kit::ProviderRecord& providerRecord() const { return *kit::RecordOf(provider_); }

  // An unfinished key. Lines, token calls and registry reads of its making are forgotten.
  NCRYPT_KEY_HANDLE Create(const wchar_t* name, DWORD spec = 0, DWORD flags = 0) {
    NCRYPT_KEY_HANDLE key = 0;
    EXPECT_EQ(ksp().CreatePersistedKey(provider_, &key, L"RSA", name, spec, flags), 0);
    keys_.push_back(key);
    Forget();
    return key;
  }
  // A finished key of the token.
  NCRYPT_KEY_HANDLE Open(const wchar_t* name) {
    keys_.push_back(OpenKey(provider_, name));
    return keys_.back();
  }
  // Logs in to the token, so that later operations need no dialog. Takes the first two object handles of the token.
  void LogIn() {
    token().AddKeyPair(fake::Ascii("Login"), "Login");
    CachePin(provider_, Open(L"Login"));
    Forget();
  }

  // Makes the provider throw for want of memory: what its runtime library keeps for its first exception is not taken
  // for a leak by the watches that follow.
  void ThrowOnce() {
    BYTE byte = 0;
    EXPECT_EQ(ksp().SetProviderProperty(provider_, L"Use Context", &byte, 0xFFFFFFFF, 0), NTE_NO_MEMORY);
    Forget();
  }

  // All that the login gate says becomes one line. It has log instances of its own; its numbers go to the key-name one.
  static std::vector<kit::Line> WithoutLogin(const std::vector<kit::Line>& lines) {
    const auto ofLogin = [](const kit::Line& line) { return line.instance >= kit::kPinManagerLog; };
    const auto first = std::find_if(lines.begin(), lines.end(), ofLogin);
    const auto last = std::find_if(lines.rbegin(), lines.rend(), ofLogin).base();
    if (first == lines.end()) return lines;
    std::vector<kit::Line> result(lines.begin(), first);
    result.push_back(LoginLine());
    std::copy_if(first, last, std::back_inserter(result),
                 [](const kit::Line& line) { return line.instance == kit::kMainLog; });
    result.insert(result.end(), last, lines.end());
    return result;
  }
  static kit::Line LoginLine() { return kit::Pin("(login)"); }

  // Lets each allocation of a call fail in turn, until one attempt needs no more allocations than it gets. What the
  // call answers is judged by check(status, nth); nothing that was allocated may stay behind then. Each failure is
  // tried twice, since the runtime library keeps what it needs for a thread's first exception.
  template <typename Call, typename Check>
  void FailEachAllocation(Call call, Check check) {
    constexpr std::size_t kEnough = 500;
    bool reached = true;
    for (std::size_t nth = 1; reached && nth < kEnough; ++nth) {
      for (const bool first : {true, false}) {
        kit::MemoryWatch watch;
        watch.FailAllocation(nth);
        const SECURITY_STATUS status = call();
        reached = watch.Allocations() >= nth;
        watch.StopFailing();
        const bool clean = check(status, nth);
        if (!first && clean) {
          EXPECT_TRUE(watch.Live().empty()) << "allocation " << nth;
        }
      }
    }
    EXPECT_FALSE(reached);
    Forget();
  }

  // A block of the allocator that all blocks of the provider come from.
  static BYTE* Block(const std::string& text) {
    auto* block = static_cast<BYTE*>(std::malloc(text.size()));
    if (block) std::memcpy(block, text.data(), text.size());
    return block;
  }
  // Whether the last block of at least this size that was released at the address held nothing but zeros in it.
  static ::testing::AssertionResult WipedAndFreed(const kit::MemoryWatch& watch, const void* address,
                                                  std::size_t size) {
    const std::vector<kit::FreedBlock> freed = watch.Freed();
    const auto block = std::find_if(freed.rbegin(), freed.rend(), [&](const kit::FreedBlock& one) {
      return one.address == address && one.contents.size() >= size;
    });
    if (block == freed.rend()) return ::testing::AssertionFailure() << "the block was not released";
    const auto end = block->contents.begin() + static_cast<std::ptrdiff_t>(size);
    if (std::any_of(block->contents.begin(), end, [](std::uint8_t byte) { return byte != 0; })) {
      return ::testing::AssertionFailure() << "the block was released unwiped";
    }
    return ::testing::AssertionSuccess();
  }
  static std::vector<kit::Line> Join(std::initializer_list<std::vector<kit::Line>> parts) {
    std::vector<kit::Line> all;
    for (const std::vector<kit::Line>& part : parts)
      all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  NCRYPT_PROV_HANDLE provider_ = 0;
  std::vector<NCRYPT_KEY_HANDLE> keys_;
};

// A copy of a provider record and of a key record that fail one of the two tests of a handle each, and the other kind
// of record in their place.
template <typename Record>
std::vector<Record> BrokenRecords(const Record& good) {
  std::vector<Record> broken(3, good);
  broken[0].cbLength = sizeof(Record) - 1;
  broken[1].cbLength = 0;
  reinterpret_cast<BYTE*>(&broken[2])[4] ^= 0x20;  // the signature, or the magic
  return broken;
}
