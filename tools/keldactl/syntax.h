// The words that a command takes. CLI11 reads them; this is the part of it that commands need, with wide texts. Its
// headers, which take longer to compile than any command, stay behind it (syntax.cpp, program.cpp and help.cpp).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace keldactl {

// A word that was added to a command; it belongs to that command.
class Option {
 public:
  explicit Option(CLI::Option& option) : option_(&option) {}

  Option Required(bool required = true);
  Option Excludes(Option other);
  Option Needs(Option other);
  // The name alone will do, without a value.
  Option ValueMayBeMissing();
  // The heading that it stands under in the command's help.
  Option Under(const char* heading);
  // Stands in no help.
  Option Hidden();

 private:
  CLI::Option* option_;
};

class Syntax {
 public:
  explicit Syntax(CLI::App& app) : app_(app) {}

  // An option with a value: its name with the dashes, what the value is called in the help, and its meaning in one
  // line.
  Option Text(const char* name, std::wstring& value, const char* value_name, const char* meaning);
  Option Text(const char* name, std::optional<std::wstring>& value, const char* value_name, const char* meaning);
  // A whole number from `least` to `most`.
  Option Number(const char* name, std::optional<uint32_t>& value, const char* value_name, const char* meaning,
                uint32_t least, uint32_t most);
  // One of a few words; any other is refused with the list of them.
  Option Choice(const char* name, std::wstring& value, std::vector<std::string> words, const char* value_name,
                const char* meaning);
  // A switch.
  Option Flag(const char* name, bool& value, const char* meaning);
  // A word without an option's name; they are required unless Required(false) is called.
  Option Operand(const char* name, std::wstring& value, const char* meaning);
  Option Operand(const char* name, std::optional<std::wstring>& value, const char* meaning);
  // --json, for commands that list or show.
  Option Json(bool& value);
  // Adds what is looked at when all words have been read; throws UsageError for what does not go together.
  void Check(std::function<void()> check) { checks_.push_back(std::move(check)); }
  // Paragraphs for the end of the command's help, with their line ends.
  void Notes(const char* text);

  const std::vector<std::function<void()>>& checks() const { return checks_; }

 private:
  CLI::App& app_;
  std::vector<std::function<void()>> checks_;
};

}  // namespace keldactl
