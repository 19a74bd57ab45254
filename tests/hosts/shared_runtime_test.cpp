// A 32-bit program of MinGW's that shares its runtime library: libgcc_s_dw2-1.dll is there before the provider is.
// GCC's start-up code then hands the DLL's frame tables to it, and exceptions inside the DLL must find their way all
// the same.
#ifdef __i386__

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_token/fake_token.h"
#include "hosts/shared_runtime.h"
#include "kit/ksp.h"
#include "kit/process.h"
#include "kit/provider.h"
#include "kit/readers.h"

namespace {

// In the child: the whole kit, with its hooks, since memory has to run out.
int WithSharedRuntime(int (*body)()) {
  hosts::LoadSharedRuntime();
  kit::StartKit();
  const int result = body();
  kit::StopKit();
  return result;
}

NCRYPT_PROV_HANDLE LoadAndOpen() {
  kit::LoadTokenModule(kit::TokenModule::Working);
  fake::Token().AddSlot("Reader 0");
  NCRYPT_PROV_HANDLE provider = 0;
  if (!kit::Provider::Get().Load(kit::Log::Mode::Off) ||
      kit::Provider::Get().table->OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG) != 0) {
    throw std::runtime_error("no provider");
  }
  return provider;
}

const kit::Scenario kMissing("shared_runtime_missing_module", [] {
  return WithSharedRuntime([] {
    if (kit::Provider::Get().Load(kit::Log::Mode::Off)) return 1;
    kit::Print("failed " + std::to_string(kit::Provider::Get().loadError()));
    return 0;
  });
});

const kit::Scenario kNoDialog("shared_runtime_no_dialog", [] {
  return WithSharedRuntime([] {
    kit::LoadTokenModule(kit::TokenModule::Working);
    fake::Token().AddSlot("Reader 0");
    fake::Token().AddSlot("Reader 1");
    if (!kit::Provider::Get().Load(kit::Log::Mode::Off)) return 1;
    kit::Readers readers;
    readers.establishResult = SCARD_E_NO_SERVICE;
    NCRYPT_PROV_HANDLE provider = 0;
    kit::Print("open " + std::to_string(kit::Provider::Get().table->OpenProvider(&provider, kit::kProviderName, 0)));
    return 0;
  });
});

const kit::Scenario kNoMemory("shared_runtime_no_memory", [] {
  return WithSharedRuntime([] {
    const NCRYPT_PROV_HANDLE provider = LoadAndOpen();
    const kit::FunctionTable& table = *kit::Provider::Get().table;
    BYTE input[2] = {};
    for (int i = 0; i < 2; ++i) {
      kit::MemoryWatch watch;
      watch.FailWhen([](std::size_t, std::size_t) { return true; });
      const LONG status =
          table.SetProviderProperty(provider, NCRYPT_USE_CONTEXT_PROPERTY, input, sizeof(input), NCRYPT_SILENT_FLAG);
      watch.StopFailing();
      kit::Print("set " + std::to_string(status));
    }
    kit::Print("free " + std::to_string(table.FreeProvider(provider)));
    kit::Provider::Get().Unload();
    // Once more, after the frame tables were taken back.
    const NCRYPT_PROV_HANDLE again = LoadAndOpen();
    kit::Print("set " + std::to_string(kit::Provider::Get().table->SetProviderProperty(
                            again, NCRYPT_USE_CONTEXT_PROPERTY, input, 0x7FFFFFFF, 0)));
    return 0;
  });
});

// The DLL as it looks when it was linked with its symbols: the name of the section of the frame tables is too long for
// the header and stands in a table that is not loaded.
std::wstring WithASectionNameInTheSymbolTable() {
  std::ifstream from(std::filesystem::path(kit::ProgramFolder() + L"keldaksp.dll"), std::ios::binary);
  std::string image((std::istreambuf_iterator<char>(from)), std::istreambuf_iterator<char>());
  const std::string name = ".eh_fram";
  const std::size_t at = image.substr(0, 0x1000).find(name);
  if (at == std::string::npos) throw std::runtime_error("no section of frame tables");
  image.replace(at, name.size(), std::string("/4\0\0\0\0\0\0", name.size()));
  const std::wstring path = kit::ProgramFolder() + L"..\\hosts\\keldaksp_with_symbols.dll";
  std::ofstream(std::filesystem::path(path), std::ios::binary) << image;
  return path;
}

const kit::Scenario kUnstripped("shared_runtime_unstripped", [] {
  hosts::LoadSharedRuntime();
  kit::Registry::Get().Redirect();
  kit::Registry::Get().SetDefaults();
  kit::LoadTokenModule(kit::TokenModule::Working);
  fake::Token().AddSlot("Reader 0");
  const std::wstring path = WithASectionNameInTheSymbolTable();
  const HMODULE module = LoadLibraryW(path.c_str());
  if (module == nullptr) return 1;
  const auto get = reinterpret_cast<kit::GetKeyStorageInterfaceFn>(
      reinterpret_cast<void*>(GetProcAddress(module, "GetKeyStorageInterface")));
  kit::FunctionTable* table = nullptr;
  NCRYPT_PROV_HANDLE provider = 0;
  if (get(kit::kProviderName, &table, 0) != 0 ||
      table->OpenProvider(&provider, kit::kProviderName, NCRYPT_SILENT_FLAG) != 0) {
    return 2;
  }
  BYTE input[2] = {};
  kit::Print("set " +
             std::to_string(table->SetProviderProperty(provider, NCRYPT_USE_CONTEXT_PROPERTY, input, 0x7FFFFFFF, 0)));
  table->FreeProvider(provider);
  FreeLibrary(module);
  DeleteFileW(path.c_str());
  kit::Registry::Get().Release();
  return 0;
});

void ExpectLines(const char* scenario, const std::vector<std::string>& lines) {
  const kit::ChildResult child = kit::RunChild(scenario);
  EXPECT_EQ(child.exitCode, 0u);
  EXPECT_EQ(child.lines, lines);
}

TEST(SharedRuntime, MissingModuleFailsTheLoad) {
  ExpectLines("shared_runtime_missing_module", {"failed " + std::to_string(ERROR_DLL_INIT_FAILED)});
}

TEST(SharedRuntime, DialogThatCannotBeMadeIsAStatus) {
  ExpectLines("shared_runtime_no_dialog", {"open " + std::to_string(NTE_FAIL)});
}

TEST(SharedRuntime, MemoryThatRunsOutIsAStatus) {
  const std::string set = "set " + std::to_string(NTE_NO_MEMORY);
  ExpectLines("shared_runtime_no_memory", {set, set, "free 0", set});
}

TEST(SharedRuntime, ADllWithSymbolsFindsItsFrameTables) {
  ExpectLines("shared_runtime_unstripped", {"set " + std::to_string(NTE_NO_MEMORY)});
}

}  // namespace

#endif
