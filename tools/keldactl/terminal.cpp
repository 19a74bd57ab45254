#include "terminal.h"

#include "standard_output.h"

namespace keldactl {
namespace {

// Older headers lack the name.
constexpr DWORD kVirtualTerminalProcessing = 0x0004;

bool TerminalTakesColours() {
  const HANDLE output = StandardOutput();
  DWORD mode = 0;
  return GetConsoleMode(output, &mode) && SetConsoleMode(output, mode | kVirtualTerminalProcessing);
}

}  // namespace

void AddColourOption(Syntax& syntax, std::wstring& option) {
  syntax.Choice("--colour", option, {"auto", "always", "never"}, "WHEN",
                "show failures in colour: auto (on a terminal), always or never");
}

bool WantsColour(const std::wstring& option) {
  if (option == L"always") return true;
  return option == kColourAuto && TerminalTakesColours();
}

std::wstring Coloured(const std::wstring& line, Colour colour) {
  switch (colour) {
    case Colour::kRed:
      return L"\x1B[31m" + line + L"\x1B[0m";
    case Colour::kYellow:
      return L"\x1B[33m" + line + L"\x1B[0m";
    default:
      return line;
  }
}

}  // namespace keldactl
