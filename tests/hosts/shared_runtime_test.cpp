// A 32-bit program of MinGW's that shares its runtime library: libgcc_s_dw2-1.dll is there before the provider is.
// GCC's start-up code then hands the DLL's frame tables to it, and exceptions inside the DLL must find their way all
// the same.
#ifdef __i386__

#include <windows.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "fake_token/fake_token.h"
#include "kit/ksp.h"
#include "kit/process.h"
#include "kit/provider.h"
#include "kit/readers.h"

namespace {

void LoadSharedRuntime() {
  const std::wstring folder = kit::ProgramFolder() + L"..\\hosts\\";
  for (const wchar_t* library : {L"libwinpthread-1.dll", L"libgcc_s_dw2-1.dll"}) {
    if (LoadLibraryW((folder + library).c_str()) == nullptr) throw std::runtime_error("a shared library is missing");
  }
}

// In the child: the whole kit, with its hooks, since memory has to run out.
int WithSharedRuntime(int (*body)()) {
  LoadSharedRuntime();
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

}  // namespace

#endif
