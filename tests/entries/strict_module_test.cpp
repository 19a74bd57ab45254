// Modules that hold the letter of PKCS#11: what they refuse must not be asked of them.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "kit/dialogs.h"
#include "kit/provider.h"

namespace {

using fake::Ascii;

class StrictModuleTest : public kit::OpenedProviderTest {
 protected:
  std::vector<std::string> Searches() const {
    std::vector<std::string> texts;
    for (const fake::Call& call : token().Calls()) {
      if (call.function == "C_FindObjects") texts.push_back(call.text);
    }
    return texts;
  }
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
  EXPECT_EQ(BuildList(), NTE_NO_MORE_ITEMS);
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
  EXPECT_EQ(BuildList(), 0);
  ASSERT_EQ(providerRecord().cKeyObjects, 1u);
  EXPECT_STREQ(providerRecord().pKeyObjects[0].pszKeyName, L"Late");
}

// Modules that leave out what they cannot do: the list has null pointers in it.
class IncompleteModuleTest : public kit::ProviderTest {
 protected:
  void TearDown() override {
    kit::Provider::Get().Unload();  // the next test loads anew, with a whole list
    kit::ProviderTest::TearDown();
  }
  // The provider with a list in which leaveOut has left gaps.
  bool LoadWith(const std::function<void(fake::FunctionList&)>& leaveOut) {
    kit::Provider::Get().Unload();
    leaveOut(*token().List());
    return kit::Provider::Get().Load(kit::Log::Mode::Tagged);
  }
  static bool Logged(const std::string& name) {
    const kit::Line line = "CKR_FUNCTION_NOT_SUPPORTED: The PKCS#11 library has no " + name;
    const std::vector<kit::Line> lines = kit::Log::Get().Take();
    return std::count(lines.begin(), lines.end(), line) == 1;
  }

  const fake::ListGuard guard_;
};

TEST_F(IncompleteModuleTest, MissingEntryIsAFailureWhenItIsUsed) {
  ASSERT_TRUE(LoadWith([](fake::FunctionList& list) {
    list.standard.C_GetSlotInfo = nullptr;
    list.standard.C_WaitForSlotEvent = nullptr;  // used by nobody
  }));
  AddReader();
  NCRYPT_PROV_HANDLE provider = 0;
  EXPECT_EQ(ksp().OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(Logged("C_GetSlotInfo"));
}

TEST_F(IncompleteModuleTest, EntriesMayBePutInPlaceByTheInitialisation) {
  ASSERT_TRUE(LoadWith([](fake::FunctionList& list) {
    static decltype(list.standard.C_GetSlotList) kept;
    static fake::FunctionList* module;
    kept = list.standard.C_GetSlotList;
    module = &list;
    list.standard.C_GetSlotList = nullptr;
    list.standard.C_Initialize = [](void*) -> CK_RV {
      module->standard.C_GetSlotList = kept;
      return CKR_OK;
    };
  }));
  AddReader();
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  EXPECT_NE(provider, 0u);
  ksp().FreeProvider(provider);
}

TEST_F(IncompleteModuleTest, TheOtherEntriesGoOnWorking) {
  ASSERT_TRUE(LoadWith([](fake::FunctionList& list) { list.standard.C_DestroyObject = nullptr; }));
  AddReader();
  const fake::KeyPair pair = token().AddKeyPair(Ascii("Key1"), "");
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const NCRYPT_KEY_HANDLE key = OpenKey(provider, L"Key1");
  ASSERT_NE(key, 0u);
  EXPECT_EQ(ksp().DeleteKey(provider, key, 0), NTE_INTERNAL_ERROR);
  EXPECT_TRUE(Logged("C_DestroyObject"));
  EXPECT_TRUE(token().HasObject(pair.publicKey));
  ksp().FreeProvider(provider);
}

TEST_F(IncompleteModuleTest, MissingLoginEntryIsAFailedLogin) {
  ASSERT_TRUE(LoadWith([](fake::FunctionList& list) { list.login = nullptr; }));
  AddReader();
  token().AddKeyPair(Ascii("Key1"), "");
  const NCRYPT_PROV_HANDLE provider = OpenProvider();
  const NCRYPT_KEY_HANDLE key = OpenKey(provider, L"Key1");
  kit::DialogRobot robot({[](kit::Dialog& dialog) {
    dialog.Type(kit::kPinField, L"1234");
    dialog.PressOk();
  }});
  BYTE hash[20] = {};
  DWORD length = 0;
  ksp().SignHash(provider, key, nullptr, hash, sizeof(hash), nullptr, 0, &length, 0);
  EXPECT_EQ(robot.Finish(), 1u);
  EXPECT_TRUE(Logged("login entry"));
  ksp().FreeKey(provider, key);
  ksp().FreeProvider(provider);
}

TEST_F(IncompleteModuleTest, ModuleThatCannotBeInitialisedFailsTheLoad) {
  EXPECT_FALSE(LoadWith([](fake::FunctionList& list) { list.standard.C_Initialize = nullptr; }));
  EXPECT_TRUE(Logged("C_Initialize"));
}

}  // namespace
