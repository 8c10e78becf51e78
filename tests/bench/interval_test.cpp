// The statistics of benchmarks: the ratio of two contestants' costs, its confidence interval, and
// whether a goal is met.
#include "interval.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using qzbench::Cost;
using qzbench::Interval;
using qzbench::Verdict;

// Costs of two contestants, measured in pairs, on a machine whose speed changes from pair to pair.
struct Pairs {
  std::vector<Cost> over;
  std::vector<Cost> under;
};
Pairs pairsOf(double ratio, std::size_t count, double noise) {
  Pairs pairs;
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> speed(1, 3);
  std::normal_distribution<double> error(1, noise);
  for (std::size_t i = 0; i < count; ++i) {
    const double cost = speed(random);
    // The two make different numbers of operations in a round.
    pairs.over.push_back({cost * ratio * error(random) * 70, 70});
    pairs.under.push_back({cost * error(random) * 100, 100});
  }
  return pairs;
}

// Rounds must count by their number of operations, not one each.
TEST(Intervals, ARatioIsThatOfTheSumsPerOperation) {
  const std::vector<Cost> over = {{30, 10}, {10, 10}};
  const std::vector<Cost> under = {{10, 20}, {10, 20}};
  EXPECT_DOUBLE_EQ(qzbench::ratioOf(over, under).value, 2 / 0.5);
  EXPECT_DOUBLE_EQ(qzbench::meanOf(over).value, 2);
}

// A machine that slows down slows both contestants, which must not make their ratio less certain.
TEST(Intervals, AChangeOfSpeedThatBothSidesFeelDoesNotWidenThem) {
  const Pairs pairs = pairsOf(1.04, 60, 0);
  const Interval ratio = qzbench::ratioOf(pairs.over, pairs.under);
  EXPECT_NEAR(ratio.low, 1.04, 1e-9);
  EXPECT_NEAR(ratio.high, 1.04, 1e-9);
}

// Noise must widen the interval, or a chance difference would pass as a result.
TEST(Intervals, NoiseOfOneSideWidensThemAndMorePairsNarrowThem) {
  const Pairs few = pairsOf(1.04, 20, 0.1);
  const Pairs many = pairsOf(1.04, 500, 0.1);
  const Interval wide = qzbench::ratioOf(few.over, few.under);
  const Interval narrow = qzbench::ratioOf(many.over, many.under);
  for (const Interval& interval : {wide, narrow}) {
    EXPECT_LT(interval.low, 1.04);
    EXPECT_GT(interval.high, 1.04);
  }
  EXPECT_LT(2 * (narrow.high - narrow.low), wide.high - wide.low);
}

// The intervals are of 99 %: the true ratio may lie outside a few only, here at most 10 of 200.
TEST(Intervals, TheyHoldTheTrueRatio) {
  int outside = 0;
  std::mt19937_64 random(2);
  std::normal_distribution<double> cost(100, 20);
  for (int trial = 0; trial < 200; ++trial) {
    std::vector<Cost> over;
    std::vector<Cost> under;
    for (int i = 0; i < 30; ++i) {
      over.push_back({1.5 * cost(random), 1});
      under.push_back({cost(random), 1});
    }
    const Interval ratio = qzbench::ratioOf(over, under);
    outside += ratio.low > 1.5 || ratio.high < 1.5 ? 1 : 0;
  }
  EXPECT_LE(outside, 10);
}

// A contestant that stopped early must be compared over the rounds that both took part in.
TEST(Intervals, ContestantsAreComparedOverTheRoundsTheyShare) {
  const std::vector<Cost> stopped = {{20, 10}};
  const std::vector<Cost> longer = {{10, 10}, {1000, 10}};
  EXPECT_DOUBLE_EQ(qzbench::ratioOf(stopped, longer).value, 2);
}

// A goal counts as met or missed only if the whole interval lies on one side of it.
TEST(Verdicts, AnIntervalThatCrossesItsGoalDecidesNothing) {
  EXPECT_EQ(qzbench::verdictOf({1.00, 0.97, 1.05}, 1.05), Verdict::met);
  EXPECT_EQ(qzbench::verdictOf({1.10, 1.06, 1.20}, 1.05), Verdict::missed);
  EXPECT_EQ(qzbench::verdictOf({1.04, 1.01, 1.06}, 1.05), Verdict::undecided);
  EXPECT_EQ(qzbench::verdictOf({1.06, 1.05, 1.09}, 1.05), Verdict::undecided);
}

}  // namespace
