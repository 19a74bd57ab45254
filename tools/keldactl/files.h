// Files as they are, with the reason when that fails.
#pragma once

#include "cng.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace keldactl {

// "-" stands for standard input where a file is read and for standard output where one is written; both carry bytes as
// they are.
bool IsStandardStream(const std::wstring& path);
// What messages call it: the name in quotes, or "standard input" and "standard output".
std::wstring InName(const std::wstring& path);
std::wstring OutName(const std::wstring& path);
// Says a line about what was written to `out`: on standard error when standard output carries the content itself.
void SayUnlessPiped(const std::wstring& out, std::wstring_view line);
// Throws UsageError when both are standard input.
void RefuseTwoStandardInputs(const std::wstring& first, const std::wstring& second);

// All bytes of a file; throws Failure. Meant for keys, signatures and the like: more than 16 MiB are refused.
Bytes ReadWholeFile(const std::wstring& path);
// Hands the file to `take` piece by piece.
void ReadFileInPieces(const std::wstring& path, const std::function<void(const uint8_t*, size_t)>& take);
// Replaces the file's content.
void WriteWholeFile(const std::wstring& path, const Bytes& content);
// Writes text to the file when there is one and to standard output otherwise; `done` is said about a file.
void WriteText(const std::optional<std::wstring>& path, const Bytes& text, std::wstring_view done);

}  // namespace keldactl
