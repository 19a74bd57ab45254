// Modules that hold the letter of PKCS#11: what they refuse must not be asked of them.
#include <string>
#include <vector>

#include "kit/provider.h"

namespace {

using fake::Ascii;

class StrictModuleTest : public kit::ProviderTest {
 protected:
  void SetUp() override {
    kit::ProviderTest::SetUp();
    AddReader();
    provider_ = OpenProvider();
  }
  void TearDown() override {
    ksp().FreeProvider(provider_);
    kit::ProviderTest::TearDown();
  }
  SECURITY_STATUS StartEnumeration() {
    NCryptKeyName* name = nullptr;
    PVOID state = nullptr;
    const SECURITY_STATUS status = ksp().EnumKeys(provider_, nullptr, &name, &state, 0);
    if (name != nullptr) ksp().FreeBuffer(name);
    if (state != nullptr) ksp().FreeBuffer(state);
    return status;
  }
  std::vector<std::string> Searches() const {
    std::vector<std::string> texts;
    for (const fake::Call& call : token().Calls()) {
      if (call.function == "C_FindObjects") texts.push_back(call.text);
    }
    return texts;
  }

  NCRYPT_PROV_HANDLE provider_ = 0;
};

const char kCount[] = "C_FindObjects(session=0x51, objects=NULL, maximum=1000)";
const char kFetchOne[] = "C_FindObjects(session=0x51, objects=PTR, maximum=1)";

// Many modules answer CKR_ARGUMENTS_BAD to a maximum of 0.
TEST_F(StrictModuleTest, TokenWithoutKeysIsAskedForOneObject) {
  fake::ListGuard guard;
  static CK_C_FindObjects findObjects;
  CK_FUNCTION_LIST& functions = token().List()->standard;
  findObjects = functions.C_FindObjects;
  functions.C_FindObjects = [](CK_SESSION_HANDLE session, CK_OBJECT_HANDLE* objects, CK_ULONG maximum,
                               CK_ULONG* count) -> CK_RV {
    return maximum != 0 ? findObjects(session, objects, maximum, count) : CK_RV{CKR_ARGUMENTS_BAD};
  };
  EXPECT_EQ(StartEnumeration(), NTE_NO_MORE_ITEMS);
  EXPECT_TRUE(kit::SameTexts({kCount, kFetchOne, kCount, kFetchOne}, Searches()));
  NCRYPT_KEY_HANDLE key = 0;
  EXPECT_EQ(ksp().OpenKey(provider_, &key, L"Key1", 1, 0), NTE_BAD_KEYSET);
}

// ... and a key that appears between the passes is taken when it is handed out.
TEST_F(StrictModuleTest, KeyThatAppearsBetweenThePasses) {
  std::size_t searches = 0;
  token().Before("C_FindObjectsInit", [&](const fake::Call&) {
    if (++searches == 2) token().AddPublicKey(Ascii("Late"), "");
  });
  EXPECT_EQ(StartEnumeration(), 0);
  const auto* record = kit::RecordOf(provider_);
  ASSERT_EQ(record->cKeyObjects, 1u);
  EXPECT_STREQ(record->pKeyObjects[0].pszKeyName, L"Late");
}

}  // namespace
