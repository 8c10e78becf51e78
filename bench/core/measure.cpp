#include "measure.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace qzbench {
namespace {

std::int64_t valueAfter(std::string_view text, std::string_view name) {
  const std::size_t at = text.find(name);
  if (at == std::string_view::npos) throw Failure("the kernel does not count transfer calls");
  return std::strtoll(text.data() + at + name.size(), nullptr, 10);
}

}  // namespace

void failWithErrno(const std::string& what) { throw Failure(what + ": " + std::strerror(errno)); }

Sample& Sample::operator+=(const Sample& other) {
  wallNs += other.wallNs;
  cpuNs += other.cpuNs;
  operations += other.operations;
  readCalls += other.readCalls;
  writeCalls += other.writeCalls;
  return *this;
}

CallCounts transferCalls() {
  static const int fd = open("/proc/self/io", O_RDONLY | O_CLOEXEC);
  static std::int64_t ownCalls = 0;
  std::array<char, 512> text = {};
  if (fd == -1 || pread(fd, text.data(), text.size() - 1, 0) <= 0) failWithErrno("/proc/self/io");
  // A call is counted as it returns: the text has the questions before this one.
  const CallCounts counts = {.reads = valueAfter(text.data(), "syscr:") - ownCalls,
                             .writes = valueAfter(text.data(), "syscw:")};
  ++ownCalls;
  return counts;
}

}  // namespace qzbench
