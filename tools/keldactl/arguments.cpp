#include "arguments.h"

#include "output.h"

#include <algorithm>

namespace keldactl {
namespace {

const Option* FindOption(const Command& command, const std::wstring& name) {
  for (const std::vector<Option>* options : {&command.options, &CommonOptions()}) {
    for (const Option& option : *options) {
      if (name == option.name) return &option;
    }
  }
  return nullptr;
}

std::wstring Syntax(const Option& option) {
  return option.value ? std::wstring(option.name) + L" " + option.value : std::wstring(option.name);
}

void AppendOptions(std::wstring& text, const std::vector<Option>& options) {
  size_t width = 0;
  for (const Option& option : options)
    width = std::max(width, Syntax(option).size());
  for (const Option& option : options) {
    std::wstring syntax = Syntax(option);
    syntax.append(width - syntax.size() + 2, L' ');
    text += L"  " + syntax + option.meaning + L"\n";
  }
}

}  // namespace

const std::vector<Option>& CommonOptions() {
  static const std::vector<Option> options = {
      {L"--provider", L"NAME", L"the key storage provider (default: Norvale Token Works KSP v1.0)"},
      {L"--silent", nullptr, L"tell the provider not to ask the user"},
      {L"--help", nullptr, L"show this help"},
  };
  return options;
}

Arguments::Arguments(const Command& command, const std::vector<std::wstring>& words) {
  bool only_operands = false;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::wstring& word = words[i];
    if (only_operands || word.size() < 2 || word[0] != L'-') {
      operands_.push_back(word);
      continue;
    }
    if (word == L"--") {
      only_operands = true;
      continue;
    }
    const size_t equals = word.find(L'=');
    const std::wstring name = word.substr(0, equals);
    const Option* option = FindOption(command, name);
    if (!option) throw UsageError(L"unknown option " + name);
    std::wstring value;
    if (option->value) {
      if (equals != std::wstring::npos) {
        value = word.substr(equals + 1);
      } else if (i + 1 < words.size()) {
        value = words[++i];
      } else {
        throw UsageError(name + L" needs a value: " + Syntax(*option));
      }
    } else if (equals != std::wstring::npos) {
      throw UsageError(name + L" takes no value");
    }
    options_[name] = value;
  }
  if (Has(L"--help")) return;
  if (operands_.size() < command.least_operands) {
    throw UsageError(std::wstring(L"something is missing: ") + command.operands);
  }
  if (operands_.size() > command.most_operands) {
    throw UsageError(L"too much: " + Quoted(operands_[command.most_operands]));
  }
}

std::optional<std::wstring> Arguments::Find(const wchar_t* option) const {
  const auto found = options_.find(option);
  if (found == options_.end()) return std::nullopt;
  return found->second;
}

std::wstring Arguments::Get(const wchar_t* option, const wchar_t* otherwise) const {
  return Find(option).value_or(otherwise);
}

std::wstring Arguments::Require(const wchar_t* option) const {
  std::optional<std::wstring> value = Find(option);
  if (!value) throw UsageError(std::wstring(option) + L" is missing");
  return *value;
}

std::wstring OverallHelp(const std::vector<Command>& commands) {
  std::wstring text =
      L"keldactl: works with the keys of a CNG key storage provider.\n"
      L"\n"
      L"Usage: keldactl COMMAND [OPTIONS] [FILE]\n"
      L"\n"
      L"Commands:\n";
  size_t width = 0;
  for (const Command& command : commands)
    width = std::max(width, std::wstring(command.name).size());
  for (const Command& command : commands) {
    std::wstring name = command.name;
    name.append(width - name.size() + 2, L' ');
    text += L"  " + name + command.meaning + L"\n";
  }
  text += L"\nEvery command takes:\n";
  AppendOptions(text, CommonOptions());
  text +=
      L"\n"
      L"keldactl COMMAND --help tells more about one command.\n"
      L"Exit status: 0 done, 1 the operation failed, 2 the command line was not understood.";
  return text;
}

std::wstring CommandHelp(const Command& command) {
  std::wstring text = std::wstring(L"Usage: keldactl ") + command.name;
  if (!command.options.empty()) text += L" [OPTIONS]";
  if (*command.operands) text += std::wstring(L" ") + command.operands;
  text += std::wstring(L"\n\n") + command.meaning + L".\n";
  if (*command.notes) text += std::wstring(L"\n") + command.notes + L"\n";
  text += L"\nOptions:\n";
  std::vector<Option> options = command.options;
  options.insert(options.end(), CommonOptions().begin(), CommonOptions().end());
  AppendOptions(text, options);
  text.pop_back();
  return text;
}

}  // namespace keldactl
