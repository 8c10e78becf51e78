// The file that the trace is written to.
//
// Lines are copied into a part of the file that is mapped into memory. A line that was added is in
// the file even if the process is killed at the next instruction: only a crash of the system can
// lose it. Each part is allocated on the disk before it is mapped, so a full disk is an error here
// and not a SIGBUS. Until settle(), the file ends with the zero bytes of that part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

namespace qz::trace {

// The first bytes of every trace. A file that begins otherwise is never overwritten.
inline constexpr std::string_view kFirstBytes = "{\"qziop_trace\":";

class Output {
 public:
  // Opens `path`, or "PATH.PID" if another process records into `path`. Returns 0 or an errno:
  // EEXIST for a file that contains something other than a trace.
  int begin(const char* path);
  bool hasBegun() const { return fd_ != -1; }

  // Adds a whole line. Returns the errno of the first failure once; after a failure nothing is
  // added.
  int append(const char* line, std::size_t bytes);

  // Truncates the file to its lines.
  void settle();

  // For a child made by fork: the file belongs to the parent.
  void abandon();

 private:
  int openFor(const char* path);
  int mapNext();
  void unmap();

  std::mutex mutex_;
  int fd_ = -1;
  bool failed_ = false;
  char* window_ = nullptr;        // kWindowBytes of the file, from windowBegin_ on
  std::int64_t windowBegin_ = 0;  // a multiple of kWindowBytes
  std::int64_t position_ = 0;     // where the next byte is written
};

}  // namespace qz::trace
