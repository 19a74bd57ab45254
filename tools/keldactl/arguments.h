// The command line: which command, its options and its operands.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace keldactl {

struct Option {
  const wchar_t* name;     // with its two dashes
  const wchar_t* value;    // what the value is called in the help; null for a switch
  const wchar_t* meaning;  // one line
};

class Arguments;

struct Command {
  const wchar_t* name;
  const wchar_t* operands;  // as the usage line shows them
  size_t least_operands;
  size_t most_operands;
  const wchar_t* meaning;  // one line
  std::vector<Option> options;
  const wchar_t* notes;  // further paragraphs of the help; may be empty
  int (*run)(const Arguments&);
};

class Arguments {
 public:
  // Reads what follows the command's name. Throws UsageError for unknown options, missing values and a wrong number of
  // operands.
  Arguments(const Command& command, const std::vector<std::wstring>& words);

  bool Has(const wchar_t* option) const { return options_.count(option) != 0; }
  // The option's value, the last one when it was given more than once.
  std::optional<std::wstring> Find(const wchar_t* option) const;
  std::wstring Get(const wchar_t* option, const wchar_t* otherwise) const;
  // Throws UsageError when the option was not given.
  std::wstring Require(const wchar_t* option) const;
  const std::vector<std::wstring>& Operands() const { return operands_; }

 private:
  std::map<std::wstring, std::wstring> options_;
  std::vector<std::wstring> operands_;
};

// Options that every command takes.
const std::vector<Option>& CommonOptions();

// The help for all commands, and for one.
std::wstring OverallHelp(const std::vector<Command>& commands);
std::wstring CommandHelp(const Command& command);

}  // namespace keldactl
