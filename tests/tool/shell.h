// Runs command lines as a person types them, with the real program behind $Q, in a folder of the
// test's own.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qztest {

struct Outcome {
  int status = 0;  // exit status; 128 and the number for a signal
  std::string out;
  std::string err;
};

// The folder lies on the disk of the build, so that direct I/O is to be had. It goes with the
// object; nothing half-made may be left in it then.
class Shell {
 public:
  Shell();
  Shell(const Shell&) = delete;
  Shell& operator=(const Shell&) = delete;
  ~Shell();

  // Runs the line with /bin/sh in the folder. standard input: nothing.
  Outcome run(const std::string& line) const;
  // The same for lines that prepare something and must succeed.
  void prepare(const std::string& line) const;

  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
};

// One line and what it must lead to.
struct Case {
  const char* name;
  const char* prepare;  // run before; null: nothing
  const char* line;
  int status;
  const char* out;  // must occur in standard output; null: that must be empty
  const char* err;  // the same for standard error
};

// Runs each case in a folder of its own.
void runCases(const std::vector<Case>& cases);

}  // namespace qztest
