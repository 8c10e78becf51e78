// Commands on single pages: what they show, change and refuse.
#include <gtest/gtest.h>

#include "tool/shell.h"

namespace qztest {
namespace {

// cat, dump and header show the bytes of the file, in any mode, and refuse pages that it lacks.
TEST(Pages, AreShownAsTheyAre) {
  playLines(R"(
$Q cat good | head -c 43008 | cmp in - -> OK
$Q cat good | wc -c -> OK 45056
head -c 20480 in | tail -c 12288 >three; $Q cat good --pages 3-5 | cmp three - -> OK
$Q cat --io block good --pages 11- | wc -c -> OK 4096
$Q cat --io direct good --pages -2 | cmp -n 8192 in - -> OK
$Q cat good --pages 12 -> USAGE ! page 12 is behind the last page, 11
$Q cat good --pages 1-12 -> USAGE ! page 12 is behind the last page, 11
$Q cat good --pages 9223372036854775800- -> USAGE ! is behind the last page, 11
(head -c 32768 in | tail -c 4096; head -c 8192 in) >two; $Q cat good --pages 8,1-2 | cmp two - -> OK
$Q dump good --pages 5,2 | grep -c '^page [52]' -> OK 2
$Q dump good --pages 2 | head -2 | tail -1
  -> OK 00003000  31 0a 31 30 34 32 0a 31  30 34 33 0a 31 30 34 34  |1.1042.1043.1044|
$Q dump good | grep -A1 'page 11, offset 49152' -> OK 0000c000  
$Q dump good --pages 11 | tail -2 -> OK * 0000cff0  00 00
head -c 4096 good >h; $Q header good | cmp h - -> OK
$Q cat --raw --page-size 1K --pages 5-46 good1 | cmp in - -> OK
$Q cat --raw good -> USAGE ! --raw needs --page-size
$Q cat --page-size 1K good -> USAGE ! need --raw
$Q cat --raw --page-size 5000 good
  -> DATAERR ! expected 50000 or 55000 bytes, found 53248 bytes: a header of 0, 10 whole pages of 5000
  and 3248 left-over bytes
$Q cat --raw --page-size 1 --header-size 53247 good | head -c 1 | wc -c -> OK 1
)");
}

// After each change the payload is as wanted, and header and checksums fit it.
TEST(Pages, ArePutWithATrueHeader) {
  playLines(
      R"(
random 4096; replace 2; $Q put good 3 <p -> OK 11
random 8192; replace 4; cat p | $Q put --io direct good 5 -> OK 11
random 8192; replace 4; $Q put --io block good 5 <p -> OK 11
random 5000; append; $Q put good --append <p -> OK 13
random 50000; append; $Q put --io block good --append <p -> OK 24
echo end >p; (head -c 40960 in; cat p) >want; $Q put good 11 <p -> OK 11
random 20000; (head -c 36864 in; cat p) >want; cat p | $Q put good 10 -> OK 14
head -c 12288 in >want; $Q truncate good 3 -> OK 3
head -c 12288 in >want; $Q truncate --io direct good 3 -> OK 3
: >want; $Q truncate good 0 -> OK 0
$Q truncate good 11 -> OK 11
$Q header good >h; dd if=/dev/zero of=good bs=64 count=1 conv=notrunc status=none;
  $Q header --raw --page-size 4K --header-size 4K --set h good -> OK 11
$Q header good | head -c 64 >h; $Q header good --set - <h -> OK 11
)",
      R"(cp in want
random() { head -c $1 /dev/urandom >p; }
replace() { dd if=p of=want bs=4096 seek=$1 conv=notrunc status=none; }
append() { (head -c 2048 /dev/zero; cat p) >>want; }
(%1) >said && $Q verify good >said && $Q unpack good - | cmp - want &&
  $Q info good | grep ^pages)");
}

// A change that is refused, or whose input ends early, leaves the file as it was.
TEST(Pages, AreNotChangedByWhatIsRefused) {
  playLines(R"(
head -c 4096 in | $Q put good 13 -> USAGE ! page 13 would leave a gap
$Q put good -> USAGE ! name either a PAGE or --append
$Q put good 0 <in -> USAGE ! there is no page 0
$Q put good 1 -> NOINPUT ! nothing was written
true | $Q put good --append -> NOINPUT ! nothing was written
$Q put good 1 <h -> DATAERR ! where:  page 1, file offset 8192
cat h | $Q put good 1 -> DATAERR ! 100 of a page of 4096 bytes
cat in | $Q put --raw --page-size 4K good --append -> DATAERR ! nothing was appended
(ulimit -f 100; (cat in in in) | $Q put good --append) -> IOERR ! nothing was appended
mkfifo f; $Q put good --append <f & p=$!; exec 3>f; seq 300000 >&3; sleep 0.3; kill -PIPE $p;
  wait $p -> SIGPIPE
mkfifo f; $Q put good 1 <f >y & exec 3>f; head -c 4096 in >&3; sleep 0.3; $Q info good 3>&-; s=$?;
  exec 3>&-; wait; (exit $s) -> IOERR ! try:    another program has the file open, or
$Q truncate good 12 -> USAGE ! it can be cut, not lengthened
$Q truncate --raw --page-size 4K good 0 -> USAGE ! use rm
$Q header good --set in -> DATAERR ! is too long
$Q header good --set h -> DATAERR ! takes only a header that fits
$Q header good --set /dev/null -> NOINPUT ! is empty
$Q header --raw --page-size 4K good --set h -> DATAERR ! has no header
)",
            "cp good kept; head -c 100 in >h; %1; s=$?; cmp good kept && exit $s");
}

// Raw files cannot be changed all or not at all: the message says what was written.
TEST(Pages, TellWhatWasDoneBeforeAFailure) {
  playLines(R"(
(cat in; cat in) | head -c 1052672 >p; $Q pack -f --page-size 4K p good >/dev/null;
  (seq 1000000 | head -c 12288; echo x) | $Q put --raw --page-size 4K good 2
  -> DATAERR ! note:   pages 2 to 4 were written before that
: >e; $Q put --raw --page-size 4K --append e <in; s=$?; test -f e && exit $s
  -> DATAERR ! 2048 of a page
)");
}

// With standard error closed the paged file could get its descriptor, and messages would be written
// into the pages.
TEST(Pages, GetNoWordsMeantForAClosedStandardError) {
  playLines(R"(
mkfifo f; cp in raw; $Q put --raw --page-size 1K raw 2 2>&- <f & p=$!; exec 3>f; sleep 0.3;
  kill -USR1 $p; sleep 0.3; head -c 2048 in | tail -c 1024 >&3; exec 3>&-; wait $p; cmp in raw
  -> OK 1 page written
)");
}

// rm removes paged files only, unless --raw says that any file is meant.
TEST(Pages, FilesAreRemovedOnPurposeOnly) {
  playLines(R"(
$Q rm good && test ! -e good -> OK good: removed
$Q rm in -> DATAERR ! is no kind of paged file
$Q rm --raw in && test ! -e in -> OK in: removed
$Q rm no -> NOINPUT ! No such file
$Q rm --raw no -> NOINPUT ! No such file
mkdir d; $Q rm --raw d -> NOINPUT ! try:    name a file
)");
}

}  // namespace
}  // namespace qztest
