// Commands on single pages: what they show, change and refuse.
#include <gtest/gtest.h>

#include "tool/shell.h"

namespace qztest {
namespace {

TEST(Pages, AreShownAsTheyAre) {
  playLines(R"(
$Q cat good | head -c 43008 | cmp in - -> 0
$Q cat good | wc -c -> 0 45056
head -c 20480 in | tail -c 12288 >three; $Q cat good --pages 3-5 | cmp three - -> 0
$Q cat --io block good --pages 11- | wc -c -> 0 4096
$Q cat --io direct good --pages -2 | cmp -n 8192 in - -> 0
$Q cat good --pages 12 -> 64 ! page 12 is behind the last page, 11
$Q cat good --pages 1-12 -> 64 ! page 12 is behind the last page, 11
$Q cat good --pages 9223372036854775800- -> 64 ! is behind the last page, 11
(head -c 32768 in | tail -c 4096; head -c 8192 in) >two; $Q cat good --pages 8,1-2 | cmp two - -> 0
$Q dump good --pages 5,2 | grep -c '^page [52]' -> 0 2
$Q dump good --pages 2 | head -2 | tail -1
  -> 0 00003000  31 0a 31 30 34 32 0a 31  30 34 33 0a 31 30 34 34  |1.1042.1043.1044|
$Q dump good | grep -A1 'page 11, offset 49152' -> 0 0000c000  
$Q dump good --pages 11 | tail -2 -> 0 * 0000cff0  00 00
head -c 4096 good >h; $Q header good | cmp h - -> 0
$Q cat --raw --page-size 1K --pages 5-46 good1 | cmp in - -> 0
$Q cat --raw good -> 64 ! --raw needs --page-size
$Q cat --page-size 1K good -> 64 ! need --raw
$Q cat --raw --page-size 5000 good
  -> 65 ! expected 50000 or 55000 bytes, found 53248 bytes: a header of 0, 10 whole pages of 5000
  and 3248 left-over bytes
$Q cat --raw --page-size 1 --header-size 53247 good | head -c 1 | wc -c -> 0 1
)");
}

TEST(Pages, ArePutWithATrueHeader) {
  playLines(
      R"(
random 4096; replace 2; $Q put good 3 <p -> 0 11
random 8192; replace 4; cat p | $Q put --io direct good 5 -> 0 11
random 8192; replace 4; $Q put --io block good 5 <p -> 0 11
random 5000; append; $Q put good --append <p -> 0 13
random 50000; append; $Q put --io block good --append <p -> 0 24
echo end >p; (head -c 40960 in; cat p) >want; $Q put good 11 <p -> 0 11
random 20000; (head -c 36864 in; cat p) >want; cat p | $Q put good 10 -> 0 14
head -c 12288 in >want; $Q truncate good 3 -> 0 3
head -c 12288 in >want; $Q truncate --io direct good 3 -> 0 3
: >want; $Q truncate good 0 -> 0 0
$Q truncate good 11 -> 0 11
$Q header good >h; dd if=/dev/zero of=good bs=64 count=1 conv=notrunc status=none;
  $Q header --raw --page-size 4K --header-size 4K --set h good -> 0 11
$Q header good | head -c 64 >h; $Q header good --set - <h -> 0 11
)",
      R"(cp in want
random() { head -c $1 /dev/urandom >p; }
replace() { dd if=p of=want bs=4096 seek=$1 conv=notrunc status=none; }
append() { (head -c 2048 /dev/zero; cat p) >>want; }
(%1) >said && $Q verify good >said && $Q unpack good - | cmp - want &&
  $Q info good | grep ^pages)");
}

TEST(Pages, AreNotChangedByWhatIsRefused) {
  playLines(R"(
head -c 4096 in | $Q put good 13 -> 64 ! page 13 would leave a gap
$Q put good -> 64 ! name either a PAGE or --append
$Q put good 0 <in -> 64 ! there is no page 0
$Q put good 1 -> 66 ! nothing was written
true | $Q put good --append -> 66 ! nothing was written
$Q put good 1 <h -> 65 ! where:  page 1, file offset 8192
cat h | $Q put good 1 -> 65 ! 100 of a page of 4096 bytes
cat in | $Q put --raw --page-size 4K good --append -> 65 ! nothing was appended
(ulimit -f 100; (cat in in in) | $Q put good --append) -> 74 ! nothing was appended
mkfifo f; $Q put good --append <f & p=$!; exec 3>f; seq 300000 >&3; sleep 0.3; kill -PIPE $p;
  wait $p -> 141
mkfifo f; $Q put good 1 <f >y & exec 3>f; head -c 4096 in >&3; sleep 0.3; $Q info good 3>&-; s=$?;
  exec 3>&-; wait; (exit $s) -> 74 ! try:    another program has the file open, or
$Q truncate good 12 -> 64 ! it can be cut, not lengthened
$Q truncate --raw --page-size 4K good 0 -> 64 ! use rm
$Q header good --set in -> 65 ! is too long
$Q header good --set h -> 65 ! takes only a header that fits
$Q header good --set /dev/null -> 66 ! is empty
$Q header --raw --page-size 4K good --set h -> 65 ! has no header
)",
            "cp good kept; head -c 100 in >h; %1; s=$?; cmp good kept && exit $s");
}

TEST(Pages, TellWhatWasDoneBeforeAFailure) {
  playLines(R"(
(cat in; cat in) | head -c 1052672 >p; $Q pack -f --page-size 4K p good >/dev/null;
  (seq 1000000 | head -c 12288; echo x) | $Q put --raw --page-size 4K good 2
  -> 65 ! note:   pages 2 to 4 were written before that
: >e; $Q put --raw --page-size 4K --append e <in; s=$?; test -f e && exit $s -> 65 ! 2048 of a page
)");
}

// The first file that is opened gets the lowest descriptor that is free.
TEST(Pages, GetNoWordsMeantForAClosedStandardError) {
  playLines(R"(
mkfifo f; cp in raw; $Q put --raw --page-size 1K raw 2 2>&- <f & p=$!; exec 3>f; sleep 0.3;
  kill -USR1 $p; sleep 0.3; head -c 2048 in | tail -c 1024 >&3; exec 3>&-; wait $p; cmp in raw
  -> 0 1 page written
)");
}

TEST(Pages, FilesAreRemovedOnPurposeOnly) {
  playLines(R"(
$Q rm good && test ! -e good -> 0 good: removed
$Q rm in -> 65 ! is no kind of paged file
$Q rm --raw in && test ! -e in -> 0 in: removed
$Q rm no -> 66 ! No such file
$Q rm --raw no -> 66 ! No such file
mkdir d; $Q rm --raw d -> 66 ! try:    name a file
)");
}

}  // namespace
}  // namespace qztest
