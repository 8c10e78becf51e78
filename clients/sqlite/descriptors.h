// Keeps descriptors of databases open beyond their close.
//
// SQLite's own file layer locks with fcntl, and a process loses all those locks on a file when it
// closes any descriptor of that file. So a descriptor that the module closes stays open ("parked")
// until the last database of this layer on that file is closed and nothing in the process locks it.
// An open of the same file takes a parked descriptor instead of a new one.
#pragma once

#include <sys/types.h>

#include "qzstandin.h"

namespace qzvfs {

// Identifies a file, whatever its name.
struct Identity {
  dev_t device = 0;
  ino_t inode = 0;

  friend bool operator==(const Identity&, const Identity&) = default;
};

// Identifies the file of a descriptor or a name. Returns false if the system does not tell.
bool identify(int fd, Identity* identity);
bool identify(const char* path, Identity* identity);

// Makes the host's file service park descriptors instead of closing them. Call it once per host,
// before the module is loaded.
void parkDescriptors(qz::StandInHost& host);

// While it exists, this thread's opens of that file take parked descriptors.
class Expecting {
 public:
  explicit Expecting(const Identity& identity);
  Expecting(const Expecting&) = delete;
  Expecting& operator=(const Expecting&) = delete;
  ~Expecting();
};

// Counts the databases that use a file. leaveFile closes parked descriptors of files that no
// database uses.
void enterFile(const Identity& identity);
void leaveFile(const Identity& identity);

}  // namespace qzvfs
