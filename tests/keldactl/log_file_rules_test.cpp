#include "keldactl/log_file_rules.h"

#include <gtest/gtest.h>

namespace keldactl {
namespace {

constexpr std::uint32_t kNormal = 0x80;
constexpr std::uint32_t kArchive = 0x20;
constexpr std::uint32_t kDirectory = 0x10;
constexpr std::uint32_t kReparsePoint = 0x400;

TEST(LogFileRules, TakeAPlainFile) {
  EXPECT_EQ(FaultOfLogFile(kNormal, 1), LogFileFault::kNone);
  EXPECT_EQ(FaultOfLogFile(kArchive, 1), LogFileFault::kNone);
}

TEST(LogFileRules, RefuseLinks) {
  EXPECT_EQ(FaultOfLogFile(kReparsePoint, 1), LogFileFault::kLink);
  EXPECT_EQ(FaultOfLogFile(kArchive | kReparsePoint, 1), LogFileFault::kLink);
  EXPECT_EQ(FaultOfLogFile(kDirectory | kReparsePoint, 1), LogFileFault::kLink);
}

TEST(LogFileRules, RefuseFolders) {
  EXPECT_EQ(FaultOfLogFile(kDirectory, 1), LogFileFault::kFolder);
}

TEST(LogFileRules, RefuseFilesOfSeveralNames) {
  EXPECT_EQ(FaultOfLogFile(kArchive, 2), LogFileFault::kSeveralNames);
  EXPECT_EQ(FaultOfLogFile(kReparsePoint, 2), LogFileFault::kLink);
}

}  // namespace
}  // namespace keldactl
