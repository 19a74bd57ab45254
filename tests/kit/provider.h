// keldaksp.dll, loaded into the test process beside the fake token module.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "fake_token/fake_token.h"
#include "kit/imports.h"
#include "kit/ksp.h"
#include "kit/log.h"
#include "kit/memory.h"
#include "kit/registry.h"

namespace kit {

std::wstring ProgramFolder();  // of the test program, with a final backslash

// keldapkcs11.dll. The provider finds it by its bare name because it is loaded already.
enum class TokenModule { None, Working, WithoutList };
void LoadTokenModule(TokenModule kind);

class Provider {
 public:
  static Provider& Get();

  // Loads the DLL with the log in the given mode. On failure returns false with the last error kept in loadError().
  bool Load(Log::Mode mode);
  // The same with the registry as it is.
  bool LoadAsConfigured();
  void Unload();
  bool loaded() const { return module_ != nullptr; }
  DWORD loadError() const { return loadError_; }
  HMODULE module() const { return module_; }

  GetKeyStorageInterfaceFn GetKeyStorageInterface = nullptr;
  // The table that GetKeyStorageInterface handed out.
  const FunctionTable* table = nullptr;
  FARPROC Export(const std::string& name) const;

 private:
  HMODULE module_ = nullptr;
  DWORD loadError_ = 0;
};

// Sets up what every test program needs: the redirected registry, the debugger capture, the loader notification.
// Called by main() of the kit.
void StartKit();
void StopKit();

// The base of the tests of single entries: provider loaded with tagged log lines, empty fake token, registry with its
// defaults, nothing captured.
class ProviderTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // The function table of the loaded provider.
  const FunctionTable& ksp() const;
  fake::Module& token() const { return fake::Token(); }

  // One slot with a token; the description is the reader's name.
  fake::Slot& AddReader(const std::string& name = "Reader 0") { return token().AddSlot(name); }
  // Opens a provider silently and forgets lines and token calls of it.
  NCRYPT_PROV_HANDLE OpenProvider(DWORD flags = NCRYPT_SILENT_FLAG);
  NCRYPT_KEY_HANDLE OpenKey(NCRYPT_PROV_HANDLE provider, const wchar_t* name);
  // Makes the provider know the PIN of the provider handle's token: a size query of a signature whose PIN dialog is
  // answered. From then on the token needs no dialog.
  void CachePin(NCRYPT_PROV_HANDLE provider, NCRYPT_KEY_HANDLE key, const std::string& pin = "1234");
  // Forgets lines, token calls and registry reads.
  void Forget();

  // Compares all lines since the last look with the expected ones, instance by instance.
  void ExpectLines(const std::vector<Line>& expected);
  void ExpectCalls(const std::vector<std::string>& expected);

  // A block of the allocator that all blocks of the provider come from.
  static BYTE* Block(std::string_view text);
  // Whether the last block of at least this size that was released at the address held nothing but zeros in it.
  static ::testing::AssertionResult WipedAndFreed(const MemoryWatch& watch, const void* address, std::size_t size);

  // Lets each allocation of a call fail in turn, until one attempt needs no more allocations than it gets. What the
  // call answers is judged by check(status, nth), which tells whether nothing that was allocated may stay behind. Each
  // failure is tried twice, since the runtime library keeps what it needs for a thread's first exception.
  template <typename Call, typename Check>
  void FailEachAllocation(Call call, Check check) {
    constexpr std::size_t kEnough = 500;
    bool reached = true;
    for (std::size_t nth = 1; reached && nth < kEnough; ++nth) {
      for (const bool first : {true, false}) {
        MemoryWatch watch;
        watch.FailAllocation(nth);
        const SECURITY_STATUS status = call();
        reached = watch.Allocations() >= nth;
        watch.StopFailing();
        const bool clean = check(status, nth);
        if (!first && clean) {
          EXPECT_TRUE(watch.Live().empty()) << "allocation " << nth;
        }
      }
    }
    EXPECT_FALSE(reached);
    Forget();
  }
};

// A provider on one reader, with session 0x51 on slot 11. A test that frees it says so with provider_ = 0.
class OpenedProviderTest : public ProviderTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  ProviderRecord& providerRecord() const { return *RecordOf(provider_); }
  // Starts an enumeration, which builds the key object list anew; frees what it hands out.
  SECURITY_STATUS BuildList();

  NCRYPT_PROV_HANDLE provider_ = 0;
};

// Readable comparison of two lists: says where they part.
::testing::AssertionResult SameLines(const std::vector<Line>& expected, const std::vector<Line>& actual);
::testing::AssertionResult SameTexts(const std::vector<std::string>& expected, const std::vector<std::string>& actual);

#define KIT_EXPECT_LINES(...) EXPECT_TRUE(::kit::SameLines((__VA_ARGS__), ::kit::Log::Get().Take()))
#define KIT_EXPECT_CALLS(...) EXPECT_TRUE(::kit::SameTexts((__VA_ARGS__), ::fake::Token().TakeTexts()))

}  // namespace kit
