// Help text that fits the terminal, even a narrow one.
#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <string>
#include <string_view>

#include "commands.hpp"

namespace qzpfile {

// Wraps text into lines of at most `width` columns, each beginning with `margin`. Longer words are
// not split.
std::string wrapped(std::string_view text, std::string_view margin, std::size_t width);

// Help for the program: what it is, its commands and the options of all commands.
std::string programHelp(const CLI::App& app, std::size_t width);

// Help for one command; `app` has its arguments and options.
std::string commandHelp(const Command& command, const CLI::App& app, std::size_t width);

}  // namespace qzpfile
