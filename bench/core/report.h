// Outcomes as text, JSON and plot data.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "contest.h"

namespace qzbench {

// Where and how a run was made.
struct RunFacts {
  std::string date;
  std::string command;
  std::string machine;
  std::string system;
  std::string version;  // of the module
};
RunFacts runFacts(int argc, const char* const* argv);

std::string textOf(const RunFacts& facts);
std::string textOf(const Outcome& outcome);
// How many goals there are, and which were missed.
std::string goalSummary(const std::vector<Outcome>& outcomes);

std::string jsonOf(const RunFacts& facts, const std::vector<Outcome>& outcomes);

// One line an outcome with a module participant: label, ratio to the floor, lowest, highest.
std::string plotDataOf(const std::vector<Outcome>& outcomes);

}  // namespace qzbench
