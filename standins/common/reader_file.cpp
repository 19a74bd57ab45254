#include "common/reader_file.h"

#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>
#include <thread>

namespace standins {
namespace {

// How often a file that is in use is tried again.
constexpr int kMostTries = 100000;

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::uint32_t> ParseHex(std::string_view text) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

void ParseDirective(std::string_view line, ReaderFile& file) {
  const auto blank = line.find(' ');
  if (blank == std::string_view::npos) return;
  const auto name = line.substr(0, blank);
  const auto value = Trim(line.substr(blank));
  if (name == "!establish") {
    file.establishFailure = ParseHex(value);
  } else if (name == "!list" && value == "empty") {
    file.listWithoutNames = true;
  } else if (name == "!list") {
    file.listFailure = ParseHex(value);
  }
}

}  // namespace

ReaderFile ParseReaderFile(std::string_view text) {
  ReaderFile file;
  while (!text.empty()) {
    const auto end = text.find('\n');
    const auto line = Trim(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '!') {
      ParseDirective(line, file);
      continue;
    }
    const auto equals = line.find('=');
    Reader reader;
    reader.name = Trim(line.substr(0, equals));
    if (equals != std::string_view::npos) reader.tokenLabel = Trim(line.substr(equals + 1));
    if (!reader.name.empty()) file.readers.push_back(std::move(reader));
  }
  return file;
}

ReaderFile ReadReaderFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  // Whoever replaces the file has it to himself for a moment, on Windows; a file that is not there is another matter.
  for (int tries = 0; !stream && errno == EACCES && tries < kMostTries; ++tries) {
    std::this_thread::yield();
    stream.open(path, std::ios::binary);
  }
  if (!stream) return {};
  std::ostringstream text;
  text << stream.rdbuf();
  return ParseReaderFile(text.str());
}

}  // namespace standins
