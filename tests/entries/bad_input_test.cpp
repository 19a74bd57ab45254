// Whatever a caller passes, no entry crashes: NULL in every pointer position, foreign and released handles as far as
// the handle test can tell, lengths and flags at their ends.
#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "kit/dialogs.h"
#include "kit/provider.h"

namespace {

using kit::FunctionTable;

// Stand-ins for an entry's parameters: a set of values is tried in every position, the others valid.
struct Values {
  NCRYPT_PROV_HANDLE provider;
  NCRYPT_KEY_HANDLE key;
  std::wstring text = L"RSA";
  BYTE input[64] = {};
  BYTE output[64] = {};
  DWORD number = 0;
  NCRYPT_PROV_HANDLE outProvider = 0;
  NCRYPT_KEY_HANDLE outKey = 0;
  NCryptKeyName* outName = nullptr;
  NCryptAlgorithmName* outAlgorithms = nullptr;
  PVOID outState = nullptr;
  HANDLE outEvent = nullptr;
  NCRYPT_SECRET_HANDLE outSecret = 0;
  NCryptBufferDesc parameters{};
};

class BadInputTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    // Many calls, and it is not their lines that count here.
    ASSERT_TRUE(kit::Provider::Get().Load(kit::Log::Mode::Off));
    AddReader();
    token().AddKeyPair(fake::Ascii("Key1"), "label", 1024);
    values_.provider = OpenProvider();
    values_.key = OpenKey(values_.provider, L"Key1");
  }
  void TearDown() override {
    if (values_.key) ksp().FreeKey(values_.provider, values_.key);
    ksp().FreeProvider(values_.provider);
    kit::ProviderTest::TearDown();
  }
  // Releases what calls have handed out, so that one pass does not disturb the next.
  void Collect() {
    if (values_.outProvider) ksp().FreeProvider(values_.outProvider);
    if (values_.outName) ksp().FreeBuffer(values_.outName);
    if (values_.outAlgorithms) ksp().FreeBuffer(values_.outAlgorithms);
    if (values_.outState) ksp().FreeBuffer(values_.outState);
    values_.outProvider = 0;
    values_.outKey = 0;
    values_.outName = nullptr;
    values_.outAlgorithms = nullptr;
    values_.outState = nullptr;
  }

  // All entries but FreeProvider, FreeKey and DeleteKey, with the pointer in position `missing` (counted over all
  // calls) replaced by NULL. Returns the number of pointers met.
  std::size_t CallAll(std::size_t missing, DWORD length, DWORD flags, NCRYPT_PROV_HANDLE provider,
                      NCRYPT_KEY_HANDLE key) {
    std::size_t position = 0;
    const auto p = [&](auto* pointer) { return position++ == missing ? nullptr : pointer; };
    Values& v = values_;
    const FunctionTable& t = ksp();
    t.OpenProvider(p(&v.outProvider), p(kit::kProviderName), flags | NCRYPT_SILENT_FLAG);
    t.OpenKey(provider, p(&v.outKey), p(L"Key1"), 0, flags);
    t.CreatePersistedKey(provider, p(&v.outKey), p(L"RSA"), p(L"new"), 0, flags);
    for (const wchar_t* name : {L"Impl Type", L"Max Name Length", L"Name", L"Version", L"Use Context",
                                L"Security Descr Support", L"other", L""}) {
      t.GetProviderProperty(provider, p(name), p(v.output), length, p(&v.number), flags);
      t.SetProviderProperty(provider, p(name), p(v.input), std::min<DWORD>(length, sizeof v.input), flags);
    }
    for (const wchar_t* name : {L"Algorithm Name", L"Block Length", L"Export Policy", L"Key Usage", L"Key Type",
                                L"Length", L"Lengths", L"Name", L"Security Descr", L"Algorithm Group", L"Unique Name",
                                L"SmartCardKeyCertificate", L"UI Policy", L"HWND Handle", L"other", L""}) {
      t.GetKeyProperty(provider, key, p(name), p(v.output), length, p(&v.number), flags);
      t.SetKeyProperty(provider, key, p(name), p(v.input), std::min<DWORD>(length, sizeof v.input), flags);
    }
    t.FinalizeKey(provider, key, flags);
    t.FreeBuffer(nullptr);
    t.IsAlgSupported(provider, p(L"RSA"), flags);
    t.EnumAlgorithms(provider, flags, p(&v.number), p(&v.outAlgorithms), flags);
    t.EnumKeys(provider, p(L"scope"), p(&v.outName), p(&v.outState), flags);
    const DWORD inside = std::min<DWORD>(length, sizeof v.input);
    t.Encrypt(provider, key, p(v.input), inside, p(&v.number), p(v.output), inside, p(&v.number), flags);
    t.Decrypt(provider, key, p(v.input), inside, p(&v.number), p(v.output), inside, p(&v.number), flags);
    for (const wchar_t* type : {L"RSAPUBLICBLOB", L"RSAPRIVATEBLOB", L"RSAFULLPRIVATEBLOB", L"other"}) {
      t.ImportKey(provider, 0, p(type), p(&v.parameters), p(&v.outKey), p(v.input), inside, flags);
      t.ExportKey(provider, key, 0, p(type), p(&v.parameters), p(v.output), inside, p(&v.number), flags);
    }
    t.SignHash(provider, key, p(&v.number), p(v.input), inside, p(v.output), inside, p(&v.number), flags);
    t.VerifySignature(provider, key, p(&v.number), p(v.input), inside, p(v.output), inside, flags);
    t.PromptUser(provider, key, p(L"operation"), flags);
    t.NotifyChangeKey(provider, p(&v.outEvent), flags);
    t.SecretAgreement(provider, key, key, p(&v.outSecret), flags);
    t.DeriveKey(provider, 0, p(L"HASH"), p(&v.parameters), p(v.output), inside, p(&v.number), flags);
    t.FreeSecret(provider, 0);
    Collect();
    return position;
  }

  Values values_{};
};

TEST_F(BadInputTest, NullInEveryPointerPosition) {
  CachePin(values_.provider, values_.key);
  const std::size_t count = CallAll(static_cast<std::size_t>(-1), 64, 0, values_.provider, values_.key);
  ASSERT_GT(count, 80u);
  for (std::size_t missing = 0; missing < count; ++missing) {
    CallAll(missing, 64, 0, values_.provider, values_.key);
    Forget();
  }
}

TEST_F(BadInputTest, LengthsAndFlagsAtTheirEnds) {
  CachePin(values_.provider, values_.key);
  for (const DWORD flags : {DWORD{0}, DWORD{0x40}, DWORD{0x400}, DWORD{0xFFFFFFFF}, DWORD{0x80000000}}) {
    for (const DWORD length : {DWORD{0}, DWORD{1}, DWORD{3}, DWORD{8}, DWORD{64}, DWORD{0xFFFFFFFF}}) {
      // At its maximum the length is given to the property readers only, which write no more than the value.
      CallAll(static_cast<std::size_t>(-1), length, flags, values_.provider, values_.key);
      Forget();
    }
  }
}

TEST_F(BadInputTest, ForeignHandlesAreRefusedByEveryEntryThatTakesOne) {
  // Blocks large enough to be read as a record, but none.
  std::vector<BYTE> zeros(1024, 0);
  std::vector<BYTE> ones(1024, 0xFF);
  const std::vector<NCRYPT_PROV_HANDLE> foreign{0, reinterpret_cast<NCRYPT_PROV_HANDLE>(zeros.data()),
                                                reinterpret_cast<NCRYPT_PROV_HANDLE>(ones.data()), values_.key};
  for (const NCRYPT_PROV_HANDLE handle : foreign) {
    Forget();
    CallAll(static_cast<std::size_t>(-1), 64, 0, handle, values_.key);
    EXPECT_EQ(ksp().FreeProvider(handle), NTE_INVALID_HANDLE);
    EXPECT_EQ(ksp().FreeKey(handle, values_.key), NTE_INVALID_HANDLE);
    EXPECT_EQ(ksp().DeleteKey(handle, values_.key, 0), NTE_INVALID_HANDLE);
    for (const std::string& call : token().TakeTexts()) {
      EXPECT_TRUE(call.starts_with("C_GetSlot") || call.starts_with("C_OpenSession") ||
                  call.starts_with("C_CloseSession"))
          << call << " on a foreign provider handle";
    }
  }
  const std::vector<NCRYPT_KEY_HANDLE> keys{0, reinterpret_cast<NCRYPT_KEY_HANDLE>(zeros.data()),
                                            reinterpret_cast<NCRYPT_KEY_HANDLE>(ones.data()), values_.provider};
  for (const NCRYPT_KEY_HANDLE key : keys) {
    CallAll(static_cast<std::size_t>(-1), 64, 0, values_.provider, key);
    EXPECT_EQ(ksp().FreeKey(values_.provider, key), NTE_INVALID_HANDLE);
    EXPECT_EQ(ksp().DeleteKey(values_.provider, key, 0), NTE_INVALID_HANDLE);
  }
}

TEST_F(BadInputTest, ReleasedKeysAreStillRecords) {
  EXPECT_EQ(ksp().FreeKey(values_.provider, values_.key), 0);
  kit::DialogRobot robot;
  CallAll(static_cast<std::size_t>(-1), 64, 0, values_.provider, values_.key);
  EXPECT_EQ(ksp().DeleteKey(values_.provider, values_.key, 0), 0);
  EXPECT_EQ(ksp().FreeKey(values_.provider, values_.key), 0);
  CallAll(static_cast<std::size_t>(-1), 64, 0, values_.provider, values_.key);
  values_.key = 0;
}

TEST_F(BadInputTest, UnterminatedTextAtTheEndOfAPageIsReadNoFurtherThanItsTerminator) {
  // A name whose terminator is the last thing before an inaccessible page.
  SYSTEM_INFO system;
  GetSystemInfo(&system);
  const SIZE_T page = system.dwPageSize;
  auto* pages = static_cast<BYTE*>(VirtualAlloc(nullptr, 2 * page, MEM_RESERVE, PAGE_NOACCESS));
  ASSERT_NE(pages, nullptr);
  ASSERT_NE(VirtualAlloc(pages, page, MEM_COMMIT, PAGE_READWRITE), nullptr);
  const auto at = [&](const std::wstring& text) {
    const std::size_t bytes = (text.size() + 1) * sizeof(wchar_t);
    auto* place = reinterpret_cast<wchar_t*>(pages + page - bytes);
    std::memcpy(place, text.c_str(), bytes);
    return const_cast<const wchar_t*>(place);
  };
  NCRYPT_KEY_HANDLE key = 0;
  for (const wchar_t* text : {L"", L"K", L"Key1", L"4B657931", L"Reader 0", L"Reader 0\\", L"Reader 0\\Key1"}) {
    EXPECT_EQ(ksp().OpenKey(values_.provider, &key, at(text), 0, 0), 0);
    ksp().FreeKey(values_.provider, key);
    NCRYPT_PROV_HANDLE none = 0;
    EXPECT_EQ(ksp().OpenProvider(&none, at(text), NCRYPT_SILENT_FLAG), text[0] ? NTE_INVALID_PARAMETER : 0);
    if (none) ksp().FreeProvider(none);
    FunctionTable* table = nullptr;
    EXPECT_EQ(kit::Provider::Get().GetKeyStorageInterface(at(text), &table, 0), LONG(0xC000000D));
    EXPECT_EQ(ksp().IsAlgSupported(values_.provider, at(text), 0), NTE_NOT_SUPPORTED);
    DWORD length = 0;
    ksp().GetProviderProperty(values_.provider, at(text), nullptr, 0, &length, 0);
    ksp().GetKeyProperty(values_.provider, values_.key, at(text), nullptr, 0, &length, 0);
  }
  VirtualFree(pages, 0, MEM_RELEASE);
}

}  // namespace
