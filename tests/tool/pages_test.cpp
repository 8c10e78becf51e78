// Commands on single pages: show, change, refuse.
#include <gtest/gtest.h>

#include "tool/shell.h"

namespace qztest {
namespace {

// cat, dump and header must show the bytes of the file, in any mode, and refuse pages that it
// lacks.
TEST(Pages, AreShownAsTheyAre) {
  playLines(R"(
$Q cat good | head -c 43008 | cmp in - -> OK
$Q cat good | wc -c -> OK 45056
head -c 20480 in | tail -c 12288 >three; $Q cat good --pages 3-5 | cmp three - -> OK
$Q cat --io block good --pages 11- | wc -c -> OK 4096
$Q cat --io direct good --pages -2 | cmp -n 8192 in - -> OK
$Q cat good --pages 12 -> USAGE ! page 12 is past the last page, 11
$Q cat good --pages 1-12 -> USAGE ! page 12 is past the last page, 11
$Q cat good --pages 9223372036854775800- -> USAGE ! is past the last page, 11
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
  -> DATAERR ! does not fit --page-size 5000 --header-size 0: expected 50000 or 55000 bytes, found 53248
  bytes: a header of 0, 10 whole pages of 5000 and 3248 left-over bytes try:    give the file's real sizes:
  --page-size 4096 would fit
$Q cat --raw --page-size 5000 --header-size 1 good -> DATAERR ! give the file's real sizes; or, if
$Q verify --raw --page-size 1 in -> OK 43008 pages of 1 byte read
$Q cat --raw --page-size 1 --header-size 53247 good | head -c 1 | wc -c -> OK 1
)");
}

// With -k the whole pages of a file that lost its end must be readable, and what is missing be
// named.
TEST(Pages, AreTakenFromAFileThatIsNotWhole) {
  playLines(R"(
$Q cat -k --raw --page-size 4K raw | cmp -n 40960 in - -> OK ! raw: has the wrong length: 100 bytes after
$Q cat -k --raw --page-size 4K raw | wc -c -> OK 40960 ! are left out
$Q cat -k --raw --page-size 4K raw >y -> DATAERR ! 100 bytes after page 10 are left out
$Q cat -k --raw --page-size 4K --io direct --pages 9- raw | wc -c -> OK 8192 ! are left out
$Q dump -k --raw --page-size 4K --pages 10 raw | grep -c ^page -> OK 1 ! 100 bytes after page 10
$Q dump -k --raw --page-size 4K raw >y -> DATAERR ! are left out
$Q copy -k --raw --page-size 4K raw x >y; s=$?; cmp -n 40960 raw x && exit $s -> DATAERR ! are left out
$Q copy -k --raw --page-size 4K --io block raw x -> DATAERR x: 10 pages ! are left out
$Q cat -k --raw --page-size 64K raw -> DATAERR ! does not fit --page-size 65536
$Q cat -k --raw --page-size 4K --header-size 1M raw -> DATAERR ! ends inside the header
$Q unpack -k cut x; s=$?; cmp -n 36864 in x && exit $s
  -> DATAERR 36864 bytes, missing pages left out ! cut: has the wrong length: 2 pages at the end are missing,
  3192 bytes after page 9 are left out
$Q cat -k cut | cmp -n 36864 in - -> OK ! 2 pages at the end are missing
$Q copy -k cut x; $Q unpack x - | cmp -n 36864 in - -> OK x: 9 pages of 4096 bytes ! 2 pages at
(cat good; echo) >long; $Q unpack -k long - | cmp in - -> OK ! 1 byte after page 11 is left out
poke Y 9000 cut; $Q unpack -k cut x -> DATAERR damaged pages as they are ! page 1 (file offset 8192)
$Q verify -k cut -> DIFFERS 9 pages of 4096 bytes read
poke Y 9000 cut; $Q verify -k cut -> DIFFERS page 1 (file offset 8192) is damaged
)",
            "head -c 41060 in >raw; head -c 48248 good >cut; %1");
}

// A map must show of each page whether it is data, zeros, a hole, damaged, missing or unreadable.
TEST(Pages, AreShownInAMap) {
  playLines(R"(
$Q info --map f | tail -6
  -> OK map, 1 page per character: 1 c#####..........................000##### # data: 10 pages
  0 zeros: 3 pages . hole: 26 pages c checksums: 1 page
$Q verify --map f -> OK 1 c#####..........................000#####
poke Y 9000 f; poke Y 160000 f; $Q verify --map f
  -> DIFFERS 1 cX####..........................000###X# # data: 8 pages
poke Y 5000 f; $Q verify --map f -> DIFFERS 1 X#####....
truncate -s -5000 f; $Q verify --map f -> DIFFERS 000###-- # data: 8 pages
COLUMNS=20 $Q verify --map f -> OK 1 c#####......... 15 ............... 30 ..000#####
seq 4000000 | head -c 10M | $Q pack --page-size 512 - g >y; poke Y 3000000 g;
  $Q verify --map g | sed -n '/ map, 19 pages/,/# data/p' | grep -o X | wc -l -> OK 1
QZPFILE_FAULT=page $FAULTY verify --map f
  -> IOERR f: not readable page 3 (file offset 16384) in mode buffered: cannot read
QZPFILE_FAULT=page $FAULTY info --map f -> IOERR 1 c##?##... ! f: page 3 (file offset 16384): cannot read
$Q info --map --raw --page-size 4K good -> OK 1 #############
: >e; $Q info --raw --page-size 4K --map e -> OK no pages to draw
$Q verify --map -q f -> USAGE ! cannot be used together
)",
            R"((head -c 20480 in; head -c 118784 /dev/zero; head -c 20480 in) | \
$Q pack --page-size 4K - p >y; $Q copy p f >y
dd if=/dev/zero of=f bs=4096 seek=33 count=3 conv=notrunc status=none
%1)");
}

// After each change the payload must be as wanted, and header and checksums fit it.
TEST(Pages, ChangesUpdateHeaderAndChecksums) {
  playLines(
      R"(
random 4096; replace 2; $Q put good 3 <p -> OK 11
random 8192; replace 4; cat p | $Q put --io direct good 5 -> OK 11
random 8192; replace 4; $Q put --io block good 5 <p -> OK 11
random 5000; append; $Q put good --append <p -> OK 13
(cat in; cat in) | head -c 32768 >want; $Q pack -f --page-size 512 want good; random 512;
  dd if=p of=want bs=512 seek=63 conv=notrunc status=none; $Q put good 64 <p -> OK 64
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

// A change that is refused, or whose input ends early, must leave the file as it was.
TEST(Pages, RefusedChangesChangeNothing) {
  playLines(R"(
head -c 4096 in | $Q put good 13 -> USAGE ! page 13 would leave a gap
$Q put good -> USAGE ! give either PAGE or --append
$Q put good 0 <in -> USAGE ! there is no page 0
$Q put good 1 -> NOINPUT ! nothing was written
true | $Q put good --append -> NOINPUT ! nothing was written
$Q put good 1 <h -> DATAERR ! where:  page 1, file offset 8192
cat h | $Q put good 1 -> DATAERR ! a partial page: 100 of 4096 bytes
cat in | $Q put --raw --page-size 4K good --append -> DATAERR ! nothing was appended
(ulimit -f 100; (cat in in in) | $Q put good --append) -> IOERR ! nothing was appended
mkfifo f; $Q put good --append <f & p=$!; exec 3>f; seq 300000 >&3; sleep 0.3; kill -PIPE $p;
  wait $p -> SIGPIPE
mkfifo f; $Q put good 1 <f >y & exec 3>f; head -c 4096 in >&3; sleep 0.3; $Q info good 3>&-; s=$?;
  exec 3>&-; wait; (exit $s) -> IOERR ! try:    another program has the file open, or
$Q truncate good 12 -> USAGE ! truncate cannot lengthen it
$Q truncate --raw --page-size 4K good 0 -> USAGE ! use rm
$Q header good --set in -> DATAERR ! is too long
$Q header good --set h -> DATAERR ! needs a header that matches
$Q header good --set /dev/null -> NOINPUT ! is empty
$Q header --raw --page-size 4K good --set h -> DATAERR ! has no header
)",
            "cp good kept; head -c 100 in >h; %1; s=$?; cmp good kept && exit $s");
}

// A change of a raw file cannot be undone. If it fails, the message must tell which pages were
// written.
TEST(Pages, FailedRawChangesTellWhatWasWritten) {
  playLines(R"(
(cat in; cat in) | head -c 1052672 >p; $Q pack -f --page-size 4K p good >/dev/null;
  (seq 1000000 | head -c 12288; echo x) | $Q put --raw --page-size 4K good 2
  -> DATAERR ! note:   pages 2 to 4 were written before that
head -c 40960 in >raw; (head -c 4096 in; echo x) | $Q put --raw --page-size 4K raw 2
  -> DATAERR ! note:   page 2 was written before that
: >e; $Q put --raw --page-size 4K --append e <in; s=$?; test -f e && exit $s
  -> DATAERR ! a partial page: 2048 of
)");
}

// With standard error closed the paged file could get its descriptor, and messages would overwrite
// the pages.
TEST(Pages, AClosedStandardErrorDoesNotPutMessagesIntoPages) {
  playLines(R"(
mkfifo f; cp in raw; $Q put --raw --page-size 1K raw 2 2>&- <f & p=$!; exec 3>f; sleep 0.3;
  kill -USR1 $p; sleep 0.3; head -c 2048 in | tail -c 1024 >&3; exec 3>&-; wait $p; cmp in raw
  -> OK 1 page written
)");
}

// rm must not remove a file by mistake: without --raw it takes paged files only.
TEST(Pages, RmTakesOtherFilesOnlyWithRaw) {
  playLines(R"(
$Q rm good && test ! -e good -> OK good: removed
$Q rm in -> DATAERR ! is not a paged file of a known kind
$Q rm --raw in && test ! -e in -> OK in: removed
$Q rm no -> NOINPUT ! No such file
$Q rm --raw no -> NOINPUT ! No such file
mkdir d; $Q rm --raw d -> NOINPUT ! try:    name a file
)");
}

}  // namespace
}  // namespace qztest
