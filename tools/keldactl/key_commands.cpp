#include "cng.h"
#include "commands.h"
#include "output.h"

namespace keldactl {
namespace {

int ListKeys(const Arguments& arguments) {
  const Provider provider(arguments);
  const std::vector<ListedKey> keys = provider.Keys();
  if (keys.empty()) {
    Say(L"There are no keys in " + Quoted(provider.name()) + L".");
    return kExitOk;
  }
  std::vector<std::vector<std::wstring>> rows = {{L"NAME", L"HEX TEXT", L"ALGORITHM"}};
  for (const ListedKey& key : keys) {
    rows.push_back({key.name.empty() ? L"(empty)" : Printable(key.name), HexText(key.name), key.algorithm});
  }
  SayTable(rows);
  return kExitOk;
}

}  // namespace

std::vector<Command> KeyCommands() {
  return {
      {L"keys",
       L"",
       0,
       0,
       L"List the keys",
       {},
       L"A token key has two names: the characters that its identifier (CKA_ID) spells, and the same in\n"
       L"hexadecimal digits. Either can be given as --key; characters that do not print appear as \\xNN, and\n"
       L"then the hex text is the one to use.",
       ListKeys},
  };
}

}  // namespace keldactl
