// Unlike the other test programs this one changes nothing in the process that loads the provider: no hooks, no log.
#include <gtest/gtest.h>

#include "kit/process.h"

int main(int argc, char** argv) {
  if (kit::IsChild()) return kit::RunScenario();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
