// The state that an installation saves for the case that it fails: whole, or none. Everything happens below a key of
// this process, which stands in for HKEY_LOCAL_MACHINE.
#include "saved_registration.h"

#include "registry.h"

#include <gtest/gtest.h>
#include <sddl.h>

namespace installer {
namespace {

constexpr wchar_t kNoClient[] = L"C:\\no such folder\\keldactl.exe";
constexpr wchar_t kReadable[] = L"D:P(A;;GA;;;WD)";
constexpr wchar_t kUnreadable[] = L"D:P(D;;KR;;;WD)(A;;WDRCSD;;;WD)";

REGSAM OwnView() {
  return Views().front().access;
}

void Protect(const std::wstring& path, const wchar_t* rights) {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  HKEY key = nullptr;
  ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(rights, SDDL_REVISION_1, &descriptor, nullptr));
  ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, WRITE_DAC | OwnView(), &key), ERROR_SUCCESS);
  EXPECT_EQ(RegSetKeySecurity(key, DACL_SECURITY_INFORMATION, descriptor), ERROR_SUCCESS);
  RegCloseKey(key);
  LocalFree(descriptor);
}

class SavedRegistration : public ::testing::Test {
 protected:
  void SetUp() override {
    name_ = L"Software\\keldaksp installer test " + std::to_wstring(GetCurrentProcessId());
    HKEY root = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, name_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &root, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, root), ERROR_SUCCESS);
    RegCloseKey(root);
    SetKeyLength(2048);
  }
  void TearDown() override {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    HKEY root = nullptr;
    if (RegOpenKeyExW(HKEY_CURRENT_USER, name_.c_str(), 0, KEY_ALL_ACCESS, &root) == ERROR_SUCCESS) {
      RegDeleteTreeW(root, nullptr);
      RegCloseKey(root);
    }
    RegDeleteKeyW(HKEY_CURRENT_USER, name_.c_str());
  }

  void SetKeyLength(DWORD bits) { Write(Key::Create(kProviderKey, 0), NumberValue(L"Default Key Length", bits)); }
  void ExpectKeyLength(DWORD bits) {
    const std::optional<Key> key = Key::Open(kProviderKey, 0);
    ASSERT_TRUE(key);
    EXPECT_EQ(FindValue(*key, L"Default Key Length"), NumberValue(L"Default Key Length", bits));
  }
  void Restore() { RestoreRegistrationAndSettings(Journal(0), kNoClient); }
  // What a test makes unreadable is readable again at the end, so that it can be taken away.
  void ExpectSavingFails(const std::wstring& unreadable) {
    Protect(unreadable, kUnreadable);
    EXPECT_THROW(SaveRegistrationAndSettings(), LSTATUS);
    Protect(unreadable, kReadable);
  }

 private:
  std::wstring name_;
};

TEST_F(SavedRegistration, ComesBack) {
  SaveRegistrationAndSettings();
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(2048);
}

TEST_F(SavedRegistration, TakesAwayWhatWasNotThere) {
  SaveRegistrationAndSettings();
  Write(Key::Create(kSettingsKey, OwnView()), TextValue(L"PINCACHE", L"1"));
  Restore();
  EXPECT_FALSE(Key::Open(kSettingsKey, OwnView()));
}

TEST_F(SavedRegistration, IsNotRestoredWhenNothingWasSaved) {
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(4096);
}

TEST_F(SavedRegistration, IsNotRestoredTwice) {
  SaveRegistrationAndSettings();
  ForgetSaved();
  EXPECT_FALSE(Key::Open(kSetupKey, OwnView()));
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(4096);
}

// A key that may not be read is there: taken for absent, a restoration would remove it.
TEST_F(SavedRegistration, FailsOnAKeyThatMayNotBeRead) {
  Write(Key::Create(kSettingsKey, OwnView()), TextValue(L"PINCACHE", L"1"));
  ExpectSavingFails(kSettingsKey);
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(4096);
  EXPECT_TRUE(Key::Open(kSettingsKey, OwnView()));
}

TEST_F(SavedRegistration, FailsOnAKeyBelowThatMayNotBeRead) {
  const std::wstring below = std::wstring(kSettingsKey) + L"\\Below";
  Key::Create(below, OwnView());
  ExpectSavingFails(below);
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(4096);
  EXPECT_TRUE(Key::Open(below, OwnView()));
}

// What an earlier installation left behind is not taken for this one's.
TEST_F(SavedRegistration, FailsWithoutLeavingAnOlderOneInPlace) {
  SaveRegistrationAndSettings();
  Write(Key::Create(kSettingsKey, OwnView()), TextValue(L"PINCACHE", L"1"));
  ExpectSavingFails(kSettingsKey);
  SetKeyLength(4096);
  Restore();
  ExpectKeyLength(4096);
}

}  // namespace
}  // namespace installer
