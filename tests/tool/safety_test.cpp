// The tool must not give others access, leave files behind, or report a failure as success.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tool/shell.h"

namespace qztest {
namespace {

// A new file must not give anyone access who has none to the file that it was made from.
TEST(Safety, NewFilesHaveNoMorePermissionsThanTheirSource) {
  playLines(R"(
chmod 600 in; $Q pack in x >y; stat -c %a x -> OK 600
chmod 600 in; $Q pack - x <in >y; stat -c %a x -> OK 600
chmod 640 good; $Q unpack good x >y; stat -c %a x -> OK 640
chmod 400 good; $Q copy good x >y; stat -c %a x -> OK 400
$Q pack in x >y; stat -c %a x -> OK 644
cat in | $Q pack - x >y; stat -c %a x -> OK 644
umask 077; $Q pack in x >y; stat -c %a x -> OK 600
chmod 640 good; $Q pack -f in good >y; stat -c %a good -> OK 640
chmod 600 in; $Q pack -f in good >y; stat -c %a good -> OK 600
chmod 4755 good; $Q pack -f in good >y; stat -c %a good -> OK 4755
)");
}

// A replaced file must keep its owner. Where the user may not give it that owner, it must not keep
// permissions that were meant for the owner's group, nor set-user-ID bits.
TEST(Safety, ReplacedFilesKeepTheirOwnerOrLoseItsRights) {
  if (geteuid() != 0) GTEST_SKIP() << "files of another user need root";
  playLines(R"(
chown 1:2 good; chmod 4775 good; $Q $REPLACE >y; stat -c '%a %u:%g' good -> OK 4755 1:2
chown 1:2 good; chmod 4775 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> OK 755 65534:65534
chown 65534:2 good; chmod 2775 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> OK 755 65534:65534
chown 65534:65534 good; chmod 6755 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> OK 6755 65534:65534
chown 1:2 in kept; chmod 640 in kept; $Q $REPLACE >y; stat -c '%a %u:%g' good -> OK 600 0:0
chown 1:2 in kept good; chmod 640 in kept; chmod 660 good; $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> OK 640 1:2
)",
            R"(cp good kept; cp good was; chmod 777 .; umask 0
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all "$@"; }
for REPLACE in "pack -f in good" "unpack -f kept good" "copy -f kept good"; do
  touch y; chmod 666 y; cat was >good
  { %1; } >said || exit; cat said
done | uniq -c | sed 's/^ *3 //')");
}

// A new file has no name until it is whole. On file systems without nameless files it has a
// temporary name, which must be removed when a signal ends the program.
TEST(Safety, ASignalLeavesNoUnfinishedFile) {
  playLines(
      R"(
begin $Q pack f x; kill -KILL $p; wait $p 2>/dev/null; ls -A -> OK f good good1 in
begin $Q pack f x; kill -QUIT $p; wait $p 2>/dev/null; ls -A -> OK f good good1 in
begin $Q pack f x; mkdir d; mv f good good1 in d; kill -ALRM $p; wait $p 2>/dev/null; ls -A -> OK d
for s in HUP INT QUIT ALRM TERM USR2; do
  QZPFILE_FAULT=nameless begin $FAULTY pack f x; ls -A | grep -c qzpfile-; kill -$s $p; wait $p 2>/dev/null;
  kill -l $?; rm f; done; ls -A -> OK 1 HUP 1 INT 1 QUIT 1 ALRM 1 TERM 1 USR2 good good1 in
)",
      // Without --default-signal the shell starts background programs with INT and QUIT ignored.
      R"(ulimit -c 0
begin() { mkfifo f; env --default-signal "$@" & p=$!; exec 3>f; sleep 0.3; }
%1)");
}

// A folder may be moved while a file is made in it: the file must get its name there. It must not
// replace a file that has got the name meanwhile.
TEST(Safety, TheFolderMayChangeWhileAFileIsMade) {
  for (const char* const program : {"$Q", "QZPFILE_FAULT=nameless $FAULTY"}) {
    SCOPED_TRACE(program);
    playLines(R"(
mv d e; cat in >&3; exec 3>&-; wait $p; ls -A e; $Q unpack e/x - | cmp in -
  -> OK 43008 bytes of payload
mv d e; kill -TERM $p; wait $p 2>/dev/null; ls -A e -> OK
echo other >d/x; cat in >&3; exec 3>&-; wait $p; s=$?; cat d/x; exit $s
  -> CANTCREAT other ! d/x: already exists
)",
              std::string("mkdir d; mkfifo f; ") + program +
                  " pack f d/x & p=$!; exec 3>f; sleep 0.3; %1");
  }
}

// Signals that are ignored at the start, as by nohup(1), must stay ignored. With SIGPIPE ignored, a
// reader that has gone must show as an error of the write.
TEST(Safety, SignalsThatWereIgnoredStayIgnored) {
  playLines(R"(
for s in HUP INT QUIT TERM USR1; do mkfifo f; (trap '' $s; exec $Q pack f x -f) & p=$!;
  exec 3>f; sleep 0.2; kill -$s $p; cat in >&3; exec 3>&-; wait $p || echo $?; rm f; done | wc -l
  -> OK 5
(trap '' PIPE; sleep 0.3; $Q unpack good -; test $? = $IOERR && echo "IOERR" >&2) | true
  -> OK ! Broken pipe IOERR
)");
}

// If the folder cannot be flushed, a power cut may lose the new name: that must not be a success.
TEST(Safety, AFolderThatIsNotFlushedIsNoSuccess) {
  playLines(R"(
QZPFILE_FAULT=folder-fsync $FAULTY pack in x; s=$?; cmp x want || exit; exit $s
  -> IOERR ! x: is complete, but its name may not be on disk: Input/output error
QZPFILE_FAULT=folder-fsync $FAULTY unpack good x; s=$?; cmp x in || exit; exit $s
  -> IOERR ! x: is complete, but its name may not be on disk: Input/output error
)",
            "$Q pack in want >y; %1");
  if (geteuid() != 0) GTEST_SKIP() << "a folder that its writer cannot read needs another user";
  playLines(R"(
mkdir d; chmod 333 d; chmod 755 .; setpriv --reuid=65534 --clear-groups --inh-caps=-all
  $Q pack in d/x >/dev/null; $Q verify d/x -> OK d/x: good
)");
}

// A failure of the disk must have an exit status of its own, not that of bad data or a difference.
TEST(Safety, FailuresOfTheDiskAreNoVerdicts) {
  playLines(R"(
QZPFILE_FAULT=read $FAULTY info good -> IOERR ! good: cannot read
seq 200000 >big; (ulimit -f 200; $Q pack --page-size 4K big x)
  -> IOERR ! x: cannot write: File too large
)");
  if (geteuid() != 0) GTEST_SKIP() << "files of another user need root";
  playLines(R"(
mkdir d; cp good d; chmod 666 d/good; chmod 1777 d; chmod 755 .; setpriv --reuid=65534
  --clear-groups --inh-caps=-all $Q rm d/good
  -> NOPERM ! d/good: cannot remove: Operation not permitted
)");
}

// Every command that meets a page, a checksum page or a header that it cannot read must end with
// IOERR. The lines print the commands that do not.
TEST(Safety, UnreadableBytesAreReportedByEveryCommand) {
  playLines(R"(
try page "verify good" "verify -k good" "verify --map good" "verify --every-mode good"
  "info --map good" "unpack good -" "unpack -k good -" "cat good" "cat -k good" "dump good"
  "copy good x" "compare good good1" "bench good" "repair good" "repair -n good" "put good1 1"
  "truncate good1 2" -> OK
try header "verify good" "info good" "unpack good -" "cat good" "dump good" "copy good x"
  "compare good good1" "bench good" "repair good" "put good 1" "put --append good"
  "truncate good 2" "header good" "header good --set in" "rm good" -> OK
(head -c 16384 good; tail -c +20481 good) >f; QZPFILE_FAULT=page $FAULTY verify f -k
  --format json | grep -c '"what": "unreadable"' -> OK 1
)",
            R"(try() { fault=$1; shift; for c in "$@"; do
  QZPFILE_FAULT=$fault $FAULTY $c <in >y 2>z; s=$?; test $s = $IOERR || echo "$s $c"; done; }
%1)");
}

// A file that shrinks while it is read must be a failure: its end is missing.
TEST(Safety, InputsThatShrinkAreNoticed) {
  playLines(R"(
QZPFILE_FAULT=shrink $FAULTY pack in x -> DATAERR ! in: became shorter while it was read: it had 43008 bytes
$Q pack /sys/kernel/mm/transparent_hugepage/enabled x -> OK 1 page
seq 1000000 | head -c 1M >big; ($Q cat --raw --page-size 4K big; echo $? >s) |
  (head -c 1 >y; truncate -s 150K big; cat >y); exit $(cat s) -> DATAERR ! big: became shorter
)");
}

// Runs of zeros must take no room on the disk, whatever the page size; --sparse=never must write
// them.
TEST(Safety, ZerosBecomeHoles) {
  Shell().expectGood(R"sh(
    blocks() { stat -c %b "$1"; }
    cat in >zeros; truncate -s 8M zeros; cat in >>zeros; truncate -s 12M zeros
    for pages in 3000 64K 1M; do
      $Q pack -q -f --page-size $pages zeros packed
      $Q unpack -q -f packed out; cmp zeros out; test $(blocks out) -le 400
      $Q unpack -q -f --sparse=never packed out; cmp zeros out; test $(blocks out) -ge 24000
      $Q unpack packed - >out; cmp zeros out; test $(blocks out) -le 400
      $Q copy -q -f packed copied; cmp packed copied; test $(blocks copied) -le 8000
      $Q copy -q -f --sparse=never packed copied; cmp packed copied; test $(blocks copied) -ge 24000
      $Q cat packed >out; $Q cat packed | cmp - out; test $(blocks out) -le 6000
      # Old bytes are overwritten with zeros. A file opened for appending takes no holes.
      tr '\0' x <zeros >old; $Q unpack packed - 1<>old; cmp zeros old
      rm old; (printf old; $Q unpack packed -) >>old; (printf old; cat zeros) | cmp - old
    done
    # At the end zeros too few for a hole.
    truncate -s +9000 in; $Q pack -q -f in packed; $Q unpack -q -f packed out; cmp in out)sh");
}

}  // namespace
}  // namespace qztest
