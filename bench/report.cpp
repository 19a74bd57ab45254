#include "report.h"

#include <stdexcept>

namespace bench {
namespace {

std::string Text(const Quartiles& values) {
  char text[96];
  std::snprintf(text, sizeof(text), "[%.4f, %.4f, %.4f]", values.low, values.median, values.high);
  return text;
}

std::string Head(const Subject& subject) {
  char numbers[96];
  std::snprintf(numbers, sizeof(numbers), R"("log": %s, "keys": %u, "threads": %u)", subject.log ? "true" : "false",
                static_cast<unsigned>(subject.keys), static_cast<unsigned>(subject.threads));
  return R"({"kind": ")" + subject.kind + R"(", "name": ")" + subject.name + R"(", )" + numbers;
}

void Progress(const Subject& subject, const std::string& result) {
  std::string what = subject.name;
  if (subject.keys > 1) what += ", " + std::to_string(subject.keys) + " keys";
  if (subject.threads != 0) what += ", " + std::to_string(subject.threads) + " threads";
  if (subject.log) what += ", log on";
  std::printf("   %-44s %s\n", what.c_str(), result.c_str());
  std::fflush(stdout);
}

}  // namespace

Report::Report(const char* path) : file_(std::fopen(path, "a")) {
  if (file_ == nullptr) throw std::runtime_error(std::string("cannot write ") + path);
}

Report::~Report() {
  std::fclose(file_);
}

void Report::Compared(const Subject& subject, const Comparison& result, const char* firstName, const char* secondName) {
  std::fprintf(file_, "%s, \"%s\": %s, \"%s\": %s, \"ratio\": %s}\n", Head(subject).c_str(), firstName,
               Text(result.first).c_str(), secondName, Text(result.second).c_str(), Text(result.ratio).c_str());
  std::fflush(file_);
  char text[128];
  std::snprintf(text, sizeof(text), "%12.1f us, %6.3f times (%.3f to %.3f) %s", result.first.median,
                result.ratio.median, result.ratio.low, result.ratio.high, secondName);
  Progress(subject, text);
}

void Report::Timed(const Subject& subject, const char* what, const Quartiles& result) {
  std::fprintf(file_, "%s, \"%s\": %s}\n", Head(subject).c_str(), what, Text(result).c_str());
  std::fflush(file_);
  char text[96];
  std::snprintf(text, sizeof(text), "%12.2f us (%s)", result.median, what);
  Progress(subject, text);
}

}  // namespace bench
