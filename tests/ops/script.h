// Tests as scripts: what a caller does to a file, step by step, and what every step comes to.
#pragma once

#include <map>
#include <string>

#include "support/fixture.h"

namespace qztest {

// Steps stand between semicolons or on lines of their own. "step -> text" compares with the text
// of World::did(), where "!81E" is short for "81E {!81E}"; without a text the step must come to
// "ok", whatever calls it makes. A page is "3" or, with the version of its bytes, "3:1". Addresses
// have names given by a step: "a", "a+4096"; "it" is what was handed out last, "wb" the write
// block, "stray" no buffer's, "null" none.
//
//   open SHAPE PAGES [BUFFERS]    settles, makes a file and opens it; "open" alone: only that
//   settle SHAPE, option HOST PAGE SIZE, file PAGES [HEADER BYTES], cut BYTES (by plain calls),
//   end (closes the file if it is attached)
//   read 3 [a], acquire [a], touch 1 2 (reads and gives back), give [a], add 2, remove 2
//   write 3 [a], own 3 4 (from the caller's memory), rewrite 3:1 4:1 (in place)
//   many PAGE COUNT OPTIONS, truncate 3, flush, close [FLAGS], delete, info, name [NAME],
//   header BYTES, preopen BYTES [SHIFT of the memory: 1], psize MINIMUM MAXIMUM MULTIPLE
//   reopen SHAPE, hint READ WRITE OPTIONS
//   fail pwrite#2*3!28 fsync      call 2 and the next two fail with 28; "*": all later ones;
//                                 "=0", "=half": what they return; host calls: "!80FFE101";
//                                 "=undone": and have no effect
//   set FIELD VALUE..., is FIELD VALUE..., has a 3:1, disk 3:1 4:0 (pages of the file)
//   count CALL TIMES..., host, lists, bytes
//                                 of the last operation; the records, list by list; the file's
//                                 size or -1
inline const std::string kShapeRows = "buffered\ndirect\nblock";

class ScriptTest : public FileTest {
 protected:
  void play(const std::string& script);
  // Plays the script for each row, a line of columns between " | ", with the columns in the places
  // of %1, %2... up to %9; nothing for those that the row lacks.
  void playRows(const std::string& script, const std::string& rows);
  char*& named(const std::string& name) { return named_[name]; }

 private:
  class Words;

  std::string carryOut(const std::string& verb, Words& words);
  std::string check(const std::string& verb, Words& words);
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
