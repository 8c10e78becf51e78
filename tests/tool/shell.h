// Runs command lines as a person types them, with the real program behind $Q, in a folder of the
// test's own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

namespace qztest {

struct Outcome {
  int status = 0;  // of the exit; 128 and the number for a signal
  std::string out;
  std::string err;

  // Both, in one line: a line break and the blanks behind it count as one blank.
  std::string said() const;
  // The exit status by its name in sysexits.h without EX_, as DATAERR; DIFFERS for 1, with which
  // the program says that a file is not good or not the same; SIGINT for the end by that signal.
  std::string ended() const;
};

// The folder lies on the disk of the build, which takes direct I/O. It is deleted with the object;
// a temporary file of the program that is still in it then fails the test.
class Shell {
 public:
  Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;
  ~Shell();

  // Runs the line with /bin/sh in the folder. Standard input: nothing. "poke BYTE OFFSET FILE"
  // overwrites a byte; "QZPFILE_FAULT=... $FAULTY" is the program with system calls that fail, see
  // preload/faults.cpp.
  Outcome run(const std::string& line) const;
  // The same for lines whose every command must succeed.
  void expectGood(const std::string& line) const;

 private:
  std::string folder_;
};

// The rows of a text; a line that begins with blanks continues the row above.
std::vector<std::string> rowsOf(const std::string& text);

// Runs each row in a folder of its own:
//
//   LINE -> ENDED OUT ! ERR
//
// ENDED is as Outcome::ended says. OUT must occur in standard output, ERR in standard error, each
// in one line; where a row has none, there must be no output. A frame is run with LINE for its %1.
void playLines(const std::string& rows, std::string_view frame = "%1");

}  // namespace qztest
