// Packing, unpacking and copying: the bytes of the payload, and the files that are left.
#include <gtest/gtest.h>

#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

// A payload must come back whole from each mode of packing through each mode of unpacking, also
// with sizes around those of pages and blocks.
TEST(Packing, RoundTripsInAllModesAndSizes) {
  Shell().expectGood(R"sh(
    for bytes in 0 1 4097 200000; do
      head -c $bytes /dev/urandom >p
      for pack in "--io buffered --page-size 512 --header-size 64" "--io buffered --page-size 3000" \
                  "--io direct --page-size 4K" "--io block --page-size 4K --block-size 16K" \
                  "--io block --page-size 64K" "--io direct --header-size 8K" "--io auto"; do
        for unpack in "--io buffered --buffers 5" "--io direct" "--io block" "--io auto"; do
          case "$pack $unpack" in *512*direct | *512*block | *3000*direct | *3000*block) continue;; esac
          $Q pack -f $pack p p.qzp && $Q unpack -f $unpack p.qzp q && cmp p q &&
            $Q unpack $unpack p.qzp - | cmp p - && cat p | $Q pack - piped.qzp $pack &&
            cmp p.qzp piped.qzp && rm piped.qzp || { echo "failed: $bytes: $pack: $unpack"; exit 1; }
        done
      done
    done)sh");
}

// A copy with other sizes of pages and header must keep every byte of the payload.
TEST(Packing, CopiesIntoOtherPagesAndBack) {
  Shell().expectGood(R"sh(
    for size in 512 4K 12K 1M; do
      for mode in buffered direct block; do
        case $size-$mode in 512-direct | 512-block) continue;; esac
        $Q copy -f --page-size $size --header-size 8K good wide
        $Q copy -f --io $mode wide same; cmp wide same
        $Q copy -f --page-size 4K --header-size 4096 wide back; cmp good back
      done
    done)sh");
}

// Copies of a SQLite database and its log must be the same and be readable. They are made while a
// connection is open, as the log is deleted with the last one.
TEST(Packing, CopiesSqliteFiles) {
  Shell().expectGood(R"sh(
    for size in 512 1024 4096 65536; do
      rm -f db db-wal
      sed "s/^ *//" >sql <<SQL
        PRAGMA page_size=$size; PRAGMA journal_mode=wal; PRAGMA wal_autocheckpoint=0;
        CREATE TABLE t(x); INSERT INTO t VALUES(hex(randomblob(600)));
        INSERT INTO t SELECT x FROM t; INSERT INTO t SELECT x FROM t;
        .system $Q copy -f db c 2>warned && $Q copy -f db-wal c-wal && cmp db c && cmp db-wal c-wal && echo same
SQL
      sqlite3 db <sql >said
      tail -n 1 said | grep -q same
      grep -q "changes in db-wal are not in the copy" warned
      test "$(sqlite3 c 'PRAGMA integrity_check; SELECT count(*) FROM t;' | tr '\n' ' ')" = 'ok 4 '
      $Q info c | grep "^page size *$size "; $Q verify c
    done)sh");
}

// A file that exists must not be overwritten without --force, nor ever a folder or pipe. Sizes that
// do not fit the mode must be refused before anything is written.
TEST(Packing, OverwritesOnlyRegularFilesAndOnlyWhenForced) {
  playLines(R"(
$Q pack in good -> CANTCREAT ! good: already exists
$Q unpack good in -> CANTCREAT ! in: already exists
chmod 640 good; $Q pack -f in good >y && stat -c %a good -> OK 640
ln -s good link; head -c 9 in >small; $Q pack -f small link >y; test -L link && $Q unpack good - |
  cmp small - -> OK
mkdir d; $Q pack in d --force -> CANTCREAT ! d: is a folder
mkfifo f; $Q pack in f --force -> CANTCREAT ! not a regular file
$Q pack in no/such -> CANTCREAT ! try:    create the folder first
n=$(printf 'p\303\266\344\270\200\377'); $Q pack in "$n" && $Q unpack "$n" - | cmp in -
  -> OK 1 page of 65536
$Q pack in x >y; stat -c %a x -> OK 644
$Q pack --io direct --page-size 5000 in x -> USAGE ! bytes, not 5000 and 4096
$Q pack --io block --header-size 100 in x -> USAGE ! bytes, not 65536 and 100
$Q pack --io block --block-size 100000 in x -> USAGE ! does not hold whole pages of 65536 bytes
$Q pack -f --page-size 600 in good >y; $Q unpack --io direct good x -> USAGE ! not 600 and 4096
$Q pack -f --page-size 600 in good >y; $Q info good --io auto -> OK buffered (asked: auto;
)");
}

// A part of a file under the wanted name would pass as the whole.
TEST(Packing, LeavesNothingWhenItFails) {
  playLines(R"(
seq 200000 >big; (ulimit -f 200; $Q pack big x); s=$?; test ! -e x && exit $s -> IOERR ! ulimit -f
seq 3000000 >big; (ulimit -f 9000; $Q pack --io block big x); s=$?; test ! -e x && exit $s
  -> IOERR ! status 0x803FC80F
cp good kept; seq 200000 >big; (ulimit -f 200; $Q pack -f big good); cmp good kept
  -> OK ! ulimit -f
$Q unpack good - >/dev/full -> IOERR ! No space left on device
$Q info good >/dev/full -> IOERR ! standard output
$Q info good --format json >/dev/full -> IOERR ! standard output
mkfifo f; env --default-signal $Q pack f x & p=$!; exec 3>f; sleep 0.3; kill -INT $p; wait $p
  -> SIGINT
mkfifo f; $Q pack f x & p=$!; exec 3>f; echo bytes >&3; sleep 0.3; kill -USR1 $p; sleep 0.3;
  exec 3>&-; wait $p -> OK 6 bytes of payload ! pack  
)");
}

// The message must tell the user to look at the file system, not at the file.
TEST(Packing, ReportsAFullDisk) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
  playLines(
      R"(
mount -t tmpfs -o size=1m none d; $Q pack big d/x; s=$?; ls -A d; exit $s
  -> IOERR ! try:    make room on that file system
mount -t tmpfs -o ro none d; $Q pack in d/x
  -> CANTCREAT ! Read-only file system try:    use another file system
)",
      "mkdir d; seq 1000000 >big; export Q; unshare -m sh -c '%1'");
}

// A missing permission must have an exit status of its own, for scripts that then call sudo.
TEST(Packing, ReportsRefusedAccess) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  playLines(R"(
info good -> NOPERM ! Permission denied
pack in x -> NOPERM ! try:    check the permissions
truncate kept 1 -> NOPERM ! cannot open for writing: Permission denied
rm kept -> NOPERM ! cannot remove
)",
            "chmod 755 .; cp good kept; chmod 600 good; setpriv --reuid=65534 --clear-groups "
            "--inh-caps=-all $Q %1");
}

}  // namespace
}  // namespace qztest
