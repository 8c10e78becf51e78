// What is recorded about one operation, in the order in which it happens: its arguments, the system
// calls that it makes, its results. One line of JSON each, complete when the operation ends.
//
// An operation that is called inside another one has a line of its own, before that of the outer
// one, and names it in "in". Its system calls are on its own line only; its time is in both.
#pragma once

#include <cerrno>
#include <cstdint>

#include "qzpos.h"
#include "text.h"

namespace qz::trace {

// Begins to record if the variable QZIOP_TRACE names a file; goes on if that has been done. A file
// that cannot be written is journalled, and nothing is recorded.
void begin(QZHandle* host, Journal* journal);

// After the last extension object has gone: the file ends with its last line.
void settle();

// At error level, to the host's own journal if `journal` is null.
void report(QZHandle* host, Journal* journal, const char* what, const char* reason);

bool isRecording();

// The line of the operation that this thread is in. Operations inside others stack up in one text.
struct Line {
  Text text;
  std::size_t begin = 0;        // of the innermost operation's line
  std::uint64_t operation = 0;  // its number; 0: the thread is in none
  bool hasCalls = false;
  int thread = 0;  // threads count from 1 in the order in which they came
};
Line& thisThread();

std::int64_t now();  // nanoseconds since the trace began

class Operation {
 public:
  Operation(const char* name, const void* handle);
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  Text& text() { return line_.text; }
  // The arguments are complete and the operation starts.
  void start();
  // It has ended; results follow.
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

// Makes `call`. While this library records, the line has what `arguments` tells before it and
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

// Makes a system call of the module's and adds it to the operation that it is made in, with what
// `arguments` tells.
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
