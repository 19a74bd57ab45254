// What the Explorer and installers show of the DLL.
#include <array>
#include <string>

#include "kit/provider.h"

namespace {

class VersionResourceTest : public kit::ProviderTest {
 protected:
  // The resource's bytes, with the room behind them that VerQueryValueW may use.
  std::vector<BYTE> Version() {
    const HMODULE module = kit::Provider::Get().module();
    const HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(VS_VERSION_INFO), RT_VERSION);
    if (found == nullptr) return {};
    const auto* bytes = static_cast<const BYTE*>(LockResource(LoadResource(module, found)));
    std::vector<BYTE> result(bytes, bytes + SizeofResource(module, found));
    result.resize(result.size() * 2);
    return result;
  }
};

TEST_F(VersionResourceTest, SaysWhatTheFileIs) {
  const std::vector<BYTE> version = Version();
  ASSERT_FALSE(version.empty());
  void* value = nullptr;
  UINT size = 0;
  ASSERT_TRUE(VerQueryValueW(version.data(), L"\\", &value, &size));
  ASSERT_EQ(size, sizeof(VS_FIXEDFILEINFO));
  const auto* fixed = static_cast<const VS_FIXEDFILEINFO*>(value);
  EXPECT_EQ(fixed->dwFileVersionMS, 0x00040002u);
  EXPECT_EQ(fixed->dwFileVersionLS, 0x00000001u);
  EXPECT_EQ(fixed->dwProductVersionMS, 0x00040002u);
  EXPECT_EQ(fixed->dwProductVersionLS, 0x00000001u);
  EXPECT_EQ(fixed->dwFileFlagsMask, static_cast<DWORD>(VS_FFI_FILEFLAGSMASK));
  EXPECT_EQ(fixed->dwFileFlags, 0u);
  EXPECT_EQ(fixed->dwFileOS, static_cast<DWORD>(VOS_NT_WINDOWS32));
  EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
  EXPECT_EQ(fixed->dwFileSubtype, static_cast<DWORD>(VFT2_UNKNOWN));
}

TEST_F(VersionResourceTest, HoldsItsTextsInEnglish) {
  const std::vector<BYTE> version = Version();
  ASSERT_FALSE(version.empty());
  void* value = nullptr;
  UINT size = 0;
  ASSERT_TRUE(VerQueryValueW(version.data(), L"\\VarFileInfo\\Translation", &value, &size));
  ASSERT_EQ(size, 4u);
  EXPECT_EQ(*static_cast<const DWORD*>(value), 0x04B00409u);

  const std::array<std::array<const wchar_t*, 2>, 8> texts = {
      {{L"CompanyName", L"Norvale Token Works Ltd."},
       {L"FileDescription", L"Norvale Token Works key storage provider"},
       {L"FileVersion", L"4.2.0.1"},
       {L"InternalName", L"keldaksp"},
       {L"LegalCopyright", L"Norvale Token Works Ltd."},
       {L"OriginalFilename", L"keldaksp.dll"},
       {L"ProductName", L"Norvale Token Works KSP"},
       {L"ProductVersion", L"4.2.0.1"}}};
  for (const auto& [name, text] : texts) {
    const std::wstring path = std::wstring(L"\\StringFileInfo\\040904B0\\") + name;
    ASSERT_TRUE(VerQueryValueW(version.data(), path.c_str(), &value, &size)) << "text " << name;
    EXPECT_EQ(std::wstring(static_cast<const wchar_t*>(value)), text);
  }
}

}  // namespace
