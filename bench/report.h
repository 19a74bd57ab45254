// What is told of the measurements: progress as text, results as lines of JSON for scripts/bench.py.
#pragma once

#include <cstdio>
#include <string>

#include "timing.h"

namespace bench {

// One measured thing. keys and threads are 0 where they say nothing.
struct Subject {
  std::string kind;  // "entry", "keys", "threads", "load", "layer"
  std::string name;
  bool log = false;
  std::size_t keys = 0;
  std::size_t threads = 0;
};

class Report {
 public:
  // Results are appended to the file.
  explicit Report(const char* path);
  ~Report();
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  // Each is one line; microseconds of one call.
  void Compared(const Subject& subject, const Comparison& result, const char* firstName, const char* secondName);
  void Timed(const Subject& subject, const char* what, const Quartiles& result);

 private:
  std::FILE* file_;
};

}  // namespace bench
