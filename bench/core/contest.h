// Contests: several ways to do the same work, timed in turn, round by round.
//
// A round runs the floor, every other participant and the floor once more. What a participant
// took is always compared with another in the same round, so that a machine that slows down for
// a while slows both; the floor's second turn tells how much of a ratio is noise.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "measure.h"

namespace qzbench {

// The picture shows work on pages of this size.
inline constexpr std::int32_t kPlotPageSize = 4096;

struct Participant {
  std::string name;
  std::function<Sample()> pass;  // does the work once; what it sets up before is not in the sample
};

enum class Quantity {
  wall,       // time, as a ratio
  cpu,        // processor time, as a ratio
  wallNs,     // nanoseconds an operation
  readCalls,  // reading calls an operation
};

// An upper bound, met when the median over the rounds does not exceed it.
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
  bool warmUp = true;     // an uncounted round first
  std::string plotLabel;  // its row in the picture; empty: it has none

  bool has(const std::string& name) const {
    return std::any_of(participants.begin(), participants.end(),
                       [&](const Participant& p) { return p.name == name; });
  }
};

// Median, lowest and highest over the rounds.
struct Spread {
  double median = 0;
  double low = 0;
  double high = 0;
};

struct Standing {
  std::string name;
  Spread wallNs;     // an operation
  Spread wallRatio;  // to the floor
  Spread cpuRatio;
  double readCalls = 0;  // an operation, median
  double writeCalls = 0;
};

struct GoalOutcome {
  Goal goal;
  Spread value;

  bool isMet() const { return value.median <= goal.limit; }
};

struct Outcome {
  std::string work;
  std::string variant;
  std::string plotLabel;
  int rounds = 0;
  double operations = 0;            // of one pass
  std::vector<Standing> standings;  // in the order of a round, the floor's second turn last
  std::vector<GoalOutcome> goals;

  // The floor against itself.
  const Spread& noise() const { return standings.back().wallRatio; }
  bool isNoisy() const { return noise().median < 0.95 || noise().median > 1.05; }
};

Outcome hold(const Contest& contest, int rounds);

}  // namespace qzbench
