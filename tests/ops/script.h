// Tests as scripts: what a caller does with a file, step by step, and the outcome of each step.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace qztest {

// Steps stand between semicolons or on lines of their own. Statuses, error numbers, settings and
// fields have their names of qzpos.h, qzstandin.h and errno.h; "+" joins flags.
//
//   step                           must end with "ok", whatever system calls it makes
//   step -> ok: pread 4096 at 512  must end with exactly this status and these system calls, here
//                                  of 4096 bytes at offset 512 (see Calls::io)
//   step -> notHeld                must fail, which the journal reports once
//   step -> busy unreported        must fail without an entry in the journal
//   step -> ok {error noMemory}    must leave these entries in the journal (see NamingJournal)
//
// A page is "3" or, with the version of its bytes, "3:1". Addresses have names that a step gives
// them: "a", "a+4096"; "it" is the page that was read or acquired last, "writeBlock" the write
// block's data, "stray" an address of no buffer, "null" the null pointer.
//
// The file and the host:
//   settle SHAPE                   gives the handle the settings for a shape
//   setHostPageSize BYTES          the host's option "host.pagesize"
//   makeFile PAGES [HEADER BYTES]
//   shrink BYTES                   makes the file this long behind the module's back
//   closeIfAttached
// Operations:
//   open SHAPE PAGES [BUFFERS]     settle, makeFile and open; "open" alone: only the open
//   read 3 [a], acquire [a], return [a], add 2, remove 2
//   touch 1 2                      reads and returns each page
//   write 3 [a]                    writes page 3 from a held buffer
//   writeOwn 3 4                   writes both pages from the caller's own memory
//   rewrite 3:1 4:1                reads each page, changes it in place and writes it
//   readMany PAGE COUNT OPTIONS, truncate PAGES, flush, close [FLAGS], delete, info
//   setName [NAME], writeHeader BYTES
//   preopen BYTES [SHIFT]          into memory that lies SHIFT bytes off its alignment, or 1
//   choosePageSize MINIMUM MAXIMUM MULTIPLE
//   reopen SHAPE, reopenWith READ WRITE OPTIONS
// Faults, for all steps until the next "fail":
//   fail pwrite number 2 times 3 with ENOSPC and fsync
//                                  the second pwrite and the next two fail with ENOSPC, the first
//                                  fsync with EIO; "always" in place of "times": all later ones
//   fail pread half                the first pread moves half of its bytes
//   fail pread returning 0         the first pread returns 0
//   fail memFree undone            the first memFree fails and frees nothing
//   fail nothing
// Checks:
//   set FIELD VALUE..., is FIELD VALUE...
//   count CALL TIMES...            calls of a kind that the last operation made
//   has a 3:1                      the memory at address a holds this page
//   onDisk 3:1 4:0                 the file holds these pages
//   fileBytes -> 4096              the file's size; -1: no file
//   hostCalls -> memFree bufferPool    the host calls of the last operation (see Calls::hostCalls)
//   textCapacities -> 1024 1020    room for each text of the report of the last operation
//   lists -> freePages empty heldPages 3(2 holds)
//                                  the handle's lists, each from its head. A record stands as its
//                                  pages, with its holds if there are several, its stale pages, and
//                                  its valid bytes if they are not those of its pages
inline const std::string kShapeRows = "shape\nbuffered\ndirect\nblock";

class ScriptTest : public FileTest {
 protected:
  void play(const std::string& script);
  // Plays the script once for each row after the first, which names the columns. Columns are
  // separated by " | "; the script's "<name>" stands for the row's column of that name. A column
  // that the script does not use tells the reader about the row.
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
  Status nameAddress(Status status, Words& words);
  Status readRun(Words& words);
  Status eachPage(const std::string& verb, Words& words);

  std::map<std::string, char*> named_;
  CallerMemory memory_ = callerMemory(2LL * kPage);  // for headers
};

}  // namespace qztest
