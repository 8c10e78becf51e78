#include "help.hpp"

#include <unistd.h>

#include <algorithm>

#include "terminal.hpp"

namespace qzpfile {
namespace {

constexpr std::size_t kNameColumn = 26;   // where the second column begins
constexpr std::size_t kNarrow = 64;       // below this there is one column
constexpr std::size_t kWidestText = 100;  // longer lines are hard to read
constexpr std::string_view kStackedMargin = "      ";

// A name and its meaning: side by side, or one below the other on a narrow terminal.
std::string entry(const std::string& name, std::string_view text, std::size_t width) {
  if (width < kNarrow) {
    return "  " + name + "\n" + wrapped(text, kStackedMargin, width);
  }
  std::string out = wrapped(text, std::string(kNameColumn, ' '), width);
  const std::string left = "  " + name;
  if (left.size() + 2 > kNameColumn) {
    return left + "\n" + out;
  }
  return out.replace(0, left.size(), left);
}

std::string heading(const char* text) {
  const bool colour = wantsColour(STDOUT_FILENO);
  return std::string("\n") + (colour ? "\x1b[1m" : "") + text + ":" + (colour ? "\x1b[0m" : "") +
         "\n";
}

std::string entries(const CLI::App& app, const char* title, bool positional, std::size_t width) {
  std::string out;
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_positional() != positional) continue;
    std::string name = positional ? option->get_name(true) : option->get_name(false, true);
    if (const std::size_t comma = name.find(','); comma != std::string::npos) {
      name.replace(comma, 1, ", ");
    }
    if (!positional && option->get_items_expected_max() > 0) name += " " + option->get_type_name();
    out += entry(name, option->get_description(), width);
  }
  return out.empty() ? out : heading(title) + out;
}

std::string usage(const Command& command) {
  std::string text = std::string("Usage: qzpfile ") + command.name;
  for (const Argument& argument : {command.first, command.second}) {
    if (argument.name != nullptr) text += std::string(" ") + argument.name;
  }
  return text + " [OPTION]...\n\n";
}

// Lines "command<tab>what it does", shown as a remark and the command below it.
std::string examples(std::string_view lines, std::size_t width) {
  std::string out = heading("Examples");
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    const std::size_t tab = line.find('\t');
    out += wrapped(line.substr(tab + 1), "  # ", width);
    out += "  " + std::string(line.substr(0, tab)) + "\n";  // not wrapped, so that it can be copied
  }
  return out;
}

}  // namespace

std::string wrapped(std::string_view text, std::string_view margin, std::size_t width) {
  std::string out;
  std::size_t column = 0;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(word.size() + 1, text.size()));
    if (column > 0 && column + 1 + word.size() > width) {
      out += '\n';
      column = 0;
    }
    out += column == 0 ? margin : " ";
    out += word;
    column = (column == 0 ? margin.size() : column + 1) + word.size();
  }
  return out + '\n';
}

std::string programHelp(const CLI::App& app, std::size_t width) {
  width = std::min(width, kWidestText);
  std::string out = "Usage: qzpfile COMMAND [ARGUMENT]... [OPTION]...\n\n";
  out += wrapped(app.get_description(), "", width);
  out += heading("Commands");
  for (const Command& command : commands()) out += entry(command.name, command.summary, width);
  out += entry("help", "explain a command", width);
  out += entries(app, "Options", false, width);
  out += "\n" +
         wrapped("\"qzpfile COMMAND --help\" explains a command and gives examples.", "", width);
  return out;
}

std::string commandHelp(const Command& command, const CLI::App& app, std::size_t width) {
  width = std::min(width, kWidestText);
  std::string out = usage(command) + wrapped(command.text, "", width);
  out += entries(app, "Arguments", true, width);
  out += entries(app, "Options", false, width);
  return out + examples(command.examples, width);
}

}  // namespace qzpfile
