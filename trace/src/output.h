// The file that the trace goes to.
//
// Lines are copied into a part of the file that is mapped into memory, so a line that was added is
// in the file even when the process is killed at the next instruction: only a crash of the system
// can lose it. Each part is reserved on the disk before it is mapped, so a full disk is an error
// here and no fault of the memory. Until settle() the file ends with the zero bytes of that part.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>

namespace qz::trace {

// How every trace begins: a file that does not is never overwritten.
inline constexpr std::string_view kFirstBytes = "{\"qziop_trace\":";

class Output {
 public:
  // Opens `path`, or "PATH.PID" when another process records into that. Returns 0 or an errno:
  // EEXIST for a file that holds something else than a trace.
  int begin(const char* path);
  bool hasBegun() const { return fd_ != -1; }

  // Adds a whole line. Returns the errno of the first failure, once; after it nothing is added.
  int append(const char* line, std::size_t bytes);

  // Cuts the file to its lines.
  void settle();

  // In a child made by fork: the file is the parent's.
  void abandon();

 private:
  int openFor(const char* path);
  int mapNext();
  void unmap();

  std::mutex mutex_;
  int fd_ = -1;
  bool failed_ = false;
  char* window_ = nullptr;        // kWindowBytes of the file from windowBegin_ on
  std::int64_t windowBegin_ = 0;  // a multiple of kWindowBytes
  std::int64_t position_ = 0;     // where the next byte goes
};

}  // namespace qz::trace
