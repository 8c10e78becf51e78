// Records one operation in the order of events: its arguments, the system calls that it makes, its
// results. Each operation is one line of JSON, complete when the operation ends.
//
// An operation that is called inside another one has its own line, before that of the outer
// operation, and names the outer one in "in". Its system calls are only on its own line; its time
// is in both.
#pragma once

#include <cerrno>
#include <cstdint>

#include "qzpos.h"
#include "text.h"

namespace qz::trace {

// Begins to record if the variable QZIOP_TRACE names a file; continues if recording has begun. If
// the file cannot be written, that is journalled and nothing is recorded.
void begin(QZHandle* host, Journal* journal);

// Call this after the last extension object is destroyed: truncates the file to its last line.
void settle();

// Reports at error level; to the host's own journal if `journal` is null.
void report(QZHandle* host, Journal* journal, const char* what, const char* reason);

bool isRecording();

// The line of this thread's current operation. The lines of nested operations share one text.
struct Line {
  Text text;
  std::size_t begin = 0;        // of the innermost operation's line
  std::uint64_t operation = 0;  // its number; 0: no operation is running
  bool hasCalls = false;
  int thread = 0;  // threads are numbered from 1 in order of appearance
};
Line& thisThread();

std::int64_t now();  // nanoseconds since the trace began

class Operation {
 public:
  Operation(const char* name, const void* handle);
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  Text& text() { return line_.text; }
  // The arguments are complete; the operation starts.
  void start();
  // The operation has ended; results follow.
  void stop();
  void write(Journal* journal);

 private:
  Line& line_;
  std::size_t outerBegin_;
  std::uint64_t outerOperation_;
  bool outerHasCalls_;
  std::int64_t started_ = 0;
};

// "ok", or the code in hexadecimal.
void addStatus(Text* text, Status status);

// Makes `call`. While this library records, adds `arguments` to the line before the call and
// `results` after it.
template <class Call, class Arguments, class Results>
auto record(const char* name, const void* handle, Journal* journal, Call call, Arguments arguments,
            Results results) {
  if (!isRecording()) return call();
  Operation operation(name, handle);
  arguments(operation.text());
  operation.start();
  const auto result = call();
  operation.stop();
  results(operation.text(), result);
  operation.write(journal);
  return result;
}

// The two halves of recordCall that do not depend on the call.
void beginCall(Line* line, std::string_view name);
void endCall(Line* line, std::int64_t result, int error, std::int64_t nanoseconds);

// Makes a system call of the module and adds it, with `arguments`, to the operation that makes it.
template <class Arguments, class Call>
auto recordCall(std::string_view name, Arguments arguments, Call call) {
  Line& line = thisThread();
  if (line.operation == 0) return call();
  beginCall(&line, name);
  arguments(line.text);
  const std::int64_t started = now();
  const auto result = call();
  const int error = errno;
  endCall(&line, result, result == -1 ? error : 0, now() - started);
  errno = error;
  return result;
}

}  // namespace qz::trace
