// keldactl: an ordinary CNG program that works with the keys of any key storage provider.

#include "commands.h"
#include "output.h"
#include "platform.h"
#include "standard_output.h"
#include "unicode.h"

#include <string>
#include <vector>

using namespace keldactl;

namespace {

// The overall help lists the commands of a heading in this order.
constexpr void (*kCommands[])(Program&) = {
    AddKeyCommands,      AddSigningCommands,      AddCipherCommands,
    AddBlobCommands,     AddCertificateCommands,  AddCertificateStoreCommands,
    AddProviderCommands, AddRegistrationCommands, AddCheckCommand,
    AddLogCommand,       AddVersionCommand,
};

int Run(int argc, wchar_t** argv) {
  Program program;
  for (const auto add : kCommands)
    add(program);
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i)
    words.push_back(Utf8(argv[i]));
  return static_cast<int>(program.Run(std::move(words)));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  // A DLL that lies in the folder where somebody happens to stand is nobody's that is meant.
  SetDllDirectoryW(L"");
  KeepStandardOutput();
  try {
    return Run(argc, argv);
  } catch (const std::bad_alloc&) {
    Complain(L"keldactl: there is not enough memory");
  } catch (const std::exception& failure) {
    Complain(L"keldactl: " + Printable(Wide(failure.what())));
  }
  return static_cast<int>(ExitStatus::kFailed);
}
