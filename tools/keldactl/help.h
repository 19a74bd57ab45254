// The help, as keldactl words and sets it.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace keldactl {

// For the program: usage and the commands under their headings. For a command: usage, meaning, operands, options,
// notes.
class HelpFormatter : public CLI::FormatterBase {
 public:
  std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override;
};

}  // namespace keldactl
