// Packing, unpacking and copying: the bytes that come back, and the files that stay behind.
#include <gtest/gtest.h>

#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

// Each mode packs what each other mode unpacks, for payloads around the edges of pages and blocks.
TEST(Packing, RoundTripsInAllModesAndSizes) {
  const Shell shell;
  const Outcome outcome = shell.run(R"sh(
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
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}

TEST(Packing, CopiesIntoOtherPagesAndBack) {
  const Shell shell;
  const Outcome outcome = shell.run(R"sh(set -e
    for size in 512 4K 12K 1M; do
      for mode in buffered direct block; do
        case $size-$mode in 512-direct | 512-block) continue;; esac
        $Q copy -f --page-size $size --header-size 8K good wide
        $Q copy -f --io $mode wide same && cmp wide same
        $Q copy -f --page-size 4K --header-size 4096 wide back && cmp good back
      done
    done)sh");
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}

// The log stays beside its database while a connection is open: the copies are made from within.
TEST(Packing, CopiesSqliteFiles) {
  const Shell shell;
  const Outcome outcome = shell.run(R"sh(set -e
    for size in 512 1024 4096 65536; do
      rm -f db db-wal
      sed "s/^ *//" >sql <<SQL
        PRAGMA page_size=$size; PRAGMA journal_mode=wal; PRAGMA wal_autocheckpoint=0;
        CREATE TABLE t(x); INSERT INTO t VALUES(hex(randomblob(600)));
        INSERT INTO t SELECT x FROM t; INSERT INTO t SELECT x FROM t;
        .system $Q copy -f db c && $Q copy -f db-wal c-wal && cmp db c && cmp db-wal c-wal && echo same
SQL
      sqlite3 db <sql >said
      tail -n 1 said | grep -q same
      test "$(sqlite3 c 'PRAGMA integrity_check; SELECT count(*) FROM t;' | tr '\n' ' ')" = 'ok 4 '
      $Q info c | grep "^page size *$size " && $Q verify c
    done)sh");
  EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
}

TEST(Packing, TakesItsTargetsWithCare) {
  runCases({
      {"no second time", nullptr, "$Q pack in good; echo $?; $Q unpack good in", 73, "73",
       "good: exists already"},
      {"forced", "chmod 640 good", "$Q pack -f in good >/dev/null && stat -c %a good", 0, "640",
       nullptr},
      {"a link stands for its file", "ln -s good link; head -c 9 in >small",
       "$Q pack -f small link >/dev/null; test -L link && $Q unpack good - | cmp small -", 0,
       nullptr, nullptr},
      {"a folder", "mkdir d", "$Q pack in d --force", 73, nullptr, "not a regular file"},
      {"a pipe", "mkfifo f", "$Q pack in f --force", 73, nullptr, "not a regular file"},
      {"no folder", nullptr, "$Q pack in no/such", 73, nullptr, "try:    make the folder first"},
      {"name with bytes beyond ASCII", nullptr,
       "n=$(printf 'p\\303\\266\\344\\270\\200\\377'); $Q pack in \"$n\" && $Q unpack \"$n\" - | "
       "cmp in -",
       0, "1 page of 65536", nullptr},
      {"the new file is like any other", nullptr, "$Q pack in x >/dev/null; stat -c %a x", 0, "644",
       nullptr},
      {"unaligned for direct", nullptr, "$Q pack --io direct --page-size 5000 in x", 64, nullptr,
       "multiples of 4096 bytes, not 5000 and 4096"},
      {"unaligned for block", nullptr, "$Q pack --io block --header-size 100 in x", 64, nullptr,
       "multiples of 4096 bytes, not 65536 and 100"},
      {"block of broken pages", nullptr, "$Q pack --io block --block-size 100000 in x", 64, nullptr,
       "does not hold whole pages of 65536 bytes"},
      {"unaligned for what is there", "$Q pack -f --page-size 512 in good",
       "$Q unpack --io direct good x; $Q info good --io auto", 0, "buffered (asked: auto;",
       "not 512 and 4096"},
  });
}

TEST(Packing, LeavesNothingWhenItFails) {
  runCases({
      {"file size limit", "seq 200000 >big", "(ulimit -f 200; $Q pack big x); s=$?; ls; exit $s",
       74, "good", "ulimit -f"},
      {"file size limit in blocks", "seq 3000000 >big",
       "(ulimit -f 9000; $Q pack --io block big x); s=$?; test ! -e x && exit $s", 74, nullptr,
       "status 0x803FC80F"},
      {"the old file stays", "cp good kept; seq 200000 >big",
       "(ulimit -f 200; $Q pack -f big good); cmp good kept", 0, nullptr, "ulimit -f"},
      {"full output", nullptr, "$Q unpack good - >/dev/full", 74, nullptr,
       "No space left on device"},
      {"full output of text", nullptr, "$Q info good >/dev/full", 74, nullptr, "standard output"},
      {"full output of JSON", nullptr, "$Q info good --format json >/dev/full", 74, nullptr,
       "standard output"},
      {"interrupted", "mkfifo f",
       "$Q pack f x & p=$!; exec 3>f; sleep 0.3; ls -a | grep -c qzpfile-; kill -INT $p; wait $p",
       130, "1", nullptr},
      {"progress on request", "mkfifo f",
       "$Q pack f x & p=$!; exec 3>f; echo bytes >&3; sleep 0.3; kill -USR1 $p; sleep 0.3; "
       "exec 3>&-; wait $p",
       0, "6 bytes of payload", "pack  "},
  });
}

TEST(Packing, ReportsAFullDisk) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a small file system needs root";
  runCases({{"full disk", "mkdir d; seq 1000000 >big",
             "unshare -m sh -c 'mount -t tmpfs -o size=1m none d && $0 \"$@\"; s=$?; ls -A d; "
             "exit $s' $Q pack big d/x",
             74, nullptr, "try:    make room on that file system"},
            {"read-only", "mkdir d",
             "unshare -m sh -c 'mount -t tmpfs -o ro none d && $0 \"$@\"' $Q pack in d/x", 73,
             nullptr, "Read-only file system\n  try:    use another file system"}});
}

TEST(Packing, ReportsRefusedAccess) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  runCases({
      {"unreadable", "chmod 711 .; chmod 600 good",
       "setpriv --reuid=65534 --clear-groups --inh-caps=-all $Q info good", 77, nullptr,
       "Permission denied"},
      {"folder not writable", "chmod 755 .",
       "setpriv --reuid=65534 --clear-groups --inh-caps=-all $Q pack in x", 77, nullptr,
       "try:    look at the permissions"},
      {"not changeable", "chmod 755 .",
       "setpriv --reuid=65534 --clear-groups --inh-caps=-all $Q truncate good 1", 77, nullptr,
       "cannot open for writing: Permission denied"},
      {"not removable", "chmod 755 .",
       "setpriv --reuid=65534 --clear-groups --inh-caps=-all $Q rm good", 77, nullptr,
       "cannot remove"},
  });
}

}  // namespace
}  // namespace qztest
