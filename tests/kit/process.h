// Cases that need a process of their own: the same test program, started once more, runs one named scenario and hands
// back what it printed.
#pragma once

#include <string>
#include <vector>

namespace kit {

struct ChildResult {
  unsigned long exitCode = 0;
  std::string output;
  std::vector<std::string> lines;  // of the output
};

// A scenario registers itself:  const Scenario missing("missing_module", [] { ...; return 0; });
class Scenario {
 public:
  Scenario(const char* name, int (*body)());
};

// Called in a scenario; lines come back to the parent.
void Print(const std::string& line);

// Runs the scenario in a child process and waits for it; a child that does not end within a minute is stopped.
ChildResult RunChild(const std::string& scenario);

// For main(): whether this process is such a child, and its work.
bool IsChild();
int RunScenario();

}  // namespace kit
