// What the tool must not do to its user: lend rights, leave files behind, call a failure success.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tool/shell.h"

namespace qztest {
namespace {

// Nobody may read or write a file that could not do so with the file that it was made from.
TEST(Safety, NewFilesAreNoMoreOpenThanWhatTheyAreMadeFrom) {
  playLines(R"(
chmod 600 in; $Q pack in x >y; stat -c %a x -> 0 600
chmod 600 in; $Q pack - x <in >y; stat -c %a x -> 0 600
chmod 640 good; $Q unpack good x >y; stat -c %a x -> 0 640
chmod 400 good; $Q copy good x >y; stat -c %a x -> 0 400
$Q pack in x >y; stat -c %a x -> 0 644
cat in | $Q pack - x >y; stat -c %a x -> 0 644
umask 077; $Q pack in x >y; stat -c %a x -> 0 600
chmod 640 good; $Q pack -f in good >y; stat -c %a good -> 0 640
chmod 600 in; $Q pack -f in good >y; stat -c %a good -> 0 600
chmod 4755 good; $Q pack -f in good >y; stat -c %a good -> 0 4755
)");
}

// As root, and as another user who may write to the folder.
TEST(Safety, ReplacedFilesKeepTheirOwnerOrLoseItsRights) {
  if (geteuid() != 0) GTEST_SKIP() << "files of another user need root";
  playLines(R"(
chown 1:2 good; chmod 4775 good; $Q $REPLACE >y; stat -c '%a %u:%g' good -> 0 4755 1:2
chown 1:2 good; chmod 4775 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good -> 0 755 65534:65534
chown 65534:2 good; chmod 2775 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> 0 755 65534:65534
chown 65534:65534 good; chmod 6755 good; nobody $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> 0 6755 65534:65534
chown 1:2 in kept; chmod 640 in kept; $Q $REPLACE >y; stat -c '%a %u:%g' good -> 0 600 0:0
chown 1:2 in kept good; chmod 640 in kept; chmod 660 good; $Q $REPLACE >y; stat -c '%a %u:%g' good
  -> 0 640 1:2
)",
            R"(cp good kept; cp good was; chmod 777 .; umask 0
nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups --inh-caps=-all "$@"; }
for REPLACE in "pack -f in good" "unpack -f kept good" "copy -f kept good"; do
  touch y; chmod 666 y; cat was >good
  { %1; } >said || exit; cat said
done | uniq -c | sed 's/^ *3 //')");
}

// A new file has no name until it is whole; or a temporary one, where the file system has no files
// without a name, which goes when a signal ends the program.
TEST(Safety, ProgramsThatAreEndedLeaveNothing) {
  playLines(R"(
begin $Q pack f x; kill -KILL $p; wait $p 2>/dev/null; ls -A -> 0 f good good1 in
begin $Q pack f x; kill -QUIT $p; wait $p 2>/dev/null; ls -A -> 0 f good good1 in
begin $Q pack f x; mkdir d; mv f good good1 in d; kill -ALRM $p; wait $p 2>/dev/null; ls -A -> 0 d
for s in HUP INT QUIT ALRM TERM USR2; do
  QZPFILE_FAULT=nameless begin $FAULTY pack f x; ls -A | grep -c qzpfile-; kill -$s $p; wait $p 2>/dev/null;
  echo $?; rm f; done; ls -A -> 0 1 129 1 130 1 131 1 142 1 143 1 140 good good1 in
)",
            // The shell lets programs in the background ignore INT and QUIT.
            R"(ulimit -c 0
begin() { mkfifo f; env --default-signal "$@" & p=$!; exec 3>f; sleep 0.3; }
%1)");
}

TEST(Safety, AFolderThatMovesTakesTheNewFileAlong) {
  for (const char* const program : {"$Q", "QZPFILE_FAULT=nameless $FAULTY"}) {
    SCOPED_TRACE(program);
    playLines(R"(
mv d e; cat in >&3; exec 3>&-; wait $p; ls -A e; $Q unpack e/x - | cmp in -
  -> 0 43008 bytes of payload
mv d e; kill -TERM $p; wait $p 2>/dev/null; ls -A e -> 0
)",
              std::string("mkdir d; mkfifo f; ") + program +
                  " pack f d/x & p=$!; exec 3>f; sleep 0.3; %1");
  }
}

// As nohup(1) and shells want it; a reader that is gone is then an error like others.
TEST(Safety, SignalsThatWereIgnoredStayIgnored) {
  playLines(R"(
for s in HUP INT QUIT TERM USR1; do mkfifo f; (trap '' $s; exec $Q pack f x -f) & p=$!;
  exec 3>f; sleep 0.2; kill -$s $p; cat in >&3; exec 3>&-; wait $p || echo $?; rm f; done | wc -l
  -> 0 5
(trap '' PIPE; sleep 0.3; $Q unpack good - || echo $? >&2) | true -> 0 ! Broken pipe 74
)");
}

TEST(Safety, AFolderThatIsNotOnDiskIsNoSuccess) {
  playLines(R"(
QZPFILE_FAULT=folder-fsync $FAULTY pack in x; s=$?; cmp x want || exit; exit $s
  -> 74 ! x: is complete, but its name may not be on disk: Input/output error
QZPFILE_FAULT=folder-fsync $FAULTY unpack good x; s=$?; cmp x in || exit; exit $s
  -> 74 ! x: is complete, but its name may not be on disk: Input/output error
)",
            "$Q pack in want >y; %1");
  if (geteuid() != 0) GTEST_SKIP() << "a folder that its writer cannot read needs another user";
  playLines(R"(
mkdir d; chmod 333 d; chmod 755 .; setpriv --reuid=65534 --clear-groups --inh-caps=-all
  $Q pack in d/x >/dev/null; $Q verify d/x -> 0 d/x: good
)");
}

// What cannot be read or removed is told by the exit status, not called bad data or a difference.
TEST(Safety, FailuresOfTheDiskAreNoVerdicts) {
  playLines(R"(
QZPFILE_FAULT=read $FAULTY info good -> 74 ! good: cannot read
QZPFILE_FAULT=page $FAULTY unpack good x -> 74 ! Input/output error
QZPFILE_FAULT=page $FAULTY compare good good1 -> 74 ! Input/output error
QZPFILE_FAULT=page $FAULTY cat good >x -> 74 ! Input/output error
seq 200000 >big; (ulimit -f 200; $Q pack --page-size 4K big x)
  -> 74 ! x: cannot write: File too large
)");
  if (geteuid() != 0) GTEST_SKIP() << "files of another user need root";
  playLines(R"(
mkdir d; cp good d; chmod 666 d/good; chmod 1777 d; chmod 755 .; setpriv --reuid=65534
  --clear-groups --inh-caps=-all $Q rm d/good -> 77 ! d/good: cannot remove: Operation not permitted
)");
}

// An input that gets shorter while it is read is not taken for a shorter input.
TEST(Safety, InputsThatAreCutAreNoticed) {
  playLines(R"(
QZPFILE_FAULT=cut $FAULTY pack in x -> 65 ! in: was cut while it was read: it had 43008 bytes
$Q pack /sys/kernel/mm/transparent_hugepage/enabled x -> 0 1 page
)");
}

// Runs of zeros cost no room on the disk, in whatever pages they come, and dense data stays dense.
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
      # What a file has already is overwritten, and a file that grows at its end has no positions.
      tr '\0' x <zeros >old; $Q unpack packed - 1<>old; cmp zeros old
      printf old >old; $Q unpack packed - >>old; (printf old; cat zeros) | cmp - old
    done)sh");
}

}  // namespace
}  // namespace qztest
