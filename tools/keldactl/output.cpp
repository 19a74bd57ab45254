#include "output.h"

#include "platform.h"
#include "status.h"

#include <algorithm>

namespace keldactl {
namespace {

void Write(DWORD stream, std::wstring_view text) {
  HANDLE handle = GetStdHandle(stream);
  if (handle == nullptr || handle == INVALID_HANDLE_VALUE || text.empty()) return;
  const int characters = static_cast<int>(text.size());
  DWORD mode = 0;
  DWORD written = 0;
  if (GetConsoleMode(handle, &mode)) {
    WriteConsoleW(handle, text.data(), static_cast<DWORD>(characters), &written, nullptr);
    return;
  }
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), characters, nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<size_t>(std::max(bytes, 0)), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), characters, utf8.data(), bytes, nullptr, nullptr);
  WriteFile(handle, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
}

bool Prints(wchar_t c) {
  return c >= 0x20 && !(c >= 0x7F && c <= 0xA0) && c != 0xAD && !(c >= 0xD800 && c <= 0xDFFF) && c < 0xFFFE;
}

void AppendHex(std::wstring& text, unsigned value, int digits) {
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    text += L"0123456789ABCDEF"[(value >> shift) & 0xF];
}

}  // namespace

Failure::Failure(const std::wstring& operation, long status)
    : message_(operation + L" failed: " + DescribeStatus(status)), status_(status) {}

void Say(std::wstring_view line) {
  Write(STD_OUTPUT_HANDLE, std::wstring(line) + L"\n");
}

void Complain(std::wstring_view line) {
  Write(STD_ERROR_HANDLE, std::wstring(line) + L"\n");
}

void Murmur(std::wstring_view text) {
  Write(STD_ERROR_HANDLE, text);
}

void SayTable(const std::vector<std::vector<std::wstring>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], row[i].size());
  }
  for (const auto& row : rows) {
    std::wstring line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - row[i].size() + 2, L' ');
    }
    Say(line);
  }
}

bool Confirm(std::wstring_view question) {
  Murmur(std::wstring(question) + L" [y/N] ");
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
  return first == 'y' || first == 'Y';
}

std::wstring Printable(std::wstring_view name) {
  std::wstring text;
  for (const wchar_t c : name) {
    if (Prints(c)) {
      text += c;
    } else if (c <= 0xFF) {
      text += L"\\x";
      AppendHex(text, c, 2);
    } else {
      text += L"\\u";
      AppendHex(text, c, 4);
    }
  }
  return text;
}

std::wstring Quoted(std::wstring_view name) {
  return L"\"" + Printable(name) + L"\"";
}

}  // namespace keldactl
