// Means and ratios with their confidence intervals, and verdicts on goals.
#pragma once

#include <cstdint>
#include <span>

namespace qzbench {

// The total cost of some operations.
struct Cost {
  double spent;
  double operations;
};

// An estimate and its 99 % confidence interval.
struct Interval {
  double value = 0;
  double low = 0;
  double high = 0;
};

// The cost of an operation of `over` as a multiple of one of `under`, from the sums of all costs.
// Costs of the same index were measured side by side: the interval comes from a bootstrap over
// these pairs, so that a slowdown of both sides of a pair does not widen it.
Interval ratioOf(std::span<const Cost> over, std::span<const Cost> under);
// The cost of an operation.
Interval meanOf(std::span<const Cost> costs);

enum class Verdict : std::uint8_t { met, missed, undecided, voided };

// The limit is met or missed if the whole interval is on one side of it.
Verdict verdictOf(const Interval& value, double limit);
const char* nameOf(Verdict verdict);

// A contest counts only if its control, the floor against itself, is within these bounds.
inline constexpr double kLeastControl = 0.98;
inline constexpr double kMostControl = 1.02;

}  // namespace qzbench
