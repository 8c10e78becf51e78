#include "contest.h"

#include <cmath>
#include <set>

namespace qzbench {
namespace {

constexpr std::size_t kLeastRounds = 12;    // before goals are judged for the first time
constexpr std::size_t kDecisiveRounds = 6;  // fewer rounds decide no goal
constexpr std::size_t kPeerRounds = 2;      // least rounds of contestants without a goal
constexpr int kSizingRuns = 3;
constexpr std::size_t kWarmingPart =
    10;  // of a slice, not counted: refills the caches that other contestants used

// A participant in a contest, and its results so far.
struct Seat {
  const Participant* participant;
  std::string name;
  std::size_t operations = 0;  // in a slice
  double elapsedNs = 0;
  bool left = false;                // no open goal needs it
  std::vector<Sample> rounds = {};  // both slices of a round together

  std::vector<Cost> costs(double Sample::*part) const {
    std::vector<Cost> costs;
    costs.reserve(rounds.size());
    for (const Sample& sample : rounds) costs.push_back({sample.*part, sample.operations});
    return costs;
  }
};

using Seats = std::vector<Seat>;

Sample run(const Seat& seat, std::size_t operations) {
  try {
    return seat.participant->run(operations);
  } catch (const std::exception& error) {
    throw Failure(seat.name + ": " + error.what());
  }
}

std::size_t inGrains(double operations, std::size_t grain) {
  const auto grains = std::llround(operations / static_cast<double>(grain));
  return static_cast<std::size_t>(std::max(grains, 1LL)) * grain;
}

double elapsed(const Seat& seat, std::size_t operations) {
  const double before = nowNs(CLOCK_MONOTONIC);
  run(seat, operations);
  return nowNs(CLOCK_MONOTONIC) - before;
}

// Finds how many operations fit into a slice; what a participant sets up counts as part of it.
void sizeSlice(Seat& seat, const Contest& contest) {
  const std::size_t grain = seat.participant->grain;
  seat.operations = grain;
  for (;;) {
    // The shortest of several runs: a run may open a file, or wait for a processor.
    double took = elapsed(seat, seat.operations);
    for (int i = 1; i < kSizingRuns && !contest.whole; ++i) {
      took = std::min(took, elapsed(seat, seat.operations));
    }
    if (contest.whole || took >= contest.sliceNs / 2) return;
    const double factor = std::min(contest.sliceNs / took, 8.0);
    seat.operations = std::max(inGrains(static_cast<double>(seat.operations) * factor, grain),
                               seat.operations + grain);
  }
}

Sample slice(Seat& seat, bool whole) {
  const std::size_t grain = seat.participant->grain;
  const double before = nowNs(CLOCK_MONOTONIC);
  if (!whole && seat.operations / kWarmingPart >= grain) {
    run(seat, seat.operations / kWarmingPart / grain * grain);
  }
  const Sample sample = run(seat, seat.operations);
  seat.elapsedNs += nowNs(CLOCK_MONOTONIC) - before;
  return sample;
}

// Runs all participants in order and in reverse. The control is last in the list but runs after the
// second contestant: participants that are compared most should run close together.
void holdRound(Seats& seats, bool whole) {
  std::vector<Seat*> turns;
  for (Seat& seat : seats) {
    if (!seat.left) turns.push_back(&seat);
  }
  std::rotate(turns.begin() + std::min<std::ptrdiff_t>(2, std::ssize(turns) - 1), turns.end() - 1,
              turns.end());
  for (Seat* seat : turns) seat->rounds.push_back(slice(*seat, whole));
  std::reverse(turns.begin(), turns.end());
  for (Seat* seat : turns) seat->rounds.back() += slice(*seat, whole);
}

Seat& seatOf(Seats& seats, const std::string& name) {
  const auto found =
      std::find_if(seats.begin(), seats.end(), [&](const Seat& seat) { return seat.name == name; });
  if (found == seats.end()) throw Failure("no participant " + name);
  return *found;
}

Interval ratioOf(const Seat& over, const Seat& under, double Sample::*part) {
  return qzbench::ratioOf(over.costs(part), under.costs(part));
}

Interval valueOf(const Goal& goal, Seats& seats) {
  const Seat& own = seatOf(seats, goal.who);
  switch (goal.quantity) {
    case Quantity::wallNs:
      return meanOf(own.costs(&Sample::wallNs));
    case Quantity::readCalls:
      return meanOf(own.costs(&Sample::readCalls));
    case Quantity::wall:
    case Quantity::cpu:
      break;
  }
  return ratioOf(own, seatOf(seats, goal.against),
                 goal.quantity == Quantity::cpu ? &Sample::cpuNs : &Sample::wallNs);
}

// True when all goals are decided. Contestants that no open goal needs leave for good; their
// results stay as they are. Floor and control stay.
bool isDecided(const Contest& contest, Seats& seats) {
  const Interval control = ratioOf(seats.back(), seats.front(), &Sample::wallNs);
  bool decided = verdictOf(control, kLeastControl) == Verdict::missed &&
                 verdictOf(control, kMostControl) == Verdict::met;
  std::set<std::string> needed = {seats.front().name, seats.back().name};
  for (const Goal& goal : contest.goals) {
    if (verdictOf(valueOf(goal, seats), goal.limit) != Verdict::undecided) continue;
    decided = false;
    needed.insert({goal.who, goal.against});
  }
  for (Seat& seat : seats) seat.left |= needed.count(seat.name) == 0;
  return decided;
}

// Contestants that no goal names leave after their least time.
void sendPeersAway(const Contest& contest, double leastNs, Seats& seats) {
  for (std::size_t i = 1; i + 1 < seats.size(); ++i) {
    Seat& seat = seats[i];
    const bool isNamed = std::any_of(
        contest.goals.begin(), contest.goals.end(),
        [&](const Goal& goal) { return goal.who == seat.name || goal.against == seat.name; });
    seat.left |= !isNamed && seat.rounds.size() >= kPeerRounds && seat.elapsedNs >= leastNs;
  }
}

Seats seatsOf(const Contest& contest) {
  Seats seats;
  for (const Participant& participant : contest.participants) {
    seats.push_back({&participant, participant.name});
    if (contest.alike && seats.size() > 1) {
      seats.back().operations = seats.front().operations;
    } else {
      sizeSlice(seats.back(), contest);
    }
  }
  seats.push_back(seats.front());
  seats.back().name += " again";
  return seats;
}

}  // namespace

Outcome hold(const Contest& contest, const Effort& effort) {
  const double start = nowNs(CLOCK_MONOTONIC);
  const double mostNs = (contest.whole || contest.alike ? 4 : 1) * effort.mostNs;
  Seats seats = seatsOf(contest);
  std::size_t rounds = 0;
  for (std::size_t nextLook = kLeastRounds;;) {
    holdRound(seats, contest.whole);
    ++rounds;
    sendPeersAway(contest, effort.leastNs, seats);
    if (rounds >= 2 && nowNs(CLOCK_MONOTONIC) - start > mostNs) break;
    if (rounds < nextLook) continue;
    const bool hadTime = contest.whole || std::all_of(seats.begin(), seats.end(), [&](auto& seat) {
                           return seat.left || seat.elapsedNs >= effort.leastNs;
                         });
    if (hadTime && isDecided(contest, seats)) break;
    nextLook = rounds + rounds / 4;
  }

  Outcome outcome{.work = contest.work,
                  .variant = contest.variant,
                  .plotLabel = contest.plotLabel,
                  .rounds = rounds,
                  .whole = contest.whole,
                  .standings = {},
                  .goals = {}};
  for (const Seat& seat : seats) {
    const auto mean = [&](double Sample::*part) { return meanOf(seat.costs(part)).value; };
    outcome.standings.push_back({.name = seat.name,
                                 .turns = 2 * seat.rounds.size(),
                                 .wallNs = meanOf(seat.costs(&Sample::wallNs)),
                                 .wallRatio = ratioOf(seat, seats.front(), &Sample::wallNs),
                                 .cpuRatio = ratioOf(seat, seats.front(), &Sample::cpuNs),
                                 .readCalls = mean(&Sample::readCalls),
                                 .writeCalls = mean(&Sample::writeCalls),
                                 .instructions = mean(&Sample::instructions)});
  }
  for (const Goal& goal : contest.goals) {
    const Interval value = valueOf(goal, seats);
    Verdict verdict = verdictOf(value, goal.limit);
    // Calls are counted, not timed.
    if (goal.quantity != Quantity::readCalls) {
      if (rounds < kDecisiveRounds) verdict = Verdict::undecided;
      if (outcome.isVoid()) verdict = Verdict::voided;
    }
    outcome.goals.push_back({goal, value, verdict});
  }
  return outcome;
}

}  // namespace qzbench
