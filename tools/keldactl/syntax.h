// The words that a command takes. CLI11 reads them; this is the part of it that commands need, with wide texts.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace keldactl {

class Syntax {
 public:
  explicit Syntax(CLI::App& app) : app_(app) {}

  // An option with a value: its name with the dashes, what the value is called in the help, and its meaning in one
  // line. What comes back can be made required(), excludes() another, and so on.
  CLI::Option& Text(const char* name, std::wstring& value, const char* value_name, const char* meaning);
  CLI::Option& Text(const char* name, std::optional<std::wstring>& value, const char* value_name, const char* meaning);
  // A whole number from `least` to `most`.
  CLI::Option& Number(const char* name, std::optional<uint32_t>& value, const char* value_name, const char* meaning,
                      uint32_t least, uint32_t most);
  // One of a few words; any other is refused with the list of them.
  CLI::Option& Choice(const char* name, std::wstring& value, std::vector<std::string> words, const char* value_name,
                      const char* meaning);
  // A switch.
  CLI::Option& Flag(const char* name, bool& value, const char* meaning);
  // A word without an option's name; they are required unless required(false) is called.
  CLI::Option& Operand(const char* name, std::wstring& value, const char* meaning);
  CLI::Option& Operand(const char* name, std::optional<std::wstring>& value, const char* meaning);
  // --json, for commands that list or show.
  CLI::Option& Json(bool& value);
  // Adds what is looked at when all words have been read; throws UsageError for what does not go together.
  void Check(std::function<void()> check) { checks_.push_back(std::move(check)); }
  // Paragraphs for the end of the command's help, with their line ends.
  void Notes(const char* text) { app_.footer(text); }

  CLI::App& app() { return app_; }
  const std::vector<std::function<void()>>& checks() const { return checks_; }

 private:
  CLI::App& app_;
  std::vector<std::function<void()>> checks_;
};

}  // namespace keldactl
