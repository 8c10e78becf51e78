// What the terminal can show.
#pragma once

#include <cstddef>

namespace qzpfile {

// Columns of the terminal at `fd`; else the environment's COLUMNS; else 80.
std::size_t terminalWidth(int fd);

bool isTerminal(int fd);

// True when `fd` is a terminal that shows colour, unless NO_COLOR or TERM=dumb forbids it.
bool wantsColour(int fd);

}  // namespace qzpfile
