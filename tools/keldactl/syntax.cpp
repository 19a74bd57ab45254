#include "syntax.h"

#include <CLI/CLI.hpp>

#include "failure.h"
#include "output.h"
#include "unicode.h"

#include <charconv>

namespace keldactl {
namespace {

// Hands an option's value on as wide text.
template <typename Value>
auto Store(Value& value) {
  return [&value](const std::string& word) { value = Wide(word); };
}

std::string Listed(const std::vector<std::string>& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i)
    text += (i == 0 ? "" : i + 1 == words.size() ? " or " : ", ") + words[i];
  return text;
}

}  // namespace

Option Option::Required(bool required) {
  option_->required(required);
  return *this;
}

Option Option::Excludes(Option other) {
  option_->excludes(other.option_);
  return *this;
}

Option Option::Needs(Option other) {
  option_->needs(other.option_);
  return *this;
}

Option Option::ValueMayBeMissing() {
  option_->expected(0, 1);
  return *this;
}

Option Option::Under(const char* heading) {
  option_->group(heading);
  return *this;
}

Option Option::Hidden() {
  return Under("");
}

Option Syntax::Text(const char* name, std::wstring& value, const char* value_name, const char* meaning) {
  return Option(*app_.add_option_function<std::string>(name, Store(value), meaning)->type_name(value_name));
}

Option Syntax::Text(const char* name, std::optional<std::wstring>& value, const char* value_name, const char* meaning) {
  return Option(*app_.add_option_function<std::string>(name, Store(value), meaning)->type_name(value_name));
}

Option Syntax::Number(const char* name, std::optional<uint32_t>& value, const char* value_name, const char* meaning,
                      uint32_t least, uint32_t most) {
  const auto store = [=, &value](const std::string& word) {
    uint32_t number = 0;
    const char* end = word.data() + word.size();
    const std::from_chars_result result = std::from_chars(word.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end || number < least || number > most) {
      throw UsageError(Wide(name) + L" is a number from " + std::to_wstring(least) + L" to " + std::to_wstring(most) +
                       L", not " + Quoted(Wide(word)));
    }
    value = number;
  };
  return Option(*app_.add_option_function<std::string>(name, store, meaning)->type_name(value_name));
}

Option Syntax::Choice(const char* name, std::wstring& value, std::vector<std::string> words, const char* value_name,
                      const char* meaning) {
  const auto store = [name, words = std::move(words), &value](const std::string& word) {
    for (const std::string& known : words) {
      if (word != known) continue;
      value = Wide(word);
      return;
    }
    throw UsageError(Wide(name) + L" is " + Wide(Listed(words)) + L", not " + Quoted(Wide(word)));
  };
  return Option(*app_.add_option_function<std::string>(name, store, meaning)->type_name(value_name));
}

Option Syntax::Flag(const char* name, bool& value, const char* meaning) {
  return Option(*app_.add_flag(name, value, meaning)->disable_flag_override());
}

Option Syntax::Operand(const char* name, std::wstring& value, const char* meaning) {
  return Option(*app_.add_option_function<std::string>(name, Store(value), meaning)->required());
}

Option Syntax::Operand(const char* name, std::optional<std::wstring>& value, const char* meaning) {
  return Option(*app_.add_option_function<std::string>(name, Store(value), meaning)->required());
}

Option Syntax::Json(bool& value) {
  return Flag("--json", value, "answer in JSON, for programs");
}

void Syntax::Notes(const char* text) {
  app_.footer(text);
}

}  // namespace keldactl
