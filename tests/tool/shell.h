// Runs shell lines that use the real program, $Q, in a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace qztest {

struct Outcome {
  int status = 0;  // exit status; 128 and the number for a signal
  std::string out;
  std::string err;

  // Both outputs in one line: each line break becomes a blank, with the blanks behind it.
  std::string said() const;
  // The name of the exit status: in sysexits.h without EX_, such as DATAERR; OK for 0; DIFFERS for
  // 1, with which the program says that a file is damaged or not the same; SIGINT for that signal.
  std::string ended() const;
};

// A folder on the disk of the build, which takes direct I/O. It is deleted with the object, which
// fails the test if a temporary file of the program is still in it.
class Shell {
 public:
  Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;
  ~Shell();

  // Runs the line with /bin/sh in the folder, with nothing on standard input. "poke BYTE OFFSET
  // FILE" overwrites a byte; "QZPFILE_FAULT=... $FAULTY" is the program with system calls that fail
  // (see preload/faults.cpp); $USAGE and $IOERR are these exit statuses.
  Outcome run(const std::string& line) const;
  // The same; every command of the line must succeed.
  void expectGood(const std::string& line) const;

 private:
  std::string folder_;
};

// The rows of a text. A line that begins with a blank continues the row above it.
std::vector<std::string> rowsOf(const std::string& text);

// Runs the LINE of each row in a folder of its own:
//
//   LINE -> ENDED OUT ! ERR
//
// ENDED is the name of the exit status (Outcome::ended). OUT must occur in standard output and ERR
// in standard error, each taken as one line. Without OUT or ERR that output must be empty. `frame`
// is the line that is run, with LINE in place of its %1.
void playLines(const std::string& rows, std::string_view frame = "%1");

}  // namespace qztest
