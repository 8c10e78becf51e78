// Contests: several ways to do the same work, timed alternately.
//
// The contestants alternate within milliseconds: a round gives each a slice of 2 to 5 ms, in order
// and in reverse (A B C C B A). A ratio compares the sums of slices that were timed side by side,
// so that a machine that slows down for a while slows down both sides. The floor takes part twice;
// its second seat is the control and shows how much of a ratio is noise.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "interval.h"
#include "measure.h"

namespace qzbench {

// The picture shows work on pages of this size.
inline constexpr std::int32_t kPlotPageSize = 4096;

struct Participant {
  std::string name;
  // Does that many operations from where the last run ended. Its set-up is not part of the sample.
  std::function<Sample(std::size_t operations)> run;
  std::size_t grain = 1;  // operations come in multiples of this number
};

enum class Quantity {
  wall,       // time, as a ratio
  cpu,        // processor time, as a ratio
  wallNs,     // nanoseconds per operation
  readCalls,  // read calls per operation
};

// An upper limit.
struct Goal {
  Quantity quantity;
  std::string who;
  std::string against;  // the other side of a ratio
  double limit;
};

struct Contest {
  std::string work;                       // what is done
  std::string variant;                    // how, and with which sizes
  std::vector<Participant> participants;  // the floor first
  std::vector<Goal> goals;
  double sliceNs = 4e6;  // of elapsed time
  // Every slice has as many operations as the floor's: for work with a start and an end that cost
  // the same however long the slice is.
  bool alike = false;
  bool whole = false;     // work that cannot be split: each turn is one grain, however long
  std::string plotLabel;  // its row in the picture; empty: none

  bool has(const std::string& name) const {
    return std::any_of(participants.begin(), participants.end(),
                       [&](const Participant& p) { return p.name == name; });
  }
};

// How long a contest takes. It ends when each contestant had its least time and every goal is
// decided, or after the most time. Contestants that no open goal needs leave earlier.
struct Effort {
  double leastNs = 0.25e9;  // for each contestant
  double mostNs = 10e9;     // for the contest; four times as long for whole runs and alike slices
};

struct Standing {
  std::string name;
  std::size_t turns = 0;
  Interval wallNs;     // per operation
  Interval wallRatio;  // to the floor
  Interval cpuRatio;
  double readCalls = 0;  // per operation
  double writeCalls = 0;
  double instructions = 0;
};

struct GoalOutcome {
  Goal goal;
  Interval value;
  Verdict verdict;
};

struct Outcome {
  std::string work;
  std::string variant;
  std::string plotLabel;
  std::size_t rounds = 0;
  bool whole = false;
  std::vector<Standing> standings;  // in the order of a round, the control last
  std::vector<GoalOutcome> goals;

  const Interval& control() const { return standings.back().wallRatio; }
  bool isVoid() const { return control().value < kLeastControl || control().value > kMostControl; }
};

Outcome hold(const Contest& contest, const Effort& effort);

}  // namespace qzbench
