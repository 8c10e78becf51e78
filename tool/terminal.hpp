// What the terminal can show.
#pragma once

#include <cstddef>

namespace qzpfile {

// Columns of the terminal behind `fd`; else the environment's COLUMNS; else 80.
std::size_t terminalWidth(int fd);

bool isTerminal(int fd);

// True when `fd` is a terminal that shows colour and nobody asked for none (NO_COLOR, TERM=dumb).
bool wantsColour(int fd);

}  // namespace qzpfile
