// The provider's process-wide objects, in the test program's hands.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "diag/debug_log.h"
#include "login/pin_cache/pin_manager.h"
#include "token/cryptoki_module.h"

#include "fake_token/fake_token.h"

// Creates the logs, the token module (the fake one) and a fresh PIN cache before each test.
class InsideTest : public ::testing::Test {
 protected:
  InsideTest();
  ~InsideTest() override;

  // One slot, one open session on it.
  void AddToken();
  // The lines sent to the debugger since the last call.
  static std::vector<std::string> TakeLines();

  fake::Module& token() const { return fake::Token(); }
  CK_SESSION_HANDLE session_ = 0;
};

// While it lives the nth allocation of this thread that does not throw (1 = the next one) finds no memory.
class FailedAllocation {
 public:
  explicit FailedAllocation(std::size_t nth);
  ~FailedAllocation();
  FailedAllocation(const FailedAllocation&) = delete;
  FailedAllocation& operator=(const FailedAllocation&) = delete;
};

// Whether the lines hold these, one after the other.
::testing::AssertionResult Holds(const std::vector<std::string>& lines, const std::vector<std::string>& expected);
