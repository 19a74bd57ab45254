// Replays the fuzz targets over their seeds and over what the fuzzer has found before. Each input is also run in all
// its beginnings, and with each byte changed in a few ways, so that the neighbourhood of every seed is tried in each
// test run.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "target.h"

void fuzz::Fail(const char* what, const char* file, int line) {
  throw std::logic_error(std::string(file) + ":" + std::to_string(line) + ": does not hold: " + what);
}

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

std::vector<std::string> TargetNames() {
  std::vector<std::string> names;
  for (const auto& [name, target] : fuzz::Targets())
    names.push_back(name);
  return names;
}

std::vector<fs::path> FilesIn(const fs::path& folder) {
  std::vector<fs::path> files;
  if (fs::is_directory(folder)) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
      files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

Bytes Read(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  EXPECT_TRUE(stream) << file;
  return Bytes(std::istreambuf_iterator<char>(stream), {});
}

class FuzzReplay : public ::testing::TestWithParam<std::string> {
 protected:
  // On a copy of exact size, so that the sanitizer sees every byte too many.
  void Run(Bytes input, const fs::path& file, const char* change) {
    input.shrink_to_fit();
    try {
      fuzz::Targets().at(GetParam())(fuzz::Input(input));
    } catch (const std::exception& finding) {
      FAIL() << finding.what() << "\n  with " << file << " " << change;
    }
  }
  static std::vector<fs::path> Seeds() { return FilesIn(fs::path(KELDA_CORPUS) / GetParam()); }
  // Without those that are variations themselves or touch much memory: they are run as they are only.
  static std::vector<fs::path> SeedsToVary() {
    std::vector<fs::path> seeds = Seeds();
    std::erase_if(seeds, [](const fs::path& file) { return file.filename().string().starts_with("as_is_"); });
    return seeds;
  }
};

TEST_P(FuzzReplay, Corpus) {
  const std::vector<fs::path> seeds = Seeds();
  ASSERT_GE(seeds.size(), 3u) << "no corpus in " << KELDA_CORPUS;
  Run({}, "nothing", "");
  for (const fs::path& file : seeds)
    Run(Read(file), file, "");
  for (const fs::path& file : FilesIn(fs::path(KELDA_FOUND) / GetParam()))
    Run(Read(file), file, "");
}

TEST_P(FuzzReplay, BeginningsOfTheCorpus) {
  for (const fs::path& file : SeedsToVary()) {
    const Bytes input = Read(file);
    for (std::size_t length = 0; length < input.size(); ++length)
      Run(Bytes(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length)), file, "cut");
  }
}

TEST_P(FuzzReplay, ChangedBytesOfTheCorpus) {
  for (const fs::path& file : SeedsToVary()) {
    const Bytes input = Read(file);
    for (std::size_t i = 0; i < std::min<std::size_t>(input.size(), 200); ++i) {
      for (const unsigned change : {0x01u, 0x80u, 0xFFu}) {
        Bytes changed = input;
        changed[i] = static_cast<std::uint8_t>(changed[i] ^ change);
        Run(std::move(changed), file, "with a changed byte");
      }
      Bytes zeroed = input;
      zeroed[i] = 0;
      Run(std::move(zeroed), file, "with a zeroed byte");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, FuzzReplay, ::testing::ValuesIn(TargetNames()),
                         [](const ::testing::TestParamInfo<std::string>& given) { return given.param; });

}  // namespace
