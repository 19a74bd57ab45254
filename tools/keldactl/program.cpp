#include "program.h"

#include "help.h"
#include "output.h"
#include "suggestion.h"
#include "unicode.h"

namespace keldactl {
namespace {

// A digit in front sorts them; the help leaves it out.
constexpr const char* kHeadings[] = {"1Keys", "2Using keys", "3Certificates", "4Providers, readers and this machine",
                                     "5Help"};

constexpr const char* kFooter =
    "\"keldactl help COMMAND\" tells more about one command.\n"
    "Exit status: 0 done, 1 failed, 2 command line not understood, 3 not found, 4 cancelled by the user,\n"
    "5 access denied, 6 signature wrong.";

bool IsHelp(const std::string& word) {
  return word == "--help" || word == "-h" || word == "/?" || word == "-?";
}

// "/?" is Windows' own way of asking; only as the first or second word, so that it can be a value elsewhere.
void TranslateHelp(std::vector<std::string>& words) {
  for (size_t i = 0; i < words.size() && i < 2; ++i) {
    if (IsHelp(words[i])) words[i] = "--help";
  }
  if (words[0] == "--version") words[0] = "version";
  if (words[0] != "help") return;
  words.erase(words.begin());
  if (words.empty() || words[0] == "--help" || words[0] == "help") {
    words.assign(1, "--help");
  } else {
    words.resize(1);
    words.push_back("--help");
  }
}

// The option's name at the beginning of what CLI11 says.
std::string Subject(const CLI::ParseError& error) {
  const std::string text = error.what();
  return text.substr(0, text.find_first_of(": "));
}

std::string LastWord(const CLI::ParseError& error) {
  const std::string text = error.what();
  return text.substr(text.rfind(' ') + 1);
}

std::wstring InOurWords(const CLI::ParseError& error) {
  const std::string& kind = error.get_name();
  const std::string text = error.what();
  std::string ours = text;
  if (kind == "RequiredError") ours = Subject(error) + " is missing";
  if (kind == "ExcludesError") ours = Subject(error) + " and " + LastWord(error) + " do not go together";
  if (kind == "RequiresError") ours = Subject(error) + " needs " + LastWord(error);
  if (kind == "ArgumentMismatch") {
    // Switches are named without their dashes there.
    const std::string subject = Subject(error);
    ours = (subject.starts_with("-") ? "" : "--") + subject +
           (text.find("received") != std::string::npos   ? " was given more than once"
            : text.find("override") != std::string::npos ? " takes no value"
                                                         : " needs a value");
  }
  return Printable(Wide(ours));
}

std::string DidYouMean(const std::string& nearest) {
  return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

std::wstring UnexpectedWord(const CLI::App& command) {
  std::vector<std::string> options;
  for (const CLI::Option* option : command.get_options()) {
    if (!option->get_positional() && !option->get_group().empty()) options.push_back(option->get_name());
  }
  const std::vector<std::string> extras = command.remaining();
  for (const std::string& word : extras) {
    if (word.size() < 2 || word[0] != '-') continue;
    const std::string name = word.substr(0, word.find('='));
    return L"unknown option " + Printable(Wide(name)) + Wide(DidYouMean(Nearest(name, options)));
  }
  return L"too much: " + Quoted(Wide(extras.empty() ? "" : extras[0]));
}

}  // namespace

Program::Program()
    : app_(std::make_unique<CLI::App>("keldactl works with the keys of a CNG key storage provider.", "keldactl")) {
  app_->formatter(std::make_shared<HelpFormatter>());
  app_->set_help_flag("-h,--help", "show this help");
  app_->footer(kFooter);
  // "/file" is a file.
  app_->allow_windows_style_options(false);
}

Program::~Program() = default;

CLI::App& Program::NewCommand(Heading heading, const char* name, const char* meaning) {
  CLI::App& command = *app_->add_subcommand(name, meaning);
  command.group(kHeadings[static_cast<size_t>(heading)]);
  command.footer("");  // not the program's
  return command;
}

ExitStatus Program::Run(std::vector<std::string> words) {
  if (words.empty()) {
    Complain(Wide(app_->help()));
    return ExitStatus::kUsage;
  }
  TranslateHelp(words);
  const std::string command = words[0];
  try {
    std::function<ExitStatus()> run;
    const ExitStatus status = Parse(std::move(words), &run);
    return run ? run() : status;
  } catch (const UsageError& error) {
    return Refuse(command, error.message());
  } catch (const Failure& failure) {
    ComplainAbout(Wide(command), failure.message(), failure.advice());
    return failure.exit_status();
  }
}

ExitStatus Program::Parse(std::vector<std::string> words, std::function<ExitStatus()>* run) {
  const std::string name = words[0];
  const auto known = runs_.find(name);
  if (known == runs_.end() && name != "--help") return RefuseCommand(name);
  for (const std::string& word : words) {
    if (word == "--") break;
    // CLI11 would take the next word for the value.
    if (word.size() > 3 && word.starts_with("--") && word.back() == '=' && word.find('=') == word.size() - 1) {
      throw UsageError(Wide(word.substr(0, word.size() - 1)) + L" needs a value");
    }
  }
  try {
    // CLI11 takes the words from the end.
    app_->parse(std::vector<std::string>(words.rbegin(), words.rend()));
  } catch (const CLI::CallForHelp&) {
    std::string help = app_->help();
    help.pop_back();
    Say(Wide(help));
    return ExitStatus::kDone;
  } catch (const CLI::ExtrasError&) {
    throw UsageError(UnexpectedWord(*app_->get_subcommand(name)));
  } catch (const CLI::ParseError& error) {
    throw UsageError(InOurWords(error));
  }
  *run = known->second;
  return ExitStatus::kDone;
}

ExitStatus Program::RefuseCommand(const std::string& word) const {
  if (word[0] == '-') {
    return Refuse("", L"the command comes first, not " + Quoted(Wide(word)));
  }
  std::vector<std::string> names;
  for (const auto& [name, run] : runs_)
    names.push_back(name);
  return Refuse("", L"unknown command " + Quoted(Wide(word)) + Wide(DidYouMean(Nearest(word, names))));
}

ExitStatus Program::Refuse(const std::string& command, const std::wstring& message) const {
  const bool known = runs_.contains(command);
  ComplainAbout(known ? Wide(command) : L"", message,
                known ? L"\"keldactl help " + Wide(command) + L"\" tells how it goes."
                      : L"\"keldactl help\" lists the commands.");
  return ExitStatus::kUsage;
}

}  // namespace keldactl
