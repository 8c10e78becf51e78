// Changes, damage and repairs of files made by pack.
#include <gtest/gtest.h>

#include "tool/shell.h"

namespace qztest {
namespace {

// The module truncates a file to 0 pages if there is no space for its header. The tool must not let
// that happen to its user's file.
TEST(Changes, LeaveTheFileAsItIsOnAFullDisk) {
  for (const char* file : {"good", "good1"}) {
    playLines(R"(
$Q truncate f 4 -> IOERR
$Q put f 3 <page -> IOERR
$Q put f --append <page -> IOERR
$Q header f --set h -> IOERR
$Q header --raw --page-size 4K --header-size 4K f --set h -> IOERR
)",
              std::string("cp ") + file +
                  " f; head -c 4096 in >page; head -c 4096 f >h; "
                  "cp f kept; "
                  "(ulimit -f 0; %1) >/dev/null 2>&1; s=$?; cmp f kept && exit $s");
  }
}

// The same for a repair, which writes to the file, too. With 106 blocks its record does not fit.
TEST(Changes, ARepairLeavesTheFileAsItIsOnAFullDisk) {
  playLines(R"(
poke Y 5000 good; cp good kept; (ulimit -f 0; $Q repair good) 2>/dev/null; s=$?; cmp good kept &&
  exit $s -> IOERR
poke Y 5000 good; cp good kept; (ulimit -f 106; $Q repair good) 2>/dev/null; s=$?;
  cmp good kept && exit $s -> IOERR
)");
}

// If there is no space in the middle of a change, the file must stay as it was.
TEST(Changes, AreAllOrNothing) {
  playLines(R"(
(ulimit -f 120; cat in | $Q put f 1) -> IOERR ! nothing was changed
(ulimit -f 120; cat in in | $Q put f 1) -> IOERR ! nothing was changed
(ulimit -f 120; cat in | $Q put f --append) -> IOERR ! nothing was appended
(ulimit -f 106; $Q truncate f 2) -> IOERR ! try:    raise the file size limit
)",
            "cp good f; cp f kept; %1; s=$?; cmp f kept && exit $s");
}

// When files can no longer be flushed, a change can be neither finished nor undone. The record may
// be on the disk although its flush failed, so no command may say that nothing was changed. Each
// row begins with the number of flushes that succeed.
TEST(Changes, ThatCannotBeUndoneAreNotCalledUndone) {
  playLines(
      R"(
0 put f 1 -> IOERR ! it is not known whether the file has the whole change or nothing of it
4 put f 1 -> IOERR ! it is not known whether the file has the whole change or nothing of it
5 put f 1 -> IOERR ! the change is safe after the end of the file
0 put --raw --page-size 4K raw --append -> IOERR ! pages may have been appended
0 truncate f 2 -> IOERR ! it is not known whether the file has the whole change or nothing of it
5 truncate f 2 -> IOERR ! the change is safe after the end of the file
0 truncate --raw --page-size 4K raw 2 -> IOERR ! the change may have been made in part
5 header f --set h -> IOERR ! the change is safe after the end of the file
0 header --raw --page-size 4K --header-size 4K raw --set h -> IOERR ! made in part
)",
      "cp good f; cp good new; cat in in >raw; head -c 64 good >h; set -- %1; n=$1; shift;"
      "case $1 in put) cat in in | $Q put new 1 >y;; truncate) $Q truncate new 2 >y;; esac;"
      "cat in in | QZPFILE_FAULT=fsync QZPFILE_FLUSHES=$n $FAULTY $@; s=$?; $Q repair f >y;"
      "cmp f good >y || cmp f new || exit; exit $s");
}

// A file that is empty when put begins may have bytes when they are read, as those of /proc have.
// They are committed like all others.
TEST(Changes, TakeAnInputWhoseSizeIsNotKnown) {
  playLines(R"(
$Q put f --append </proc/version >y; $Q cat f --pages 12 | grep -ac Linux; $Q verify f -> OK 1
$Q put f 11 </proc/version >y; $Q cat f --pages 11 | grep -ac Linux; $Q verify f -> OK 1
$Q put f 3 </proc/version; cmp f good -> OK ! partial page
)",
            "cp good f; %1");
}

// A put of a good copy must mend a damaged page, and damage elsewhere must stay visible.
TEST(Changes, APutMendsADamagedPage) {
  playLines(R"(
poke Y 20000 f1; $Q cat good1 --pages 4 | $Q put f1 4; cmp f1 good1 -> OK 1 page written
poke Y 9000 f1; poke Y 20000 f1; for p in 2 4; do $Q cat good1 --pages $p | $Q put f1 $p; done;
  cmp f1 good1 -> OK 1 page written
poke Y 20000 f; $Q cat good --pages 3 | $Q put f 3; cmp f good -> OK 1 page written
poke Y 9000 f; poke Y 20000 f; $Q cat good --pages 3 | $Q put f 3; $Q verify f -> DIFFERS page 1 (
)",
            "cp good f; cp good1 f1; %1");
}

// A file that is its own input or output would grow without end.
TEST(Changes, AFileIsNotItsOwnInputOrOutput) {
  playLines(R"(
$Q put good --append <good -> USAGE ! standard input is the file itself
$Q put good 3 <good -> USAGE ! standard input is the file itself
$Q put --raw --page-size 4K good --append <good -> USAGE ! standard input is the file itself
$Q cat good >>good -> USAGE ! standard output is the file itself
$Q dump good >>good -> USAGE ! standard output is the file itself
$Q unpack good - >>good -> USAGE ! standard output is the file itself
$Q header good >>good -> USAGE ! standard output is the file itself
)",
            "cp good kept; %1; s=$?; cmp good kept && exit $s");
}

// A change must lock the file before it first reads it: while a put waits for its input, no other
// program may use the file.
TEST(Changes, LockTheFileBeforeTheyReadIt) {
  playLines(
      R"(
$Q put good 1 <page -> IOERR ! The file is in use
$Q truncate good 3 -> IOERR ! The file is in use
$Q unpack good - -> IOERR ! The file is in use
)",
      "head -c 4096 in >page; mkfifo f; $Q put good --append <f >said & p=$!; exec 3>f; "
      "sleep 0.3; %1; s=$?; cat page >&3; exec 3>&-; wait $p; $Q verify good >said || exit 1; "
      "exit $s");
}

// A put was killed before its change was complete. Commands that read show the file as it was
// before and write nothing; commands that write undo the change first.
TEST(Changes, ThatWereKilledAreHiddenFromReadersAndUndoneByWriters) {
  playLines(R"(
$Q unpack f - | cmp in - && cmp f kept -> OK
$Q cat f --pages 1 | cmp -n 4096 in - && cmp f kept -> OK
$Q header f | head -c 64 >h; head -c 64 good | cmp h - && cmp f kept -> OK
$Q copy f g >said; cmp g good && cmp f kept -> OK
$Q verify f; cmp f kept -> OK change interrupted: the next change, or qzpfile repair, undoes it
$Q info f | grep ^change; cmp f kept -> OK undoes it
$Q repair -n f; cmp f kept -> OK a change was interrupted before it was committed
$Q repair f && cmp f good -> OK f: repaired
head -c 4096 in | $Q put f 1; cmp f good -> OK 1 page written ! an interrupted change was undone
$Q put f 2 </dev/null; cmp f good -> OK ! an interrupted change was undone
)",
            "cp good f; mkfifo p; sh -c \"exec $Q put f --append\" <p & k=$!; exec 3>p; "
            "seq 1000000 | head -c 1100000 >&3; sleep 0.3; kill -KILL $k; exec 3>&-; "
            "wait $k 2>/dev/null; cp f kept; test $(wc -c <f) -gt 1000000 || exit 9; %1");
}

// Commands that only read must work on files that the user may not write.
TEST(Changes, ReadWithoutPermissionToWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  playLines(R"(
unpack good - | cmp in - -> OK
verify good -> OK good: good
put good 1 -> NOPERM ! cannot open for writing
repair good -> NOPERM ! cannot open for writing
repair -n good -> OK good: good, nothing to repair
)",
            "chmod 755 .; chmod 644 good; setpriv --reuid=65534 --clear-groups --inh-caps=-all $Q "
            "%1");
}

// Each damaged page must be named, and good pages stay readable. -k goes on behind a damaged page.
TEST(Checksums, NameEveryDamagedPage) {
  playLines(R"(
$Q verify -k f
  -> DIFFERS page 1 (file offset 8192) is damaged: it does not match its checksum page 3 (file offset
  16384) is damaged
$Q verify -k f --format json | grep -c '"what": "page"' -> OK 2
$Q verify --every-mode -k f | grep -c damaged: -> OK 2
$Q unpack f o; s=$?; test ! -e o && exit $s -> DATAERR ! where:  page 1, file offset 8192
$Q copy f o; s=$?; test ! -e o && exit $s -> DATAERR ! does not match its checksum where:  page 1
$Q cat f >o -> DATAERR ! where:  page 1
$Q cat f --pages 2 | cmp -n 4096 two - -> OK
$Q cat f --pages 3- >o -> DATAERR ! where:  page 3
$Q unpack -k f o; s=$?; cmp o spoilt && exit $s
  -> DATAERR damaged pages as they are ! f: page 1 (file offset 8192) is damaged: it does not match its
  checksum qzpfile: f: page 3
$Q cat -k f >o; s=$?; head -c 43008 o | cmp spoilt && exit $s
  -> DATAERR ! f: page 3 (file offset 16384)
$Q copy -k f o; s=$?; $Q unpack o - | cmp spoilt && exit $s -> DATAERR o: 11 pages ! f: page 3
$Q cat --raw --page-size 4K --pages 3-12 f | cmp -n 40960 spoilt - -> OK
$Q compare -k good f | grep -c byte -> OK 2
)",
            "cp good f; poke Y 9000 f; poke Y 20000 f; cp in spoilt; poke Y 808 spoilt; "
            "poke Y 11808 spoilt; tail -c +4097 in | head -c 4096 >two; %1");
}

// In a SQLite log the checksum of each frame depends on the frames before. A damaged frame must be
// found; frames left over from an earlier use of the log must not count as damage.
TEST(Checksums, OfSqliteLogsAreFollowedFrameByFrame) {
  playLines(R"(
$Q verify w -> OK of this log, followed by 0 from an earlier log
poke Y 9000 w; $Q verify -k w
  -> DIFFERS page 3 (file offset 8272) in mode buffered: the frame does not match
poke Y 4180 w; $Q verify -k w -> DIFFERS page 2 (file offset 4152)
poke Y 4160 w; $Q verify -k w -> DIFFERS page 3 (file offset 8272)
poke Y 17 w; $Q verify w -> DIFFERS the header does not match its checksum
truncate -s -4120 w; $Q verify w -> OK good
truncate -s 32 w; poke Y 17 w; $Q verify w -> DIFFERS the header does not match its checksum
)",
            "sqlite3 db 'PRAGMA page_size=4096; PRAGMA journal_mode=wal; "
            "PRAGMA wal_autocheckpoint=0; CREATE TABLE t(x); INSERT INTO t "
            "VALUES(hex(randomblob(6000)));' '.system cp db-wal w' >said; %1");
}

// A repair must say what is lost, ask for --yes if anything is, and leave a good file with the
// rest. Each row: the damage of f, whether --yes is needed, words of the report, the payload's
// bytes then.
TEST(Repair, SaysWhatIsLostAndKeepsTheRest) {
  for (const char* row : {
           "poke Y 9000 f|yes|page 1 (file offset 8192) is damaged|43008",
           "poke Y 5000 f|no|the checksum page of pages 1 to 11 (file offset 4096) is damaged; the "
           "pages are good|43008",
           "poke Y 5000 f; poke Y 9000 f|yes|whether the pages are good is unknown|43008",
           "truncate -s -5000 f|yes|pages 10 to 11 are missing: bytes 36864 to 43007 of the "
           "payload "
           "are lost|36864",
           "truncate -s 3000 f|yes|pages 1 to 11 are missing|0",
           "echo more >>f|yes|5 bytes after the end belong to no page|43008",
           "poke Y 44 f|no|the header's checksum is wrong, but its fields are right|43008",
           "cp good1 f; poke Y 9000 f|yes|version 1 does not say which|43008",
           "cp good1 f; truncate -s -1 f|yes|page 11 is missing|40960",
       }) {
    SCOPED_TRACE(row);
    std::vector<std::string> parts;
    std::istringstream line(row);
    for (std::string part; std::getline(line, part, '|');) parts.push_back(part);
    const Shell shell;
    shell.expectGood("cp good f; " + parts[0] + "; cp f damaged");
    const bool loses = parts[1] == "yes";
    const Outcome dry = shell.run("$Q repair --dry-run f; s=$?; cmp f damaged || exit 9; exit $s");
    EXPECT_EQ(dry.ended(), "DIFFERS") << dry.said();
    EXPECT_NE(dry.said().find(parts[2]), std::string::npos) << dry.said();
    const Outcome careful = shell.run("$Q repair f");
    EXPECT_EQ(careful.ended(), loses ? "DIFFERS" : "OK") << careful.said();
    EXPECT_EQ(shell.run("cmp f damaged").ended(), loses ? "OK" : "DIFFERS");
    const Outcome done = shell.run("$Q repair --yes f && $Q verify f && $Q unpack f - | wc -c");
    EXPECT_EQ(done.ended(), "OK") << done.said();
    EXPECT_NE(done.out.find("\n" + parts[3] + "\n"), std::string::npos) << done.out;
  }
}

// A guess about a file whose header cannot be trusted could destroy it.
TEST(Repair, RefusesWhatItCannotKnow) {
  playLines(R"(
poke Y 30 good; cp good kept; $Q repair --yes good; s=$?; cmp good kept && exit $s
  -> DATAERR ! has a damaged header
$Q repair in -> DATAERR ! is not a paged file of a known kind
sqlite3 db 'CREATE TABLE t(x);'; $Q repair db
  -> DATAERR ! is a SQLite database, not a file made by pack
$Q repair no -> NOINPUT ! No such file
)");
}

// A file that was cut inside its header gets a whole one, in which nothing of the repair's own redo
// record may be left.
TEST(Repair, LeavesNothingOfItsRecordInTheHeader) {
  playLines(R"(
truncate -s 3000 good; $Q repair -y good >y; tail -c +65 good | tr -d '\0' | wc -c -> OK 0
)");
}

}  // namespace
}  // namespace qztest
