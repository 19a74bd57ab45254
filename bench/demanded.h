// The work that a call of the provider cannot do without: its calls of the platform and of the token.
#pragma once

#include <windows.h>

#include <functional>
#include <vector>

#include "fake_token/fake_token.h"
#include "imports.h"

namespace bench {

// Calls of the platform and the token, with arguments of their own.
class Work {
 public:
  // Makes them all again, in their order.
  void Run() const {
    for (const std::function<void()>& step : steps_)
      step();
  }
  std::size_t size() const { return steps_.size(); }
  void Add(std::function<void()> step) { steps_.push_back(std::move(step)); }

 private:
  std::vector<std::function<void()>> steps_;
};

enum class Part { All, Token };

// Runs a call of the provider and writes down what it demands, of platform and token or of the token alone. list is
// what the provider calls the token through.
Work Demanded(ImportTable& imports, fake::FunctionList& list, const std::function<void()>& call, Part part = Part::All);

}  // namespace bench
