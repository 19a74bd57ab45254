// What keldactl says. Text goes to a console as it is and into files and pipes as UTF-8.
#pragma once

#include "failure.h"

#include <string>
#include <string_view>
#include <vector>

namespace keldactl {

// One line on standard output, and on standard error; the line end is added.
void Say(std::wstring_view line);
void Complain(std::wstring_view line);
// Text on standard output without a line end of its own, and whether that is a terminal.
void SayText(std::wstring_view text);
bool IsTerminal();
// Something that the user should know although the command goes on: "keldactl: warning: …" on standard error.
void Warn(std::wstring_view line);
// Why a command (or, with an empty name, the program) ends; the advice may be empty.
void ComplainAbout(const std::wstring& command, const std::wstring& message, const std::wstring& advice);
// Text on standard error as it is, for progress; nothing when standard error is no terminal.
void Murmur(std::wstring_view text);

// Rows in columns that line up; the first row is the heading.
void SayTable(const std::vector<std::vector<std::wstring>>& rows);

// Asks on the console; true only for an answer that begins with y or Y.
bool Confirm(std::wstring_view question);

// A name as it can be shown on one line: characters that do not print appear as \xNN or \uNNNN.
std::wstring Printable(std::wstring_view name);
// The name in quotes.
std::wstring Quoted(std::wstring_view name);

}  // namespace keldactl
