#include "help.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace keldactl {
namespace {

constexpr size_t kWidth = 100;

struct Row {
  std::string word;
  std::string meaning;
};

size_t Widest(const std::vector<Row>& rows) {
  size_t width = 0;
  for (const Row& row : rows)
    width = std::max(width, row.word.size());
  return width;
}

// The text broken at blanks, its further lines indented.
std::string Wrapped(const std::string& text, size_t indent) {
  std::string result;
  size_t column = indent;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    at = end + 1;
    if (column != indent && column + 1 + word.size() > kWidth) {
      result += "\n" + std::string(indent, ' ');
      column = indent;
    } else if (column != indent) {
      result += " ";
      ++column;
    }
    result += word;
    column += word.size();
  }
  return result;
}

std::string Table(const std::vector<Row>& rows, size_t width) {
  std::string text;
  for (const Row& row : rows) {
    text += "  " + row.word + std::string(width - row.word.size() + 2, ' ') + Wrapped(row.meaning, width + 4) + "\n";
  }
  return text;
}

std::string ProgramHelp(const CLI::App& app) {
  std::string text = app.get_description() + "\n\nUsage: keldactl COMMAND [OPTIONS] [FILE]\n";
  std::vector<std::string> headings;
  std::vector<Row> all;
  const std::vector<const CLI::App*> commands = app.get_subcommands({});
  for (const CLI::App* command : commands) {
    if (std::find(headings.begin(), headings.end(), command->get_group()) == headings.end()) {
      headings.push_back(command->get_group());
    }
    all.push_back({command->get_name(), ""});
  }
  std::sort(headings.begin(), headings.end());
  for (const std::string& heading : headings) {
    std::vector<Row> rows;
    for (const CLI::App* command : commands) {
      if (command->get_group() == heading) rows.push_back({command->get_name(), command->get_description()});
    }
    // The headings carry a digit in front that sorts them.
    text += "\n" + heading.substr(1) + ":\n" + Table(rows, Widest(all));
  }
  return text + "\n" + app.get_footer() + "\n";
}

std::string Name(const CLI::Option& option) {
  std::string name = option.get_name(option.get_positional());
  if (!option.get_snames().empty()) name.insert(0, "-" + option.get_snames()[0] + ", ");
  return option.get_positional() || option.get_type_name().empty() ? name : name + " " + option.get_type_name();
}

std::string Usage(const CLI::App& app) {
  std::string text = "Usage: keldactl " + app.get_name() + " [OPTIONS]";
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_positional()) continue;
    text += option->get_required() ? " " + Name(*option) : " [" + Name(*option) + "]";
  }
  return text + "\n";
}

std::string CommandHelp(const CLI::App& app) {
  std::string text = Usage(app) + "\n" + app.get_description() + ".\n";
  std::vector<std::pair<std::string, std::vector<Row>>> groups = {{"", {}}, {"Options", {}}};
  std::vector<Row> all;
  for (const CLI::Option* option : app.get_options()) {
    if (!option->get_positional() && option->get_group().empty()) continue;  // between keldactl and itself
    const std::string heading = option->get_positional() ? "" : option->get_group();
    auto group = std::find_if(groups.begin(), groups.end(), [&](const auto& known) { return known.first == heading; });
    if (group == groups.end()) group = groups.insert(groups.end(), {heading, {}});
    group->second.push_back({Name(*option), option->get_description()});
    all.push_back(group->second.back());
  }
  for (const auto& [heading, rows] : groups) {
    if (rows.empty()) continue;
    text += "\n" + (heading.empty() ? "" : heading + ":\n") + Table(rows, Widest(all));
  }
  return app.get_footer().empty() ? text : text + "\n" + app.get_footer() + "\n";
}

}  // namespace

std::string HelpFormatter::make_help(const CLI::App* app, std::string /*name*/, CLI::AppFormatMode /*mode*/) const {
  return app->get_parent() ? CommandHelp(*app) : ProgramHelp(*app);
}

}  // namespace keldactl
