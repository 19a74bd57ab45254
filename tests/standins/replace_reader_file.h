// Replaces the reader file of the stand-ins as a whole, so that nobody reads half a file.
#pragma once

#include <windows.h>

#include <fstream>
#include <string>

namespace standins {

// False with the last error set when the file could not be replaced.
inline bool ReplaceReaderFile(const std::string& path, const std::string& text) {
  constexpr ULONGLONG kPatienceMs = 10000;
  const std::string draft = path + ".new";
  {
    std::ofstream file(draft, std::ios::binary);
    file << text;
  }
  // A file that somebody reads at this moment cannot be replaced; reading takes no time worth speaking of.
  const ULONGLONG start = GetTickCount64();
  while (MoveFileExA(draft.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING) == FALSE) {
    const DWORD error = GetLastError();
    const bool inUse = error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION;
    if (!inUse || GetTickCount64() - start > kPatienceMs) {
      SetLastError(error);
      return false;
    }
    SwitchToThread();
  }
  return true;
}

}  // namespace standins
