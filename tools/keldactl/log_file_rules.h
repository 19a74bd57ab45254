// Which files may become the log, which every user is given the right to write. Pure: no Windows header, no I/O.
#pragma once

#include <cstdint>

namespace keldactl {

enum class LogFileFault {
  kNone,
  kLink,  // a symbolic link or another reparse point
  kFolder,
  kSeveralNames,  // hard links: under its other name it may be any file of the system
};

// By the file's attributes and its number of names (BY_HANDLE_FILE_INFORMATION).
constexpr LogFileFault FaultOfLogFile(std::uint32_t attributes, std::uint32_t names) {
  constexpr std::uint32_t kDirectory = 0x10;      // FILE_ATTRIBUTE_DIRECTORY
  constexpr std::uint32_t kReparsePoint = 0x400;  // FILE_ATTRIBUTE_REPARSE_POINT
  if (attributes & kReparsePoint) return LogFileFault::kLink;
  if (attributes & kDirectory) return LogFileFault::kFolder;
  return names > 1 ? LogFileFault::kSeveralNames : LogFileFault::kNone;
}

}  // namespace keldactl
