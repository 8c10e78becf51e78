// The ways in which calls of the module are failed.
#pragma once

#include <vector>

#include "support/syscalls.h"

namespace qztest {

// What a call comes to in place of its work; see Fault.
struct Failure {
  std::int64_t result;
  std::uint32_t error;
  int count = 1;  // of calls in a row; kEveryLater: as many as come would never end
};
using Failures = std::vector<Failure>;

inline constexpr int kRetries = 2;  // of opens that meet a busy file

// Every way for a call; none for those that are not failed.
const Failures& failuresOf(Call call);

}  // namespace qztest
