// The command line: parses it, makes all checks that need no file, and explains it.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "commands.hpp"

namespace qzpfile {

struct ParsedCommand {
  const Command* command;
  Invocation call;
};

// The command to run, or the text that --help or --version asked for. Throws Failure (usage).
std::variant<ParsedCommand, std::string> parseCommandLine(const std::vector<std::string>& words);

// True when the words ask for JSON, even if they are wrong otherwise.
bool asksForJson(const std::vector<std::string>& words);

}  // namespace qzpfile
