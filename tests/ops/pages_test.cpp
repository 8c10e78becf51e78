// Reading pages one by one and in runs, writing them, and cutting the file.
#include "script.h"

namespace qztest {
namespace {

class PagesTest : public ScriptTest {};

// An in-order reader must not skip a page unnoticed.
TEST_F(PagesTest, SequentialReadersFollowTheOrderOrRestart) {
  playRows(R"(
    settle block; file 5; set readAccess readSequential sequentialStartPage <start>
    open; touch 1 2 3
    read 5 -> readOutOfSequence
    touch <may be read again>; set lastPageRead 5; read 6 -> endOfFile unreported
    close)",
           "start | may be read again\n0 | 1\n3 | 3");
}

// A hit costs no call, a miss one.
TEST_F(PagesTest, OneTransferForAPageOrABlock) {
  playRows(R"(
    open <shape> 10; read 6:0 -> ok pread <of page 6>; host ->; count getenv 0
    is ownAllocations 0 lastPageRead 6 readLength <length> nextPage <next> firstBlockRead <block>
    write 6; read 6 -> ok<6 again>
    read 7 -> ok<of page 7>
    read 10:0 -> ok pread <of page 10>; is firstBlockRead <block>
    close)",
           R"(
shape | of page 6 | length | next | block | 6 again | of page 7 | of page 10
buffered | 4096@24576 | 0 | 1 | 0 |  |  pread 4096@28672 | 4096@40960
direct | 4096@24576 | 0 | 1 | 0 |  |  pread 4096@28672 | 4096@40960
block | 16384@20480 | 4096 | 9 | 2 |  pread 16384@20480 |  | 16384@36864=8192)");
}

// A failure is judged again without a call, until another read takes its buffer.
TEST_F(PagesTest, PageModeKeepsFailures) {
  play(R"(
    open direct 3; fail pread; read 2 -> ioFailed pread 4096@8192!EIO
    set lastErrno 77; read 2 -> ioFailed; is lastErrno 77
    lists -> free 2(-1 bytes) empty empty empty
    fail nothing; read 1:0 -> ok pread 4096@4096
    read 2:0 -> ok pread 4096@8192)");
}

// The bytes that came are told in page mode only.
TEST_F(PagesTest, ShortPagesTellTheirBytes) {
  playRows(R"(
    open <shape> 3; shrink 12388; read 3 -> misfit pread <call>; is readLength <bytes> fd -1)",
           R"(
shape | call | bytes
direct | 4096@12288=100 | 100
block | 16384@4096=8292 | 0)");
}

// Nothing is written into a file that ends inside its header.
TEST_F(PagesTest, PagesWaitForTheHeader) {
  playRows(R"(
    open <shape> 2; set fileSize 4095; writeOwn 3:1 -> shorterThanHeader
    set fileSize 12288; close)",
           kShapeRows);
}

// A held block whose page was cut away has no copy of the page that came after.
TEST_F(PagesTest, HeldBlocksEndWhereTheyWereCut) {
  play(R"(
    open block 7 40; read 5 a; truncate 5; writeOwn 6:1 7:1; read 7:1; read 6:1; return a
    truncate 4; writeOwn 5:2; read 5:2)");
}

// A run takes as few calls as the system allows and no memory of the host.
TEST_F(PagesTest, RunsGoStraightToTheCaller) {
  play("read 0 -> notOpen; readMany 1 1 0 -> notOpen");
  settle(Shape::buffered);
  makeFile(2600);
  for (const Shape shape : kShapes) {
    settle(shape);
    play("open");
    playRows("set nextPage 1; readMany <page> <count> <options> -> <outcome>; is nextPage <next>",
             R"(
page | count | options | outcome | next
1 | 524288 | kContiguous | pageOutOfRange | 1
3 | 2500 | 0 | ok lseek 12288 readv 1024 readv 1024 readv 452 | 2503
2 | 1024 | 7 | ok lseek 8192 readv 1024 | 1026
4 | 2 | kContiguous | ok pread 8192@16384 | 6
2599 | 5 | 9 | ok pread 20480@10645504=8192 | 2604
2599 | 5 | 0 | ok lseek 10645504 readv 5 | 2604)");
    play("host ->; close");
  }
}

// The caller learns which pages of the run arrived.
TEST_F(PagesTest, FailedRunsTellHowFarTheyCame) {
  playRows(R"(
    open buffered 2100; fail <fault>; readMany 1 2100 0 -> <outcome>; is lastErrno 0 nextPage <next>
    close)",
           R"(
fault | outcome | next
lseek | ioFailed lseek 4096!EIO | 1
readv number 2 with EINTR | ioFailed lseek 4096 readv 1024 readv 1024!EINTR | 1025
readv number 3 half | ok lseek 4096 readv 1024 readv 1024 readv 52 | 2101)");
}

// The caller's own memory replaces a copy that nobody holds, and leaves a held one as it is.
TEST_F(PagesTest, PageModeWritesAtOnceAndKeepsTheCopy) {
  play(R"(
    open direct 7; read 7 a; write 7:1 a -> ok pwrite 4096@28672; host ->; count getenv 0
    is ownAllocations 0; lists -> free empty empty empty 7
    write 7 a -> notHeld
    read 7:1 -> ok
    writeOwn 7:2; has it 7:1
    write 7:3; writeOwn 7:2; read 7:2 -> ok pread 4096@28672)");
}

// Another buffer's write reaches the held block, and lets it grow by the page after its last; a
// free copy of the block is emptied where it lies.
TEST_F(PagesTest, BlockModeEndsHoldsAndUpdatesBlocks) {
  play(R"(
    open block 7; read 5 a; read 6 b; writeOwn 6:1 -> ok pwrite 4096@24576; has b 6:1
    writeOwn 8:1 -> ok pwrite 4096@32768
    lists -> blocks empty empty heldBlocks 5-8(2 holds) write empty; has a+12288 8:1
    read 8 -> ok
    write 8 -> ok pwrite 4096@32768
    write 6 b -> ok pwrite 4096@24576; lists -> blocks empty empty heldBlocks 5-8 write empty
    write 5 a -> ok pwrite 4096@20480; lists -> blocks empty empty empty write empty
    touch 1; acquire; write 3:5 -> ok pwrite 4096@12288
    lists -> blocks empty empty empty(stale slot 1) write empty; is heldCount 0
    read 3:5 -> ok pread 16384@4096)");
}

// A failed write-back loses all collected pages, and only these: the file is cut back to the page
// before the first of them. A wrong page count shows in the ftruncate and in pageCount.
TEST_F(PagesTest, AFailedWriteBackCutsTheFileBackToThePageBeforeTheCollectedOnes) {
  playRows(R"(
    open block 4; writeOwn 5 6 7; fail pwrite <fault>
    <step> -> <status> pwrite <call> lseek 20480 ftruncate 20480 {report <status>, report <status>}
    is pageCount 4 fileSize 20480 nextPage 5; bytes -> 20480; close)",
           R"(
fault | step | status | call
with EIO | read 5 | ioFailed | 12288@20480!EIO
half | read 6 | noSpace | 12288@20480=6144
with ENOSPC | writeOwn 8 | noSpace | 16384@20480!ENOSPC)");
}

// An address inside the write block ends no hold.
TEST_F(PagesTest, BlockModeRewritesCollectedPagesInPlace) {
  play(R"(
    open block 8; writeOwn 9 10; acquire; write 9:2 -> ok; is heldCount 0
    write 10:2 writeBlock+4096 -> ok
    write 8 writeBlock+4096 -> notHeld
    write 11 writeBlock+4096 -> notHeld
    flush -> ok pwrite 8192@36864 fsync; disk 9:2 10:2
    write 10 writeBlock+4096 -> notHeld
    acquire; write 11 -> ok pwrite 4096@45056)");
}

// The system refuses unaligned memory; the page must reach the file all the same.
TEST_F(PagesTest, UnalignedMemoryBouncesUnderDirectIo) {
  const CallerMemory memory = callerMemory(2LL * kPage);
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    const char* const bounce = shape == Shape::buffered ? "" : "memAlloc:b4096z memFree:b";
    for (const std::int32_t shift : {0, 8, 512}) {
      EXPECT_EQ(did(write(2, memory.get() + shift, kOwn)), "ok pwrite 4096@8192");
      EXPECT_EQ(calls().hostCalls(), shift == 0 ? "" : bounce);
    }
    calls().plan({{Call::memFree, 1, 1, -1, qz::hostForeignBlock}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)), "ok pwrite 4096@8192");
    play("fail nothing; close");
  }
}

// A cached page beyond the new end must not be served after an append in its place.
TEST_F(PagesTest, TruncateForgetsWhatLiesBeyond) {
  play(R"(
    open block 16 4; touch 1 5 9 13; truncate 10
    lists -> blocks empty(stale slot 1) 1-4(stale 1) 5-8(stale 5) 9-10(stale 9) write empty
    read 10 -> ok
    return; truncate 8
    lists -> blocks empty(stale slot 1 2) empty(stale slot 1) 1-4(stale 1) 5-8(stale 5) write empty
    touch 6 -> ok
    close; open buffered 6 3; rewrite 2:1 4:1 6:1; read 6 a; truncate 3; touch 2 -> ok
    writeOwn 4:2 5:2 6:2; read 4:2 -> ok pread 4096@16384; has a 6:1)");
}

}  // namespace
}  // namespace qztest
