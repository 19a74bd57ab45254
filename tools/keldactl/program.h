// The program's frame: its commands, its help, and what it ends with.
#pragma once

#include "failure.h"
#include "syntax.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace keldactl {

// The headings of the overall help, in their order.
enum class Heading { kKeys, kUse, kCertificates, kSystem, kHelp };

class Program {
 public:
  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Adds a command; see commands.h.
  template <typename Options>
  void Add(Heading heading, const char* name, const char* meaning, void (*describe)(Syntax&, Options&),
           ExitStatus (*run)(const Options&)) {
    auto options = std::make_shared<Options>();
    Syntax syntax(NewCommand(heading, name, meaning));
    describe(syntax, *options);
    runs_[name] = [options, run, checks = syntax.checks()] {
      for (const auto& check : checks)
        check();
      return run(*options);
    };
  }

  // Does what the words say, UTF-8 without the program's own name, and says what went wrong.
  ExitStatus Run(std::vector<std::string> words);

 private:
  CLI::App& NewCommand(Heading heading, const char* name, const char* meaning);
  ExitStatus Parse(std::vector<std::string> words, std::function<ExitStatus()>* run);
  ExitStatus RefuseCommand(const std::string& word) const;
  ExitStatus Refuse(const std::string& command, const std::wstring& message) const;

  std::unique_ptr<CLI::App> app_;
  std::map<std::string, std::function<ExitStatus()>> runs_;
};

}  // namespace keldactl
