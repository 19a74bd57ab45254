// GetKeyStorageInterface: the one export that the router calls by name.
#include <string>

#include "kit/provider.h"

namespace {

using kit::Frame;
using kit::Hex32;
using kit::Line;
using kit::Pointer32;

class KeyStorageInterfaceTest : public kit::ProviderTest {
 protected:
  static LONG Call(const wchar_t* name, kit::FunctionTable** table, DWORD flags) {
    return kit::Provider::Get().GetKeyStorageInterface(name, table, flags);
  }
  static std::vector<Line> Lines(const std::string& name, const void* table, DWORD flags, const std::string& message,
                                 LONG status) {
    return Frame("GetKeyStorageInterface",
                 {"pszProviderName : " + name, Pointer32("ppFunctionTable : ", table),
                  Hex32("dwFlags         : ", flags), message},
                 status);
  }
};

TEST_F(KeyStorageInterfaceTest, HandsOutTheTable) {
  kit::FunctionTable* table = nullptr;
  EXPECT_EQ(Call(kit::kProviderName, &table, 0x12345678), 0);
  EXPECT_EQ(table, kit::Provider::Get().table);
  ExpectLines(Lines("Norvale Token Works KSP v1.0", &table, 0x12345678,
                    "Function table retrieved - Norvale Token Works KSP 4, 2, 0, 1 x86 (Release Build)", 0));
}

TEST_F(KeyStorageInterfaceTest, RefusesANameThatDiffers) {
  for (const wchar_t* name :
       {L"norvale Token Works KSP v1.0", L"Norvale Token Works KSP V1.0", L"Norvale Token Works KSP v1.0 ",
        L"Norvale Token Works KSP v1.", L"Norvale Token Works KSP", L""}) {
    kit::FunctionTable untouched{};
    kit::FunctionTable* table = &untouched;
    EXPECT_EQ(Call(name, &table, 0), LONG(0xC000000D));
    EXPECT_EQ(table, &untouched) << "nothing is written";
    const std::wstring wide = name;
    ExpectLines(Lines(std::string(wide.begin(), wide.end()), &table, 0,
                      "STATUS_INVALID_PARAMETER: Provider name mismatch.", LONG(0xC000000D)));
  }
}

TEST_F(KeyStorageInterfaceTest, RefusesWithoutTablePointerWhateverTheName) {
  for (const wchar_t* name : {kit::kProviderName, L"another"}) {
    EXPECT_EQ(Call(name, nullptr, 0), NTE_INTERNAL_ERROR);
    const std::wstring wide = name;
    ExpectLines(Lines(std::string(wide.begin(), wide.end()), nullptr, 0,
                      "NTE_INTERNAL_ERROR: ppFunctionTable pointer is NULL", NTE_INTERNAL_ERROR));
  }
}

TEST_F(KeyStorageInterfaceTest, MissingNameIsAMismatch) {
  kit::FunctionTable* table = nullptr;
  EXPECT_EQ(Call(nullptr, &table, 0), LONG(0xC000000D));
  ExpectLines(Lines("", &table, 0, "STATUS_INVALID_PARAMETER: Provider name mismatch.", LONG(0xC000000D)));
}

TEST_F(KeyStorageInterfaceTest, TouchesNeitherTokenNorRegistry) {
  kit::FunctionTable* table = nullptr;
  EXPECT_EQ(Call(kit::kProviderName, &table, 0), 0);
  ExpectCalls({});
  EXPECT_TRUE(kit::Registry::Get().TakeReads().empty());
}

}  // namespace
