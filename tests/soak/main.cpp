// soak_tests [GoogleTest's options]              the short run
// soak_tests --seed N --calls N [--guard] [--dialogs N] [--reload N] [--shared-runtime]
//                                                sequences from seed N on, at least so many calls; one of N sequences
//                                                meets tokens whose PIN has to be typed; after each N sequences the
//                                                provider is unloaded and loaded again; a 32-bit program with a shared
//                                                libgcc
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <gtest/gtest.h>

#include "hosts/shared_runtime.h"
#include "kit/process.h"
#include "kit/provider.h"
#include "soak/faults.h"
#include "soak/sequence.h"
#include "soak/watch.h"

namespace {

int RunLong(std::uint64_t seed, std::uint64_t calls, const soak::Options& options) {
  soak::Soak run(options);
  const auto start = std::chrono::steady_clock::now();
  const std::string found = run.Run(seed, calls);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const soak::Tally& tally = run.tally();
  const soak::Faults& faults = soak::Faults::Get();
  std::printf(
      "soak: %llu calls from seed %llu on in %.1f s; %llu dialogs; %llu reloads; faults: %llu allocations, %llu "
      "platform calls, %llu "
      "token calls, %llu lies; %llu blocks stayed behind as they must\n",
      static_cast<unsigned long long>(tally.calls), static_cast<unsigned long long>(seed), seconds,
      static_cast<unsigned long long>(tally.dialogs), static_cast<unsigned long long>(tally.reloads),
      static_cast<unsigned long long>(faults.Played(soak::Fault::Allocation)),
      static_cast<unsigned long long>(faults.Played(soak::Fault::Platform)),
      static_cast<unsigned long long>(faults.Played(soak::Fault::Token)),
      static_cast<unsigned long long>(faults.Played(soak::Fault::Lie)), static_cast<unsigned long long>(tally.excused));
  for (std::size_t slot = 0; slot < tally.succeeded.size(); ++slot) {
    std::printf("soak: %-22s %9llu succeeded %9llu refused\n", slot < 26 ? kit::kSlots[slot] : "GetKeyStorageInterface",
                static_cast<unsigned long long>(tally.succeeded[slot]),
                static_cast<unsigned long long>(tally.refused[slot]));
  }
  if (found.empty()) return 0;
  std::printf("soak: FAILED: %s\n", found.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    ::testing::InitGoogleTest(&argc, argv);
    std::uint64_t seed = 0;
    std::uint64_t calls = 0;
    soak::Options options;
    for (int i = 1; i < argc; ++i) {
      const std::string option = argv[i];
      if (option == "--guard") {
        options.heap = soak::HeapKind::Guard;
#ifdef __i386__
      } else if (option == "--shared-runtime") {
        hosts::LoadSharedRuntime();
#endif
      } else if (i + 1 < argc && option == "--reload") {
        options.reloadAfter = static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      } else if (i + 1 < argc && option == "--dialogs") {
        options.dialogsOneIn = static_cast<std::uint32_t>(std::strtoul(argv[++i], nullptr, 10));
      } else if (i + 1 < argc && (option == "--seed" || option == "--calls")) {
        (option == "--seed" ? seed : calls) = std::strtoull(argv[++i], nullptr, 10);
      } else {
        std::fprintf(stderr, "soak_tests: unknown option %s\n", option.c_str());
        return 2;
      }
    }
    kit::StartKit();
    kit::LoadTokenModule(kit::TokenModule::Working);
    soak::StartWatch();
    const int result = calls ? RunLong(seed, calls, options) : kit::IsChild() ? kit::RunScenario() : RUN_ALL_TESTS();
    kit::StopKit();
    return result;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "soak_tests: %s\n", error.what());
    return 97;
  }
}
