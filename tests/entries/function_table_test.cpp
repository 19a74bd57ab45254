// The DLL's exports and imports, its function table and the bits of its file header.
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <set>
#include <string>

#include "kit/provider.h"

namespace {

using kit::Provider;

class FunctionTableTest : public kit::ProviderTest {};

std::vector<std::string> ExportedNames(HMODULE module) {
  const auto* base = reinterpret_cast<const BYTE*>(module);
  const auto* nt =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto* directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(
      base + nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT].VirtualAddress);
  const auto* names = reinterpret_cast<const DWORD*>(base + directory->AddressOfNames);
  std::vector<std::string> result;
  for (DWORD i = 0; i < directory->NumberOfNames; ++i)
    result.emplace_back(reinterpret_cast<const char*>(base + names[i]));
  EXPECT_EQ(directory->NumberOfFunctions, directory->NumberOfNames) << "something is exported without a name";
  return result;
}

TEST_F(FunctionTableTest, ExportsExactlyTheEntryAndThe26FunctionsUndecorated) {
  std::vector<std::string> expected{"GetKeyStorageInterface"};
  for (const char* slot : kit::kSlots)
    expected.push_back(std::string("KELDAKSP") + slot);
  std::sort(expected.begin(), expected.end());
  std::vector<std::string> exported = ExportedNames(Provider::Get().module());
  std::sort(exported.begin(), exported.end());
  EXPECT_EQ(exported, expected);
}

TEST_F(FunctionTableTest, IsVersionOneDotZero) {
  EXPECT_EQ(ksp().majorVersion, 1);
  EXPECT_EQ(ksp().minorVersion, 0);
}

TEST_F(FunctionTableTest, HoldsTheExportsInSlotOrder) {
  const auto* bytes = reinterpret_cast<const BYTE*>(&ksp());
  for (std::size_t slot = 0; slot < 26; ++slot) {
    void* entry = nullptr;
    std::memcpy(&entry, bytes + offsetof(kit::FunctionTable, OpenProvider) + slot * sizeof(void*), sizeof entry);
    const std::string name = std::string("KELDAKSP") + kit::kSlots[slot];
    EXPECT_EQ(entry, reinterpret_cast<void*>(Provider::Get().Export(name))) << "slot " << slot + 1 << ", " << name;
  }
}

TEST_F(FunctionTableTest, IsTheSameForEveryCaller) {
  kit::FunctionTable* first = nullptr;
  kit::FunctionTable* second = nullptr;
  EXPECT_EQ(Provider::Get().GetKeyStorageInterface(kit::kProviderName, &first, 0), 0);
  EXPECT_EQ(Provider::Get().GetKeyStorageInterface(kit::kProviderName, &second, 0xFFFFFFFF), 0);
  EXPECT_NE(first, nullptr);
  EXPECT_EQ(first, second);
}

TEST_F(FunctionTableTest, IsConstantData) {
  MEMORY_BASIC_INFORMATION page{};
  ASSERT_NE(VirtualQuery(&ksp(), &page, sizeof page), 0u);
  EXPECT_EQ(page.AllocationBase, static_cast<void*>(Provider::Get().module())) << "the DLL's own, not a copy";
  EXPECT_EQ(page.Protect, DWORD{PAGE_READONLY});
}

TEST_F(FunctionTableTest, VersionResourceSays4201) {
  const HMODULE module = Provider::Get().module();
  const HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(VS_VERSION_INFO), MAKEINTRESOURCEW(16));
  ASSERT_NE(resource, nullptr);
  const auto* bytes = static_cast<const BYTE*>(LockResource(LoadResource(module, resource)));
  const DWORD signature = VS_FFI_SIGNATURE;
  const auto* mark = reinterpret_cast<const BYTE*>(&signature);
  const auto* fixed = std::search(bytes, bytes + SizeofResource(module, resource), mark, mark + sizeof signature);
  ASSERT_NE(fixed, bytes + SizeofResource(module, resource));
  VS_FIXEDFILEINFO info;
  std::memcpy(&info, fixed, sizeof info);
  EXPECT_EQ(info.dwFileVersionMS, 0x00040002u);
  EXPECT_EQ(info.dwFileVersionLS, 0x00000001u);
  EXPECT_EQ(info.dwProductVersionMS, 0x00040002u);
  EXPECT_EQ(info.dwProductVersionLS, 0x00000001u);
  const std::wstring texts(reinterpret_cast<const wchar_t*>(bytes), SizeofResource(module, resource) / sizeof(wchar_t));
  const std::wstring zero(1, L'\0');
  for (const wchar_t* name : {L"FileVersion", L"ProductVersion"}) {
    const std::size_t place = texts.find(name);
    ASSERT_NE(place, std::wstring::npos);
    // The value follows its name and perhaps a character of padding.
    const std::size_t value = texts.find_first_not_of(L'\0', place + std::wcslen(name));
    EXPECT_EQ(texts.substr(value, 8), L"4.2.0.1" + zero);
  }
}

TEST_F(FunctionTableTest, ImportsWindowsOwnDllsOnly) {
  const std::set<std::string> allowed{"advapi32.dll", "bcrypt.dll",   "crypt32.dll", "gdi32.dll",
                                      "kernel32.dll", "msvcrt.dll",   "ole32.dll",   "user32.dll",
                                      "winscard.dll", "comctl32.dll", "shell32.dll"};
  for (const std::string& import : kit::Imports::Get().Names()) {
    std::string library = import.substr(0, import.find('!'));
    for (char& character : library)
      character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    EXPECT_TRUE(allowed.contains(library)) << import;
  }
}

TEST_F(FunctionTableTest, FileIsHardened) {
  const auto* base = reinterpret_cast<const BYTE*>(Provider::Get().module());
  const auto* nt =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const WORD flags = nt->OptionalHeader.DllCharacteristics;
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
#ifdef _WIN64
  EXPECT_TRUE(flags & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
#endif
  const auto* section = reinterpret_cast<const IMAGE_SECTION_HEADER*>(
      reinterpret_cast<const BYTE*>(&nt->OptionalHeader) + nt->FileHeader.SizeOfOptionalHeader);
  for (WORD i = 0; i < nt->FileHeader.NumberOfSections; ++i, ++section) {
    const DWORD both = IMAGE_SCN_MEM_EXECUTE | IMAGE_SCN_MEM_WRITE;
    EXPECT_NE(section->Characteristics & both, both) << "section " << i << " is writable and executable";
  }
}

}  // namespace
