// Colours on a terminal.
#pragma once

#include "syntax.h"

#include <string>

namespace keldactl {

enum class Colour { kPlain, kRed, kYellow };

inline constexpr const wchar_t* kColourAuto = L"auto";

// --colour auto|always|never
void AddColourOption(Syntax& syntax, std::wstring& option);
// What the option asks for; auto is a terminal that understands colours.
bool WantsColour(const std::wstring& option);
// The line between the sequences (ECMA-48, SGR) that colour it.
std::wstring Coloured(const std::wstring& line, Colour colour);

}  // namespace keldactl
