// DeleteKey: the token objects go, private first, and what the record owns.
#include <string>

#include "kit/key_entry.h"

namespace {

using fake::Ascii;
using kit::Frame;
using kit::Hex32;
using kit::Line;

class DeleteKeyTest : public KeyEntryTest {
 protected:
  std::vector<Line> Lines(NCRYPT_KEY_HANDLE key, DWORD flags, const std::vector<Line>& body, LONG status) const {
    return Frame(
        "KELDAKSPDeleteKey",
        Join({{Hex32("hProvider : ", provider_), Hex32("hKey      : ", key), Hex32("dwFlags   : ", flags)}, body}),
        status);
  }
  static constexpr char kFailed[] =
      "NTE_INTERNAL_ERROR: DestroyObject failed. Check PKCS logs for detailed information";
};

TEST_F(DeleteKeyTest, DestroysThePrivateObjectAndThenThePublicOne) {
  token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  kit::KeyRecord& record = *kit::KeyOf(key);
  const void* name = record.pszKeyName;
  {
    const kit::MemoryWatch watch;
    EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0);
    EXPECT_TRUE(WipedAndFreed(watch, name, sizeof L"Key1"));
    EXPECT_FALSE(watch.WasFreed(&record)) << "the record itself is kept";
  }
  ExpectLines(Lines(key, 0, {}, 0));
  // No login is attempted, and no object is looked for.
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x102)", "C_DestroyObject(session=0x51, object=0x101)"});
  EXPECT_EQ(token().ObjectCount(), 0u);
  EXPECT_EQ(record.pszKeyName, nullptr);
  EXPECT_EQ(record.cbKeyName, 0u);
  EXPECT_EQ(record.hPrivateKeyObject, 0x102u) << "the objects that are gone are still named";
  EXPECT_EQ(record.hPublicKeyObject, 0x101u);
  EXPECT_EQ(record.dwMagic, kit::kKeyMagic);
  EXPECT_EQ(kit::Registry::Get().TakeReads(), std::vector<std::wstring>{});
}

TEST_F(DeleteKeyTest, SilentFlagIsTheOnlyOne) {
  token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  for (int bit = 0; bit < 32; ++bit) {
    const DWORD flag = DWORD{1} << bit;
    if (flag == NCRYPT_SILENT_FLAG) continue;
    for (const DWORD flags : {flag, flag | NCRYPT_SILENT_FLAG}) {
      EXPECT_EQ(ksp().DeleteKey(provider_, key, flags), NTE_BAD_FLAGS) << "bit " << bit;
      ExpectLines(Lines(key, flags, {"NTE_BAD_FLAGS: Only NCRYPT_SILENT_FLAG is acceptable"}, NTE_BAD_FLAGS));
    }
  }
  ExpectCalls({});
  EXPECT_NE(kit::KeyOf(key)->pszKeyName, nullptr);
  EXPECT_EQ(ksp().DeleteKey(provider_, key, NCRYPT_SILENT_FLAG), 0);
  ExpectLines(Lines(key, NCRYPT_SILENT_FLAG, {}, 0));
}

TEST_F(DeleteKeyTest, FailingPrivateDestructionLeavesThePublicObject) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  // Whatever the token answers: the status is always the same.
  for (const CK_RV code : {CKR_DEVICE_ERROR, CKR_USER_NOT_LOGGED_IN, CKR_HOST_MEMORY}) {
    token().Fail("C_DestroyObject", code);
    EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), NTE_INTERNAL_ERROR);
    ExpectLines(Lines(key, 0, {kFailed}, NTE_INTERNAL_ERROR));
    ExpectCalls({"C_DestroyObject(session=0x51, object=0x102)"});
  }
  EXPECT_TRUE(token().HasObject(pair.publicKey));
  EXPECT_STREQ(kit::KeyOf(key)->pszKeyName, L"Key1") << "nothing is released";
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0) << "and it can be tried again";
}

TEST_F(DeleteKeyTest, FailingPublicDestructionComesTooLateForThePrivateObject) {
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  token().Fail("C_DestroyObject", CKR_DEVICE_ERROR, 2);
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), NTE_INTERNAL_ERROR);
  ExpectLines(Lines(key, 0, {kFailed}, NTE_INTERNAL_ERROR));
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x102)", "C_DestroyObject(session=0x51, object=0x101)"});
  EXPECT_FALSE(token().HasObject(pair.privateKey));
  EXPECT_TRUE(token().HasObject(pair.publicKey));
  EXPECT_STREQ(kit::KeyOf(key)->pszKeyName, L"Key1");
}

TEST_F(DeleteKeyTest, HalfAKey) {
  token().AddPublicKey(Ascii("Public"), "");
  token().AddPrivateKey(Ascii("Lone"), "");
  const NCRYPT_KEY_HANDLE publicOnly = Open(L"Public");
  const NCRYPT_KEY_HANDLE privateOnly = Open(L"Lone");
  EXPECT_EQ(ksp().DeleteKey(provider_, publicOnly, 0), 0);
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x101)"});
  EXPECT_EQ(ksp().DeleteKey(provider_, privateOnly, 0), 0);
  ExpectCalls({"C_DestroyObject(session=0x51, object=0x102)"});
}

TEST_F(DeleteKeyTest, UnfinishedKeyHasNothingOnTheToken) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0);
  ExpectLines(Lines(key, 0, {}, 0));
  ExpectCalls({});
  EXPECT_EQ(kit::KeyOf(key)->pszKeyName, nullptr);
}

// A record that is to overwrite a key holds that key's objects already.
TEST_F(DeleteKeyTest, UnfinishedOverwritingKeyTakesTheOldObjectsAlong) {
  token().AddKeyPair(Ascii("id"), "Key1");
  const NCRYPT_KEY_HANDLE key = Create(L"Key1", 0, NCRYPT_OVERWRITE_KEY_FLAG);
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0);
  EXPECT_EQ(token().ObjectCount(), 0u);
}

TEST_F(DeleteKeyTest, ReleasesAllThatTheRecordOwns) {
  const NCRYPT_KEY_HANDLE key = Create(L"Key1");
  kit::KeyRecord& record = *kit::KeyOf(key);
  record.pbKeyFile = Block("keyfile-data");
  record.cbKeyFile = 12;
  record.pbSecurityDescr = Block("descriptor-data");
  record.cbSecurityDescr = 15;
  record.pbPrivateKey = Block("privatekey-data");
  record.cbPrivateKey = 15;
  record.reserved1 = 1;
  record.reserved2 = 2;
  BYTE modulus[4] = {1, 2, 3, 4};
  record.pbModulus = modulus;
  const struct {
    const void* address;
    std::size_t size;
  } blocks[] = {{record.pbKeyFile, 12}, {record.pbSecurityDescr, 15}, {record.pbPrivateKey, 15}};
  const kit::MemoryWatch watch;
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0);
  // Unlike FreeKey this says nothing of what it releases.
  ExpectLines(Lines(key, 0, {}, 0));
  for (const auto& block : blocks)
    EXPECT_TRUE(WipedAndFreed(watch, block.address, block.size));
  EXPECT_EQ(record.pbKeyFile, nullptr);
  EXPECT_EQ(record.pbSecurityDescr, nullptr);
  EXPECT_EQ(record.pbPrivateKey, nullptr);
  EXPECT_EQ(record.reserved1, 0u);
  EXPECT_EQ(record.reserved2, 0u);
  EXPECT_EQ(record.pbModulus, modulus) << "components of an imported key are not touched";
  EXPECT_EQ(modulus[0], 1);
  record.pbModulus = nullptr;
}

TEST_F(DeleteKeyTest, HandleStaysAHandle) {
  token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0);
  Forget();
  // The record still names the objects, which are gone.
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), NTE_INTERNAL_ERROR);
  ExpectLines(Lines(key, 0, {kFailed}, NTE_INTERNAL_ERROR));
  EXPECT_EQ(ksp().FreeKey(provider_, key), 0);
  Forget();
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), 0) << "FreeKey forgets the objects";
  ExpectCalls({});
}

#ifdef _WIN64  // see the generation of keys for why
TEST_F(DeleteKeyTest, NothingThatTheTokenThrowsEscapes) {
  token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  token().Before("C_DestroyObject", [](const fake::Call&) { throw 7; });
  EXPECT_EQ(ksp().DeleteKey(provider_, key, 0), NTE_INTERNAL_ERROR);
  ExpectLines(
      Lines(key, 0, {"NTE_INTERNAL_ERROR: The operation ended with an unexpected exception"}, NTE_INTERNAL_ERROR));
  EXPECT_STREQ(kit::KeyOf(key)->pszKeyName, L"Key1");
}
#endif

TEST_F(DeleteKeyTest, RefusesForeignHandles) {
  token().AddKeyPair(Ascii("Key1"), "Key1");
  const NCRYPT_KEY_HANDLE key = Open(L"Key1");
  std::vector<kit::ProviderRecord> providers = BrokenRecords(providerRecord());
  std::vector<NCRYPT_PROV_HANDLE> foreignProviders{0, key};
  for (kit::ProviderRecord& one : providers)
    foreignProviders.push_back(reinterpret_cast<NCRYPT_PROV_HANDLE>(&one));
  const NCRYPT_PROV_HANDLE good = provider_;
  for (const NCRYPT_PROV_HANDLE handle : foreignProviders) {
    provider_ = handle;
    // The provider is looked at before key and flags.
    EXPECT_EQ(ksp().DeleteKey(provider_, 0, 0xFFFFFFFF), NTE_INVALID_HANDLE);
    ExpectLines(Lines(0, 0xFFFFFFFF, {"NTE_INVALID_HANDLE: pProvider is NULL"}, NTE_INVALID_HANDLE));
  }
  provider_ = good;
  std::vector<kit::KeyRecord> records = BrokenRecords(*kit::KeyOf(key));
  std::vector<NCRYPT_KEY_HANDLE> foreignKeys{0, provider_};
  for (kit::KeyRecord& one : records)
    foreignKeys.push_back(reinterpret_cast<NCRYPT_KEY_HANDLE>(&one));
  for (const NCRYPT_KEY_HANDLE handle : foreignKeys) {
    EXPECT_EQ(ksp().DeleteKey(provider_, handle, 0xFFFFFFFF), NTE_INVALID_HANDLE);
    ExpectLines(Lines(handle, 0xFFFFFFFF, {"NTE_INVALID_HANDLE: pKey is NULL"}, NTE_INVALID_HANDLE));
  }
  ExpectCalls({});
}

}  // namespace
