// Runs command lines as a person types them, with the real program behind $Q, in a folder of the
// test's own.
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

  // Both, in one line: a line break and the blanks behind it count as one blank.
  std::string said() const;
};

// The folder lies on the disk of the build, so that direct I/O is to be had. It goes with the
// object; nothing half-made may be left in it then.
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

// The rows of a text; what begins with blanks belongs to the row above.
std::vector<std::string> rowsOf(const std::string& text);

// Runs each row in a folder of its own:
//
//   LINE -> STATUS OUT ! ERR
//
// OUT must occur in standard output, ERR in standard error, each in one line; what is not given
// must be empty. With a frame, LINE stands in the place of %1 there.
void playLines(const std::string& rows, std::string_view frame = "%1");

}  // namespace qztest
