#include "measure.h"

#include <fcntl.h>
#include <linux/perf_event.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace qzbench {
namespace {

std::int64_t valueAfter(std::string_view text, std::string_view name) {
  const std::size_t at = text.find(name);
  if (at == std::string_view::npos) throw Failure("the kernel does not count transfer calls");
  return std::strtoll(text.data() + at + name.size(), nullptr, 10);
}

using Text = std::array<char, 512>;

Text textOf(int fd, const char* path) {
  Text text = {};
  if (fd == -1 || pread(fd, text.data(), text.size() - 1, 0) <= 0) failWithErrno(path);
  return text;
}

int openInstructionCounter() {
  perf_event_attr attributes = {};
  attributes.type = PERF_TYPE_HARDWARE;
  attributes.size = sizeof(attributes);
  attributes.config = PERF_COUNT_HW_INSTRUCTIONS;
  attributes.inherit = 1;
  attributes.exclude_kernel = 1;
  return static_cast<int>(
      syscall(SYS_perf_event_open, &attributes, 0, -1, -1, PERF_FLAG_FD_CLOEXEC));
}

int instructionCounter() {
  static const int fd = openInstructionCounter();
  return fd;
}

double instructionsSoFar() {
  std::uint64_t count = 0;
  if (!countsInstructions() || read(instructionCounter(), &count, sizeof(count)) != sizeof(count)) {
    return std::numeric_limits<double>::quiet_NaN();
  }
  return static_cast<double>(count);
}

std::int64_t ownReads = 0;  // made by the measurement itself

// The second number of schedstat: nanoseconds spent ready to run but waiting. 0 if the kernel does
// not have it.
double waitedIn(int fd) {
  if (fd == -1) return 0;
  ++ownReads;
  const Text text = textOf(fd, "schedstat");
  char* second = nullptr;
  std::strtoull(text.data(), &second, 10);
  return std::strtod(second, nullptr);
}

double waitedSoFar() {
  static const int fd = open("/proc/self/schedstat", O_RDONLY | O_CLOEXEC);
  return waitedIn(fd);
}

}  // namespace

void failWithErrno(const std::string& what) { throw Failure(what + ": " + std::strerror(errno)); }

Sample& Sample::operator+=(const Sample& other) {
  wallNs += other.wallNs;
  cpuNs += other.cpuNs;
  operations += other.operations;
  readCalls += other.readCalls;
  writeCalls += other.writeCalls;
  instructions += other.instructions;
  return *this;
}

bool countsInstructions() { return instructionCounter() != -1; }

Counts countsSoFar() {
  static const int fd = open("/proc/self/io", O_RDONLY | O_CLOEXEC);
  const double instructions = instructionsSoFar();
  ownReads += countsInstructions() ? 1 : 0;
  const Text text = textOf(fd, "/proc/self/io");
  // A call is counted when it returns, so the text does not count the call that reads it.
  const Counts counts = {.reads = valueAfter(text.data(), "syscr:") - ownReads,
                         .writes = valueAfter(text.data(), "syscw:"),
                         .instructions = instructions};
  ++ownReads;
  return counts;
}

Moment momentNow() {
  // More than the query takes: another program ran in between.
  constexpr double kInterrupted = 50e3;
  constexpr int kAttempts = 10;
  Moment moment;
  moment.threadBeforeNs = nowNs(CLOCK_THREAD_CPUTIME_ID);
  rusage used = {};
  getrusage(RUSAGE_THREAD, &used);
  moment.sleeps = used.ru_nvcsw;
  for (int i = 0; i < kAttempts; ++i) {
    moment.beforeNs = nowNs(CLOCK_MONOTONIC);
    moment.waitedNs = waitedSoFar();
    moment.afterNs = nowNs(CLOCK_MONOTONIC);
    if (moment.afterNs - moment.beforeNs < kInterrupted) break;
  }
  moment.threadAfterNs = nowNs(CLOCK_THREAD_CPUTIME_ID);
  return moment;
}

double takenNs(const Moment& start, const Moment& end) {
  if (start.sleeps == end.sleeps) return end.threadBeforeNs - start.threadAfterNs;
  return (end.beforeNs - start.afterNs) - (end.waitedNs - start.waitedNs);
}

double waitedOf(pid_t process) {
  const std::string path = "/proc/" + std::to_string(process) + "/schedstat";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const double waited = waitedIn(fd);
  if (fd != -1) close(fd);
  return waited;
}

}  // namespace qzbench
