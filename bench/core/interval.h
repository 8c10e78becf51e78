// Means and ratios with their confidence intervals, and what they say of a goal.
#pragma once

#include <cstdint>
#include <span>

namespace qzbench {

// What some operations cost together.
struct Cost {
  double spent;
  double operations;
};

// An estimate and its confidence interval of 99 %.
struct Interval {
  double value = 0;
  double low = 0;
  double high = 0;
};

// The cost of an operation of `over` as a multiple of one of `under`, from the sums of all costs.
// Costs of the same index were measured side by side: the interval comes from a bootstrap over
// these pairs, so that what slows down both sides of a pair does not widen it.
Interval ratioOf(std::span<const Cost> over, std::span<const Cost> under);
// The cost of an operation.
Interval meanOf(std::span<const Cost> costs);

enum class Verdict : std::uint8_t { met, missed, undecided, voided };

// An upper bound is met or missed when the whole interval lies on one side of it.
Verdict verdictOf(const Interval& value, double limit);
const char* nameOf(Verdict verdict);

// A contest counts only if its control, the floor against itself, lies between these.
inline constexpr double kLeastControl = 0.98;
inline constexpr double kMostControl = 1.02;

}  // namespace qzbench
