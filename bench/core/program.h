// Whole programs as participants.
#pragma once

#include <string>
#include <vector>

#include "measure.h"

namespace qzbench {

// Runs a program to its end; finds it as a shell does. Throws Failure with its standard error if it
// fails. The time excludes waits of the program's main thread for a processor, but includes those
// of programs that it starts. Its calls are not counted.
Sample timedProgram(std::size_t operations, const std::vector<std::string>& command);

}  // namespace qzbench
