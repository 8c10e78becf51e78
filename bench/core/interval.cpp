#include "interval.h"

#include <algorithm>
#include <random>
#include <vector>

namespace qzbench {
namespace {

constexpr std::size_t kResamples = 1000;
constexpr std::size_t kBeyond = kResamples / 200;  // resamples outside the interval, on each side

// Sums of pairs.
struct Sums {
  Cost over = {0, 0};
  Cost under = {0, 0};

  void add(const Cost& a, const Cost& b) {
    over.spent += a.spent;
    over.operations += a.operations;
    under.spent += b.spent;
    under.operations += b.operations;
  }
  double ratio() const { return (over.spent / over.operations) / (under.spent / under.operations); }
};

}  // namespace

Interval ratioOf(std::span<const Cost> over, std::span<const Cost> under) {
  const std::size_t pairs = std::min(over.size(), under.size());
  Sums all;
  for (std::size_t i = 0; i < pairs; ++i) all.add(over[i], under[i]);
  std::vector<double> ratios(kResamples);
  std::mt19937_64 random(23);
  std::uniform_int_distribution<std::size_t> anyPair(0, pairs - 1);
  for (double& ratio : ratios) {
    Sums sums;
    for (std::size_t i = 0; i < pairs; ++i) {
      const std::size_t pair = anyPair(random);
      sums.add(over[pair], under[pair]);
    }
    ratio = sums.ratio();
  }
  std::sort(ratios.begin(), ratios.end());
  return {.value = all.ratio(), .low = ratios[kBeyond], .high = ratios[kResamples - 1 - kBeyond]};
}

Interval meanOf(std::span<const Cost> costs) {
  return ratioOf(costs, std::vector<Cost>(costs.size(), {1, 1}));
}

Verdict verdictOf(const Interval& value, double limit) {
  if (value.high <= limit) return Verdict::met;
  return value.low > limit ? Verdict::missed : Verdict::undecided;
}

const char* nameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::met:
      return "met";
    case Verdict::missed:
      return "MISSED";
    case Verdict::undecided:
      return "not decided";
    case Verdict::voided:
      break;
  }
  return "void";
}

}  // namespace qzbench
