#include "passes.h"

#include <algorithm>
#include <numeric>
#include <random>

namespace qzbench {

Order pageOrder(std::int64_t pages, bool sequential) {
  Order order(static_cast<std::size_t>(pages));
  std::iota(order.begin(), order.end(), 1);
  if (!sequential) std::shuffle(order.begin(), order.end(), std::mt19937_64(20));
  return order;
}

}  // namespace qzbench
