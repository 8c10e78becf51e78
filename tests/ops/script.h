// Tests as scripts: what a caller does to a file, step by step, and what every step comes to.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace qztest {

// Steps stand between semicolons or on lines of their own. Statuses, error numbers, settings and
// fields have their names of qzpos.h, qzstandin.h and errno.h; "+" joins flags.
//
//   step                           comes to "ok", whatever calls it makes
//   step -> ok pread 4096@512      comes to this and no more: status, then system calls (4096 bytes
//                                  at offset 512; "=100": 100 bytes moved; "!EIO": failed)
//   step -> notHeld                fails, which the journal reports once
//   step -> busy unreported        fails without an entry in the journal
//   step -> ok {error noMemory}    has these entries in the journal (see NamingJournal)
//
// A page is "3" or, with the version of its bytes, "3:1". Addresses have names that a step gives
// them: "a", "a+4096"; "it" is the page that was read or acquired last, "writeBlock" the write
// block's data, "stray" an address of no buffer, "null" none.
//
// The file and the host:
//   settle SHAPE, hostOption PAGE SIZE, file PAGES [HEADER BYTES]
//   shrink BYTES                   makes the file this long behind the module's back
//   end                            closes the file if it is attached
// Operations:
//   open SHAPE PAGES [BUFFERS]     settles, makes a file and opens it; "open" alone: only that
//   read 3 [a], acquire [a], return [a], add 2, remove 2
//   touch 1 2                      reads and returns each page
//   write 3 [a]                    from a buffer that is held
//   writeOwn 3 4                   from the caller's own memory
//   rewrite 3:1 4:1                reads, changes in place and writes
//   readMany PAGE COUNT OPTIONS, truncate 3, flush, close [FLAGS], delete, info, name [NAME]
//   header BYTES, preopen BYTES [SHIFT of the memory: 1], choosePageSize MINIMUM MAXIMUM MULTIPLE
//   reopen SHAPE, hint READ WRITE OPTIONS
// Faults, for all steps until the next "fail":
//   fail pwrite number 2 times 3 with ENOSPC and fsync
//                                  the second pwrite and the next two fail with ENOSPC, the first
//                                  fsync with EIO; "always": all later ones too
//   fail pread half                moves half of its bytes; "returning 0": returns 0
//   fail memFree undone            fails and has no effect
//   fail nothing
// Checks:
//   set FIELD VALUE..., is FIELD VALUE..., count CALL TIMES...
//   has a 3:1                      the memory at the address has this page
//   disk 3:1 4:0                   the file has these pages
//   bytes -> 4096                  the file's size; -1: no file
//   host -> memFree:b              the host calls of the last operation (see Calls::hostCalls)
//   lists -> free empty held 3     the records, list by list, from the head
inline const std::string kShapeRows = "shape\nbuffered\ndirect\nblock";

class ScriptTest : public FileTest {
 protected:
  void play(const std::string& script);
  // Plays the script for each row: a line of columns between " | ". The first line names the
  // columns; a row's column goes where the script has its name as "<name>".
  void playRows(const std::string& script, const std::string& rows);
  char*& named(const std::string& name) { return named_[name]; }

 private:
  class Words;

  std::string carryOut(const std::string& verb, Words& words);
  std::string check(const std::string& verb, Words& words);
  static std::vector<Fault> faultsOf(Words& words);
  char* address(const std::string& name);
  Status openAs(Words& words);
  Status preopenAs(Words& words);
  Status readAs(Words& words);
  Status writeFrom(Words& words);
  Status handOut(Status status, Words& words);
  Status readRun(Words& words);
  Status eachPage(const std::string& verb, Words& words);

  std::map<std::string, char*> named_;
  CallerMemory memory_ = callerMemory(2LL * kPage);  // of headers
};

}  // namespace qztest
