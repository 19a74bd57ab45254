// The stand-in for the configuration functions of bcrypt.dll from outside: what it writes, what it answers, and that
// everything else is the platform's.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <string>
#include <vector>

#include "bcrypt/provider_configuration.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Names = std::vector<std::wstring>;

constexpr wchar_t kPrivateHive[] = L"Software\\KeldaBcryptTest";
constexpr wchar_t kProviders[] = L"System\\CurrentControlSet\\Control\\Cryptography\\Providers\\";
constexpr wchar_t kInterfaceKey[] =
    L"System\\CurrentControlSet\\Control\\Cryptography\\Configuration\\Local\\Default\\00010001";
constexpr ULONG kKeyStorage = 0x00010001;

// Under a name of its own: by that of the platform's DLL, Wine would give out its own.
HMODULE Library() {
  static const HMODULE library = [] {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
    return LoadLibraryW((path.substr(0, path.rfind(L'\\')) + L"\\standin_bcrypt.dll").c_str());
  }();
  return library;
}

template <typename Function>
Function* Resolve(const char* name) {
  return reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(Library(), name)));
}

#define BCRYPT(name) Resolve<decltype(name)>(#name)

class BcryptTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(Library(), nullptr) << GetLastError();
    RegDeleteTreeW(HKEY_CURRENT_USER, kPrivateHive);
    HKEY hive = nullptr;
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, kPrivateHive, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hive, nullptr),
              ERROR_SUCCESS);
    ASSERT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, hive), ERROR_SUCCESS);
    RegCloseKey(hive);
  }

  void TearDown() override {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegDeleteTreeW(HKEY_CURRENT_USER, kPrivateHive);
  }

  static NTSTATUS Register(std::wstring name, std::wstring image, ULONG flags = 0) {
    std::wstring function = L"KEY_STORAGE";
    PWSTR functions[] = {function.data()};
    CRYPT_INTERFACE_REG entry = {kKeyStorage, 7, 1, functions};
    PCRYPT_INTERFACE_REG entries[] = {&entry};
    CRYPT_IMAGE_REG user_mode = {image.data(), 1, entries};
    PWSTR aliases[] = {name.data()};
    CRYPT_PROVIDER_REG registration = {1, aliases, &user_mode, nullptr};
    return BCRYPT(BCryptRegisterProvider)(name.c_str(), flags, &registration);
  }

  static NTSTATUS Add(const wchar_t* name, ULONG position) {
    return BCRYPT(BCryptAddContextFunctionProvider)(CRYPT_LOCAL, nullptr, kKeyStorage, L"KEY_STORAGE", name, position);
  }

  static NTSTATUS Remove(const wchar_t* name) {
    return BCRYPT(BCryptRemoveContextFunctionProvider)(CRYPT_LOCAL, nullptr, kKeyStorage, L"KEY_STORAGE", name);
  }

  static NTSTATUS AddFunction() {
    return BCRYPT(BCryptAddContextFunction)(CRYPT_LOCAL, nullptr, kKeyStorage, L"KEY_STORAGE", CRYPT_PRIORITY_BOTTOM);
  }

  static Names Listed() {
    CRYPT_CONTEXT_FUNCTION_PROVIDERS* found = nullptr;
    ULONG size = 0;
    EXPECT_EQ(
        BCRYPT(BCryptEnumContextFunctionProviders)(CRYPT_LOCAL, nullptr, kKeyStorage, L"KEY_STORAGE", &size, &found),
        0);
    if (found == nullptr) return {};
    Names names(found->rgpszProviders, found->rgpszProviders + found->cProviders);
    BCRYPT(BCryptFreeBuffer)(found);
    return names;
  }

  static std::wstring Text(const std::wstring& key, const wchar_t* value, DWORD type) {
    std::wstring text(256, L'\0');
    DWORD size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, type, nullptr, text.data(), &size) != ERROR_SUCCESS) {
      return L"(missing)";
    }
    text.resize(size / sizeof(wchar_t));
    return text;
  }
};

TEST_F(BcryptTest, RegisteringWritesTheDocumentedLayout) {
  ASSERT_EQ(Register(L"One", L"one.dll"), 0);
  const std::wstring key = std::wstring(kProviders) + L"One";
  EXPECT_EQ(Text(key, L"Aliases", RRF_RT_REG_MULTI_SZ), std::wstring(L"One\0\0", 5));
  EXPECT_EQ(Text(key + L"\\UM", L"Image", RRF_RT_REG_SZ), std::wstring(L"one.dll\0", 8));
  EXPECT_EQ(Text(key + L"\\UM\\00010001", L"Functions", RRF_RT_REG_MULTI_SZ), std::wstring(L"KEY_STORAGE\0\0", 13));
  DWORD flags = 0;
  DWORD size = sizeof(flags);
  EXPECT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, (key + L"\\UM\\00010001").c_str(), L"Flags", RRF_RT_REG_DWORD, nullptr,
                         &flags, &size),
            ERROR_SUCCESS);
  EXPECT_EQ(flags, 7u);
}

TEST_F(BcryptTest, ANameIsTakenUnlessOverwritten) {
  ASSERT_EQ(Register(L"One", L"one.dll"), 0);
  EXPECT_EQ(Register(L"One", L"two.dll"), standin::kStatusNameCollision);
  EXPECT_EQ(Register(L"One", L"two.dll", CRYPT_OVERWRITE), 0);
  EXPECT_EQ(Text(std::wstring(kProviders) + L"One\\UM", L"Image", RRF_RT_REG_SZ), std::wstring(L"two.dll\0", 8));
}

TEST_F(BcryptTest, ARegistrationIsAskedFor) {
  ASSERT_EQ(Register(L"One", L"one.dll"), 0);
  CRYPT_PROVIDER_REG* found = nullptr;
  ULONG size = 0;
  const auto query = BCRYPT(BCryptQueryProviderRegistration);
  EXPECT_EQ(query(L"One", CRYPT_UM, kKeyStorage, &size, nullptr), standin::kStatusBufferTooSmall);
  EXPECT_GT(size, sizeof(CRYPT_PROVIDER_REG));
  ASSERT_EQ(query(L"One", CRYPT_UM, kKeyStorage, &size, &found), 0);
  EXPECT_THAT(Names(found->rgpszAliases, found->rgpszAliases + found->cAliases), ElementsAre(L"One"));
  EXPECT_STREQ(found->pUM->pszImage, L"one.dll");
  ASSERT_EQ(found->pUM->cInterfaces, 1u);
  EXPECT_EQ(found->pUM->rgpInterfaces[0]->dwInterface, kKeyStorage);
  EXPECT_STREQ(found->pUM->rgpInterfaces[0]->rgpszFunctions[0], L"KEY_STORAGE");
  // The caller's own block, too small and large enough.
  std::vector<BYTE> block(size);
  auto* own = reinterpret_cast<CRYPT_PROVIDER_REG*>(block.data());
  ULONG room = size - 1;
  EXPECT_EQ(query(L"One", CRYPT_UM, kKeyStorage, &room, &own), standin::kStatusBufferTooSmall);
  EXPECT_EQ(room, size);
  EXPECT_EQ(query(L"One", CRYPT_UM, kKeyStorage, &room, &own), 0);
  EXPECT_STREQ(own->pUM->pszImage, L"one.dll");
  BCRYPT(BCryptFreeBuffer)(found);
  EXPECT_EQ(query(L"Two", CRYPT_UM, kKeyStorage, &size, &found), standin::kStatusNotFound);
}

TEST_F(BcryptTest, RemovingARegistrationLeavesTheOthers) {
  ASSERT_EQ(Register(L"One", L"one.dll"), 0);
  ASSERT_EQ(Register(L"Two", L"two.dll"), 0);
  EXPECT_EQ(BCRYPT(BCryptUnregisterProvider)(L"One"), 0);
  EXPECT_EQ(BCRYPT(BCryptUnregisterProvider)(L"One"), standin::kStatusNotFound);
  EXPECT_EQ(BCRYPT(BCryptUnregisterProvider)(L""), standin::kStatusInvalidParameter);
  CRYPT_PROVIDERS* found = nullptr;
  ULONG size = 0;
  ASSERT_EQ(BCRYPT(BCryptEnumRegisteredProviders)(&size, &found), 0);
  EXPECT_THAT(Names(found->rgpszProviders, found->rgpszProviders + found->cProviders), ElementsAre(L"Two"));
  BCRYPT(BCryptFreeBuffer)(found);
}

TEST_F(BcryptTest, TheListNeedsItsFunctionAndKeepsItsOrder) {
  EXPECT_EQ(Add(L"One", CRYPT_PRIORITY_BOTTOM), standin::kStatusNotFound);
  ASSERT_EQ(AddFunction(), 0);
  EXPECT_EQ(Text(kInterfaceKey, L"Functions", RRF_RT_REG_MULTI_SZ), std::wstring(L"KEY_STORAGE\0\0", 13));
  EXPECT_THAT(Listed(), IsEmpty());
  EXPECT_EQ(Add(L"One", CRYPT_PRIORITY_BOTTOM), 0);
  EXPECT_EQ(Add(L"Two", CRYPT_PRIORITY_BOTTOM), 0);
  EXPECT_EQ(Add(L"Three", CRYPT_PRIORITY_TOP), 0);
  EXPECT_THAT(Listed(), ElementsAre(L"Three", L"One", L"Two"));
  EXPECT_EQ(Add(L"THREE", CRYPT_PRIORITY_BOTTOM), 0);
  EXPECT_THAT(Listed(), ElementsAre(L"One", L"Two", L"THREE"));
  EXPECT_EQ(Remove(L"two"), 0);
  EXPECT_EQ(Remove(L"two"), standin::kStatusNotFound);
  EXPECT_THAT(Listed(), ElementsAre(L"One", L"THREE"));
}

TEST_F(BcryptTest, WhatHasNoDocumentedPlaceIsRefused) {
  EXPECT_EQ(BCRYPT(BCryptAddContextFunctionProvider)(CRYPT_DOMAIN, nullptr, kKeyStorage, L"KEY_STORAGE", L"One", 0),
            standin::kStatusInvalidParameter);
  EXPECT_EQ(BCRYPT(BCryptRegisterProvider)(L"One", 0, nullptr), standin::kStatusInvalidParameter);
}

TEST_F(BcryptTest, EverythingElseIsThePlatforms) {
  BCRYPT_ALG_HANDLE sha = nullptr;
  ASSERT_EQ(BCRYPT(BCryptOpenAlgorithmProvider)(&sha, BCRYPT_SHA256_ALGORITHM, nullptr, 0), 0);
  DWORD length = 0;
  ULONG size = 0;
  EXPECT_EQ(
      BCRYPT(BCryptGetProperty)(sha, BCRYPT_HASH_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof(length), &size, 0),
      0);
  EXPECT_EQ(length, 32u);
  EXPECT_EQ(BCRYPT(BCryptCloseAlgorithmProvider)(sha, 0), 0);
}

}  // namespace
