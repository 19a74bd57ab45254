// keldactl: an ordinary CNG program that works with the keys of any key storage provider.

#include "arguments.h"
#include "commands.h"
#include "output.h"

#include <cwchar>
#include <iterator>

using namespace keldactl;

namespace {

std::vector<Command> AllCommands() {
  std::vector<Command> all;
  for (auto group :
       {KeyCommands, SigningCommands, CertificateCommands, BlobCommands, CipherCommands, ProviderCommands}) {
    std::vector<Command> commands = group();
    all.insert(all.end(), std::make_move_iterator(commands.begin()), std::make_move_iterator(commands.end()));
  }
  return all;
}

int Run(const std::vector<std::wstring>& words) {
  const std::vector<Command> commands = AllCommands();
  if (words.empty()) {
    Complain(OverallHelp(commands));
    return kExitUsage;
  }
  if (words[0] == L"--help" || words[0] == L"-h" || words[0] == L"help") {
    Say(OverallHelp(commands));
    return kExitOk;
  }
  for (const Command& command : commands) {
    if (words[0] != command.name) continue;
    try {
      const Arguments arguments(command, {words.begin() + 1, words.end()});
      if (arguments.Has(L"--help")) {
        Say(CommandHelp(command));
        return kExitOk;
      }
      return command.run(arguments);
    } catch (const UsageError& error) {
      Complain(L"keldactl " + words[0] + L": " + error.message());
      Complain(L"\"keldactl " + words[0] + L" --help\" tells how it goes.");
      return kExitUsage;
    } catch (const Failure& failure) {
      Complain(L"keldactl " + words[0] + L": " + failure.message());
      return kExitFailed;
    }
  }
  Complain(L"keldactl: unknown command " + Quoted(words[0]) + L"; \"keldactl --help\" lists them.");
  return kExitUsage;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  try {
    return Run({argv + 1, argv + argc});
  } catch (const std::exception&) {
    Complain(L"keldactl: there is not enough memory");
    return kExitFailed;
  }
}
