// Reading pages one by one and in runs.
#include "script.h"

namespace qztest {
namespace {

class ReadTest : public ScriptTest {};

TEST_F(ReadTest, SequentialReadersFollowTheOrderOrRestart) {
  playRows(R"(
    settle block; file 5; set readAccess 1 sequentialStartPage %1; open; touch 1 2 3
    read 5 -> !812; touch %2; set lastPageRead 5; read 6 -> 80B; close)",
           "0 | 1\n3 | 3");
}

TEST_F(ReadTest, OneTransferForAPageOrABlock) {
  playRows(R"(
    open %1 10; read 6:0 -> ok pread %2; host ->; count getenv 0
    is ownAllocations 0 lastPageRead 6 readLength %3 nextPage %4 firstBlockRead %5; write 6
    read 6 -> ok%6; read 7 -> ok%7; read 10:0 -> ok pread %8; is firstBlockRead %5; close)",
           R"(
buffered | 4096@24576 | 0 | 1 | 0 |  |  pread 4096@28672 | 4096@40960
direct | 4096@24576 | 0 | 1 | 0 |  |  pread 4096@28672 | 4096@40960
block | 16384@20480 | 4096 | 9 | 2 |  pread 16384@20480 |  | 16384@36864=8192)");
}

// A failure is judged again without a call, until another read takes its buffer.
TEST_F(ReadTest, PageModeKeepsFailures) {
  play(R"(
    open direct 3; fail pread; read 2 -> 808 pread 4096@8192!5 {!808}; set lastErrno 77
    read 2 -> !808; is lastErrno 77; lists -> free 2=-1 0 0 0; fail
    read 1:0 -> ok pread 4096@4096; read 2:0 -> ok pread 4096@8192)");
}

// The bytes that came are told in page mode only.
TEST_F(ReadTest, ShortPagesTellTheirBytes) {
  playRows("open %1 3; cut 12388; read 3 -> 818 pread %2 {!818}; is readLength %3 fd -1", R"(
direct | 4096@12288=100 | 100
block | 16384@4096=8292 | 0)");
}

TEST_F(ReadTest, RunsGoStraightToTheCaller) {
  play("read 0 -> !81E; many 1 1 0 -> !81E");
  settle(Shape::buffered);
  makeFile(2600);
  for (const Shape shape : kShapes) {
    settle(shape);
    play("open");
    playRows("set nextPage 1; many %1 %2 %3 -> %4; is nextPage %5", R"(
1 | 524288 | 8 | !80C | 1
3 | 2500 | 0 | ok lseek 12288 readv 1024 readv 1024 readv 452 | 2503
2 | 1024 | 7 | ok lseek 8192 readv 1024 | 1026
4 | 2 | 8 | ok pread 8192@16384 | 6
2599 | 5 | 9 | ok pread 20480@10645504=8192 | 2604
2599 | 5 | 0 | ok lseek 10645504 readv 5 | 2604)");
    play("host ->; close");
  }
}

TEST_F(ReadTest, FailedRunsTellHowFarTheyCame) {
  playRows("open buffered 2100; fail %1; many 1 2100 0 -> %2; is lastErrno 0 nextPage %3; close",
           R"(
lseek | 808 lseek 4096!5 {!808} | 1
readv#2!4 | 808 lseek 4096 readv 1024 readv 1024!4 {!808} | 1025
readv#3=half | ok lseek 4096 readv 1024 readv 1024 readv 52 | 2101)");
}

}  // namespace
}  // namespace qztest
