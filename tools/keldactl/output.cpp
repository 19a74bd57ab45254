#include "output.h"

#include "standard_output.h"
#include "text_rules.h"
#include "unicode.h"

#include <algorithm>

namespace keldactl {
namespace {

HANDLE Stream(DWORD stream) {
  return stream == STD_OUTPUT_HANDLE ? StandardOutput() : GetStdHandle(stream);
}

// A console that is to be written to, or nothing for files, pipes and what is closed.
HANDLE Console(DWORD stream) {
  HANDLE handle = Stream(stream);
  DWORD mode = 0;
  return handle && handle != INVALID_HANDLE_VALUE && GetConsoleMode(handle, &mode) ? handle : nullptr;
}

// Colours are for terminals whose user has not declined them (https://no-color.org).
bool HasColours(DWORD stream) {
  HANDLE console = Console(stream);
  DWORD mode = 0;
  if (!console || GetEnvironmentVariableW(L"NO_COLOR", nullptr, 0) > 1) return false;
  return GetConsoleMode(console, &mode) && SetConsoleMode(console, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
}

void Write(DWORD stream, std::wstring_view text) {
  HANDLE handle = Stream(stream);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE || text.empty()) return;
  DWORD written = 0;
  if (Console(stream)) {
    WriteConsoleW(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    return;
  }
  const std::string utf8 = Utf8(text);
  WriteFile(handle, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

constexpr const wchar_t* kRed = L"\x1B[31m";
constexpr const wchar_t* kYellow = L"\x1B[33m";
constexpr const wchar_t* kBold = L"\x1B[1m";

std::wstring Coloured(DWORD stream, const wchar_t* colour, const std::wstring& text) {
  return HasColours(stream) ? colour + text + L"\x1B[0m" : text;
}

std::wstring Row(const std::vector<std::wstring>& cells, const std::vector<size_t>& widths) {
  std::wstring line;
  for (size_t i = 0; i < cells.size(); ++i) {
    line += cells[i];
    if (i + 1 < cells.size()) line.append(widths[i] - cells[i].size() + 2, L' ');
  }
  return line;
}

}  // namespace

void Say(std::wstring_view line) {
  Write(STD_OUTPUT_HANDLE, std::wstring(line) + L"\n");
}

void SayText(std::wstring_view text) {
  Write(STD_OUTPUT_HANDLE, text);
}

bool IsTerminal() {
  return Console(STD_OUTPUT_HANDLE) != nullptr;
}

void Complain(std::wstring_view line) {
  Write(STD_ERROR_HANDLE, std::wstring(line) + L"\n");
}

void Warn(std::wstring_view line) {
  Complain(Coloured(STD_ERROR_HANDLE, kYellow, L"keldactl: warning:") + L" " + std::wstring(line));
}

void ComplainAbout(const std::wstring& command, const std::wstring& message, const std::wstring& advice) {
  Complain(Coloured(STD_ERROR_HANDLE, kRed, L"keldactl" + (command.empty() ? L"" : L" " + command) + L":") + L" " +
           message);
  if (!advice.empty()) Complain(advice);
}

void Murmur(std::wstring_view text) {
  if (Console(STD_ERROR_HANDLE)) Write(STD_ERROR_HANDLE, text);
}

void SayTable(const std::vector<std::vector<std::wstring>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    const std::wstring line = Row(rows[i], widths);
    Say(i == 0 ? Coloured(STD_OUTPUT_HANDLE, kBold, line) : line);
  }
}

bool Confirm(std::wstring_view question) {
  Write(STD_ERROR_HANDLE, std::wstring(question) + L" [y/N] ");
  // One character at a time: standard input may be a pipe that holds more than the answer.
  HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  char first = '\0';
  bool seen = false;
  for (;;) {
    char c = '\0';
    DWORD count = 0;
    if (!ReadFile(input, &c, 1, &count, nullptr) || count == 0 || c == '\n') break;
    if (!seen) first = c;
    seen = true;
  }
  // A person's line end ends the question's line too.
  if (DWORD mode = 0; !GetConsoleMode(input, &mode)) Write(STD_ERROR_HANDLE, L"\n");
  return first == 'y' || first == 'Y';
}

std::wstring Printable(std::wstring_view name) {
  return PrintableText<wchar_t>(name);
}

std::wstring Quoted(std::wstring_view name) {
  return L"\"" + Printable(name) + L"\"";
}

}  // namespace keldactl
