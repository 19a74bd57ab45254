// keldactl, run without a window.
#pragma once

#include "journal.h"

#include <string>
#include <vector>

namespace installer {

struct ClientResult {
  bool started = false;
  // The exit status of keldactl, or the error that kept it from starting.
  DWORD status = 0;
  // What it said, on both of its outputs.
  std::vector<std::wstring> lines;

  bool Done() const { return started && status == 0; }
};

// Runs `program` with `arguments`, a command line without the program, and notes each line that it says.
ClientResult RunClient(const Journal& journal, const std::wstring& program, const std::wstring& arguments);

// The same for what an installation cannot do without: tells a failure. False when there was one.
bool NeedClient(const Journal& journal, const std::wstring& program, const std::wstring& arguments);

}  // namespace installer
