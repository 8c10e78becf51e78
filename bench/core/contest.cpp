#include "contest.h"

#include <algorithm>

namespace qzbench {
namespace {

using Samples = std::vector<Sample>;  // of one participant, a round each

Spread spreadOf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  const double median =
      values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
  return {.median = median, .low = values.front(), .high = values.back()};
}

template <class Value>
Spread spreadOver(const Samples& samples, Value value) {
  std::vector<double> values(samples.size());
  std::transform(samples.begin(), samples.end(), values.begin(), value);
  return spreadOf(std::move(values));
}

// Round by round; per operation, because passes may differ in length.
Spread ratioOf(const Samples& over, const Samples& under, double Sample::*part) {
  std::vector<double> values(over.size());
  std::transform(over.begin(), over.end(), under.begin(), values.begin(),
                 [part](const Sample& a, const Sample& b) {
                   return (a.*part / a.operations) / (b.*part / b.operations);
                 });
  return spreadOf(std::move(values));
}

Spread perOperation(const Samples& samples, double Sample::*part) {
  return spreadOver(samples, [part](const Sample& s) { return s.*part / s.operations; });
}

std::size_t indexOf(const Contest& contest, const std::string& name) {
  const auto& all = contest.participants;
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Participant& p) { return p.name == name; });
  if (found == all.end()) throw Failure("no participant " + name + " in " + contest.work);
  return static_cast<std::size_t>(found - all.begin());
}

Spread valueOf(const Goal& goal, const Contest& contest, const std::vector<Samples>& samples) {
  const Samples& own = samples[indexOf(contest, goal.who)];
  switch (goal.quantity) {
    case Quantity::wallNs:
      return perOperation(own, &Sample::wallNs);
    case Quantity::readCalls:
      return perOperation(own, &Sample::readCalls);
    case Quantity::wall:
    case Quantity::cpu:
      break;
  }
  return ratioOf(own, samples[indexOf(contest, goal.against)],
                 goal.quantity == Quantity::cpu ? &Sample::cpuNs : &Sample::wallNs);
}

Sample passOf(const Participant& participant) {
  try {
    return participant.pass();
  } catch (const std::exception& error) {
    throw Failure(participant.name + ": " + error.what());
  }
}

}  // namespace

Outcome hold(const Contest& contest, int rounds) {
  std::vector<Participant> turns = contest.participants;
  turns.push_back(turns.front());
  turns.back().name += " again";
  if (contest.warmUp) {
    for (const Participant& participant : contest.participants) passOf(participant);
  }
  std::vector<Samples> samples(turns.size());
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < turns.size(); ++i) samples[i].push_back(passOf(turns[i]));
  }

  Outcome outcome;
  outcome.work = contest.work;
  outcome.variant = contest.variant;
  outcome.plotLabel = contest.plotLabel;
  outcome.rounds = rounds;
  outcome.operations = samples[0][0].operations;
  for (std::size_t i = 0; i < turns.size(); ++i) {
    Standing standing;
    standing.name = turns[i].name;
    standing.wallNs = perOperation(samples[i], &Sample::wallNs);
    standing.wallRatio = ratioOf(samples[i], samples[0], &Sample::wallNs);
    standing.cpuRatio = ratioOf(samples[i], samples[0], &Sample::cpuNs);
    standing.readCalls = perOperation(samples[i], &Sample::readCalls).median;
    standing.writeCalls = perOperation(samples[i], &Sample::writeCalls).median;
    outcome.standings.push_back(std::move(standing));
  }
  for (const Goal& goal : contest.goals) {
    outcome.goals.push_back({goal, valueOf(goal, contest, samples)});
  }
  return outcome;
}

}  // namespace qzbench
