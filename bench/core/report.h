// Outcomes as text, as JSON and as data for the picture.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "contest.h"

namespace qzbench {

// Where and how a run was done.
struct RunFacts {
  std::string date;
  std::string command;
  std::string machine;
  std::string system;
};
RunFacts runFacts(int argc, const char* const* argv);

std::string textOf(const RunFacts& facts);
std::string textOf(const Outcome& outcome);

// Instructions of one of the module's inner paths.
struct PathCount {
  std::string path;
  double native;
  double i386;
  double nativeNs;  // including the kernel's time; NaN: not timed
  double i386Ns;

  static constexpr double kLimit = 1.3;  // i386 to native
  double ratio() const { return i386 / native; }
  bool isMet() const { return ratio() <= kLimit; }
};
// Reads one file for each machine, with lines of a path's name and its instructions. If the kernel
// runs both kinds of programs, the same with nanoseconds follows.
std::vector<PathCount> readCounts(const std::vector<std::string>& files);
std::string textOf(const std::vector<PathCount>& counts);

// How many goals were met, and which were not.
std::string goalSummary(const std::vector<Outcome>& outcomes, const std::vector<PathCount>& counts);

// How many verdicts agree between two runs of the same contests, and which do not.
std::string agreement(const std::vector<Outcome>& quiet, const std::vector<Outcome>& busy);

std::string jsonOf(const RunFacts& facts, const std::vector<Outcome>& outcomes,
                   const std::vector<PathCount>& counts);

// One line for each participant (except the floor) of the outcomes in the picture: row, label,
// participant, ratio to the floor, lowest, highest; separated by tabs.
std::string plotDataOf(const std::vector<Outcome>& outcomes);

}  // namespace qzbench
