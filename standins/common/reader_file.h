// The virtual readers of this machine, as a small text file tells them.
//
// The stand-in smart card service and the stand-in token module read the same file, so that reader names and slot
// descriptions agree, and they read it on every call, so that readers and tokens come and go while programs run.
// The file is named by the environment variable KELDA_READERS. One line per reader:
//
//   # a comment
//   Norvale Reader 0 = demo        a reader with the token whose label is "demo" in it
//   Norvale Reader 1 =             a reader without a token
//   !establish 8010001D            the smart card service refuses a context with this code (hexadecimal)
//   !list 80100011                 the smart card service refuses the list of readers with this code
//   !list empty                    the smart card service answers with a list without names
//
// Somebody who changes the file while programs run replaces it as a whole: write another file, then rename it (from
// Windows code again and again while the old one is in use).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace standins {

inline constexpr char kReaderFileVariable[] = "KELDA_READERS";

struct Reader {
  std::string name;        // UTF-8
  std::string tokenLabel;  // empty: no token in the reader
};

struct ReaderFile {
  std::vector<Reader> readers;
  std::optional<std::uint32_t> establishFailure;
  std::optional<std::uint32_t> listFailure;
  bool listWithoutNames = false;
};

// Parses the text of a reader file. Lines that say nothing known are ignored.
ReaderFile ParseReaderFile(std::string_view text);

// Reads and parses the file at path. A file that cannot be read tells of no reader.
ReaderFile ReadReaderFile(const std::string& path);

}  // namespace standins
