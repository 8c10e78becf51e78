// Time, processor time, instructions and transfer calls of a piece of work.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>

namespace qzbench {

// A contest that cannot run; the text says why.
struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws Failure with `what` and the system's reason.
[[noreturn]] void failWithErrno(const std::string& what);

// The cost of some operations. NaN: not counted.
struct Sample {
  // Elapsed time, minus the time in which the main thread waited for a processor that other
  // programs or other virtual machines used. Time in which it slept, for a disk or for its own
  // threads, counts.
  double wallNs = 0;
  double cpuNs = 0;  // user and system time of the process
  double operations = 0;
  double readCalls = 0;  // read, pread, readv, as the kernel counted them
  double writeCalls = 0;
  double instructions = 0;  // of all threads, in user mode

  Sample& operator+=(const Sample& other);
};

inline double nowNs(clockid_t clock) {
  timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
}

// What the kernel and the processor counted for this process so far, without the calls of the
// measurement.
struct Counts {
  std::int64_t reads = 0;
  std::int64_t writes = 0;
  double instructions = 0;
};
Counts countsSoFar();

// The clocks, and how long the main thread has waited for a processor that other programs used.
struct Moment {
  double threadBeforeNs = 0;  // its processor time, before and after all queries
  double threadAfterNs = 0;
  double beforeNs = 0;  // the clock before and after the query for the wait
  double afterNs = 0;
  double waitedNs = 0;
  std::int64_t sleeps = 0;  // of the main thread
};
Moment momentNow();
// The time from `start` to `end` without the waits. If the main thread never slept, it is that
// thread's processor time: the kernel leaves out of it what the hypervisor gave to other machines,
// which it does not count as a wait.
double takenNs(const Moment& start, const Moment& end);
// How long the main thread of another process waited for a processor; the process may have ended.
double waitedOf(pid_t process);

// True if the processor counts instructions for this process. Call it before any thread starts.
bool countsInstructions();

// Runs `body`, which does `operations` operations.
template <class Body>
Sample timed(std::size_t operations, Body&& body) {
  const Counts before = countsSoFar();
  const double cpuBefore = nowNs(CLOCK_PROCESS_CPUTIME_ID);
  const Moment start = momentNow();
  body();
  const Moment end = momentNow();
  const double cpuAfter = nowNs(CLOCK_PROCESS_CPUTIME_ID);
  const Counts after = countsSoFar();
  Sample sample;
  sample.wallNs = takenNs(start, end);
  sample.cpuNs = cpuAfter - cpuBefore;
  sample.operations = static_cast<double>(operations);
  sample.readCalls = static_cast<double>(after.reads - before.reads);
  sample.writeCalls = static_cast<double>(after.writes - before.writes);
  sample.instructions = after.instructions - before.instructions;
  return sample;
}

}  // namespace qzbench
