// Whole programs as participants.
#pragma once

#include <string>
#include <vector>

#include "measure.h"

namespace qzbench {

// Runs a program, found as a shell finds it, to its end. Throws Failure with what it said on
// standard error unless it ends well. What its main thread waited for a processor is not in the
// time; a program that it starts itself does wait in it. Nobody counts its calls.
Sample timedProgram(std::size_t operations, const std::vector<std::string>& command);

}  // namespace qzbench
