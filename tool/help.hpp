// Help that fits the terminal, narrow ones too.
#pragma once

#include <CLI/App.hpp>
#include <cstddef>
#include <string>
#include <string_view>

#include "commands.hpp"

namespace qzpfile {

// Text in lines of at most `width` columns that begin with `margin`; words that are longer stay
// whole.
std::string wrapped(std::string_view text, std::string_view margin, std::size_t width);

// Help for the program: what it is, its commands and the options of all commands.
std::string programHelp(const CLI::App& app, std::size_t width);

// Help for one command; `app` has its arguments and options.
std::string commandHelp(const Command& command, const CLI::App& app, std::size_t width);

}  // namespace qzpfile
