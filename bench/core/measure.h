// Time, processor time and transfer calls of a piece of work.
#pragma once

#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>

namespace qzbench {

// A contest that cannot be held: the text says why.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws Failure with `what` and the system's reason.
[[noreturn]] void failWithErrno(const std::string& what);

// What one pass over the work took.
struct Sample {
  double wallNs = 0;
  double cpuNs = 0;  // user and system time of the process
  double operations = 0;
  double readCalls = 0;  // read, pread, readv as the kernel counted them; NaN: nobody counted
  double writeCalls = 0;

  Sample& operator+=(const Sample& other);
};

inline double nowNs(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// The kernel's count of this process's transfer calls so far, this question's own left out.
struct CallCounts {
  std::int64_t reads = 0;
  std::int64_t writes = 0;
};
CallCounts transferCalls();

// Runs `body`, which does `operations` operations.
template <class Body>
Sample timed(std::size_t operations, Body&& body) {
  const CallCounts callsBefore = transferCalls();
  const double cpuBefore = nowNs(CLOCK_PROCESS_CPUTIME_ID);
  const double wallBefore = nowNs(CLOCK_MONOTONIC);
  body();
  const double wallAfter = nowNs(CLOCK_MONOTONIC);
  const double cpuAfter = nowNs(CLOCK_PROCESS_CPUTIME_ID);
  const CallCounts callsAfter = transferCalls();
  Sample sample;
  sample.wallNs = wallAfter - wallBefore;
  sample.cpuNs = cpuAfter - cpuBefore;
  sample.operations = static_cast<double>(operations);
  sample.readCalls = static_cast<double>(callsAfter.reads - callsBefore.reads);
  sample.writeCalls = static_cast<double>(callsAfter.writes - callsBefore.writes);
  return sample;
}

}  // namespace qzbench
