// The commands of qzpfile that write, each on a small file, run under the recorder or with one of
// its system calls failed.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "trace.h"

namespace qztest {

using Bytes = std::string;
// Files of a folder by name.
using Folder = std::map<std::string, Bytes>;

// A record of the trace with its data.
struct Event {
  TraceRecord record;
  Bytes data;

  bool is(What what) const { return record.what == what; }
};

struct Execution {
  int status = 0;  // exit status; 128 and the number for a signal
  Bytes out;
  std::vector<Event> trace;
  std::map<std::uint64_t, std::string> inodes;  // of the files that were there before, by inode
};

struct CommandCase {
  std::string name;
  std::vector<std::string> arguments;  // "x" is the file that is written
  std::string input;                   // name of the file for standard input, or empty
  Folder before;
};

// Why the recorder cannot be preloaded into this build of the program; empty if it can.
std::string whyNoRecorder();

// A folder of the test's own, deleted with the object.
class Workplace {
 public:
  Workplace();
  Workplace(const Workplace&) = delete;
  Workplace& operator=(const Workplace&) = delete;
  ~Workplace();

  // Replaces the contents of the folder by `files`.
  void fill(const Folder& files) const;
  Folder contents() const;
  // Runs qzpfile in the folder. `settings`: "NAME=value" for the recorder, which is not preloaded
  // without any. `whenStopped` is called each time that the program has stopped itself; then the
  // program goes on.
  Execution run(const std::vector<std::string>& arguments, const std::string& input = {},
                const std::vector<std::string>& settings = {},
                const std::function<void()>& whenStopped = {}) const;
  // The same with the trace.
  Execution record(const CommandCase& command, const std::vector<std::string>& settings = {},
                   const std::function<void()>& whenStopped = {}) const;

  // The contents of the file x: its payload, with its header area where a command changes that; the
  // bytes of a plain file; "damaged" if it cannot be read.
  Bytes held(const Folder& files) const;
  // The same after a repair that may lose pages.
  Bytes heldAfterRepair(const Folder& files) const;

 private:
  std::string folder_;
};

inline const Bytes kDamaged = "damaged";

// Every command that writes, on files of one version of the file format.
std::vector<CommandCase> commandCases(const Workplace& place, int version);

// Calls tryCommand for every command and version of the file format; the sum of its results.
int sumOverCommands(
    const std::function<int(const Workplace&, const CommandCase&, int version)>& tryCommand);

}  // namespace qztest
