// The frame of a libFuzzer program: its one target.
#include <cstdio>
#include <cstdlib>

#include "target.h"

void fuzz::Fail(const char* what, const char* file, int line) {
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const fuzz::Target target = fuzz::Targets().begin()->second;
  target(fuzz::Input(data, size));
  return 0;
}
