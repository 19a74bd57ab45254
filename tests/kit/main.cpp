#include <exception>
#include <iostream>

#include <gtest/gtest.h>

#include "kit/process.h"
#include "kit/provider.h"

int main(int argc, char** argv) {
  try {
    ::testing::InitGoogleTest(&argc, argv);
    kit::StartKit();
    const int result = kit::IsChild() ? kit::RunScenario() : RUN_ALL_TESTS();
    kit::StopKit();
    return result;
  } catch (const std::exception& error) {
    std::cerr << "test kit: " << error.what() << std::endl;
    return 97;
  }
}
