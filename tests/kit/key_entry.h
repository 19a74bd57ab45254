// The base of the tests of the entries that make, change and remove keys.
#pragma once

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "kit/dialogs.h"
#include "kit/provider.h"
#include "kit/text.h"

// A provider on one reader whose tests make and open keys.
class KeyEntryTest : public kit::OpenedProviderTest {
 protected:
  void TearDown() override {
    for (const NCRYPT_KEY_HANDLE key : keys_)
      ksp().FreeKey(provider_, key);
    kit::OpenedProviderTest::TearDown();
  }

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
  // The same of an operation that has counted the serial's length through the key-name log before.
  static std::vector<kit::Line> PinLinesAsOne(std::vector<kit::Line> lines) {
    std::erase(lines, kit::Number("cbSerial: ", 16));
    return WithoutLogin(lines);
  }
  // The token calls of a login with the cached PIN, and those behind them.
  static std::vector<std::string> CallsAfterLogin(std::vector<std::string> calls = {}) {
    calls.insert(calls.begin(), {"C_GetTokenInfo(slot=11)", "VendorLogin(session=0x51, user=1, pin=31323334)"});
    return calls;
  }

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

// Those records as handles, behind some handles that are none at all.
template <typename Record>
class ForeignHandles {
 public:
  ForeignHandles(const Record& good, std::initializer_list<ULONG_PTR> others)
      : records_(BrokenRecords(good)), handles_(others) {
    for (Record& one : records_)
      handles_.push_back(reinterpret_cast<ULONG_PTR>(&one));
  }
  auto begin() const { return handles_.begin(); }
  auto end() const { return handles_.end(); }

 private:
  std::vector<Record> records_;
  std::vector<ULONG_PTR> handles_;
};

// One key, new and unfinished, that a test may replace by another.
class NewKeyTest : public KeyEntryTest {
 protected:
  void SetUp() override {
    KeyEntryTest::SetUp();
    key_ = Create(L"Key1");
  }
  kit::KeyRecord& record() const { return *kit::KeyOf(key_); }

  NCRYPT_KEY_HANDLE key_ = 0;
};

// A key pair of the token, opened under its name.
template <CK_ULONG kBits>
class OpenedKeyTest : public KeyEntryTest {
 protected:
  void SetUp() override {
    KeyEntryTest::SetUp();
    pair_ = token().AddKeyPair(fake::Ascii("Key1"), "", kBits);
    key_ = Open(L"Key1");
    record_ = kit::KeyOf(key_);
  }

  fake::KeyPair pair_;
  NCRYPT_KEY_HANDLE key_ = 0;
  kit::KeyRecord* record_ = nullptr;
};
