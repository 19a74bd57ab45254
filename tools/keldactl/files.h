// Files as they are, with the reason when that fails.
#pragma once

#include "cng.h"

#include <functional>
#include <string>

namespace keldactl {

// All bytes of a file; throws Failure. Meant for keys, signatures and the like: more than 16 MiB are refused.
Bytes ReadWholeFile(const std::wstring& path);
// Hands the file to `take` piece by piece.
void ReadFileInPieces(const std::wstring& path, const std::function<void(const uint8_t*, size_t)>& take);
// Replaces the file's content.
void WriteWholeFile(const std::wstring& path, const Bytes& content);

}  // namespace keldactl
