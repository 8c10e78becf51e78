// The ways in which calls of the module are failed.
#pragma once

#include <vector>

#include "support/syscalls.h"

namespace qztest {

// How a call fails; see Fault.
struct Failure {
  std::int64_t result;
  std::uint32_t error;
  int count = 1;  // of calls in a row; kEveryLater: all
};
using Failures = std::vector<Failure>;

inline constexpr int kRetries = 2;  // of opens that meet a busy file

// Every way in which a call is failed; none for calls that never are.
const Failures& failuresOf(Call call);

}  // namespace qztest
