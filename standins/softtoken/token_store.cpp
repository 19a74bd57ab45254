#include "softtoken/token_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace softtoken {
namespace {

// A result above 14 could not be told from other codes.
constexpr unsigned kMostTries = 15;

std::string Configuration() {
  if (const char* named = std::getenv("SOFTHSM2_CONF")) return named;
  if (const char* home = std::getenv("HOME")) {
    std::string own = std::string(home) + "/.config/softhsm2/softhsm2.conf";
    if (access(own.c_str(), R_OK) == 0) return own;
  }
  return "/etc/softhsm/softhsm2.conf";
}

}  // namespace

std::string TokenFolder() {
  std::ifstream configuration(Configuration());
  for (std::string line; std::getline(configuration, line);) {
    const auto equals = line.find('=');
    if (equals == std::string::npos || line.find("directories.tokendir") > equals) continue;
    const auto first = line.find_first_not_of(" \t", equals + 1);
    if (first == std::string::npos) continue;
    return line.substr(first, line.find_last_not_of(" \t\r/") - first + 1);
  }
  return "/var/lib/softhsm/tokens";
}

TriesFile::TriesFile(const std::string& serial)
    : file_(open((TokenFolder() + "/tries-" + serial).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR)) {
  if (file_ < 0) return;
  flock(file_, LOCK_EX);
  std::array<char, 32> text{};
  if (read(file_, text.data(), text.size() - 1) <= 0) return;
  unsigned left = 0;
  unsigned max = 0;
  if (std::sscanf(text.data(), "%u %u", &left, &max) == 2 && max > 0 && max <= kMostTries && left <= max) {
    tries_ = {left, max};
  }
}

TriesFile::~TriesFile() {
  if (file_ >= 0) close(file_);
}

void TriesFile::SetLeft(unsigned left) {
  tries_.left = left;
  if (file_ < 0) return;
  const std::string text = std::to_string(left) + ' ' + std::to_string(tries_.max) + '\n';
  if (ftruncate(file_, 0) != 0 || pwrite(file_, text.data(), text.size(), 0) < 0) {
    std::perror("softtoken: the tries left could not be kept");
  }
}

std::string DirectoryPin(const std::string& serial) {
  std::ifstream file(TokenFolder() + "/pin-" + serial);
  std::string pin;
  std::getline(file, pin);
  return pin;
}

void Wipe(std::string& text) {
  explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace softtoken
