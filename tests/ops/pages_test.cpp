// Reading pages one by one and in runs, writing them, and truncating the file.
#include "script.h"

namespace qztest {
namespace {

class PagesTest : public ScriptTest {};

// A sequential reader must not skip a page unnoticed. It may go on with the next page or start
// again at its start page, which is page 1 unless set.
TEST_F(PagesTest, SequentialReadersFollowTheOrderOrRestart) {
  playRows(R"(
    settle block; makeFile 5; set readAccess readSequential sequentialStartPage <set>
    open; touch 1 2 3
    read 5 -> readOutOfSequence
    touch <start>; set lastPageRead 5; read 6 -> endOfFile unreported
    close)",
           "set | start\n0 | 1\n3 | 3");
}

// A page that is in memory costs no call, another one exactly one: a page, or a block in block
// mode. A read must ask nothing else of the system, of the host or of its own allocator.
TEST_F(PagesTest, OneTransferForAPageOrABlock) {
  playRows(R"(
    open <shape> 10; read 6:0 -> ok: pread <of page 6>; hostCalls ->; count getenv 0
    is ownAllocations 0 lastPageRead 6 readLength <length> nextPage <next> firstBlockRead <block>
    write 6; read 6 -> ok<6 again>
    read 7 -> ok<of page 7>
    read 10:0 -> ok: pread <of page 10>; is firstBlockRead <block>
    close)",
           R"(
shape | of page 6 | length | next | block | 6 again | of page 7 | of page 10
buffered | 4096 at 24576 | 0 | 1 | 0 |  | : pread 4096 at 28672 | 4096 at 40960
direct | 4096 at 24576 | 0 | 1 | 0 |  | : pread 4096 at 28672 | 4096 at 40960
block | 16384 at 20480 | 4096 | 9 | 2 | : pread 16384 at 20480 |  | 16384 at 36864 moves 8192)");
}

// A page whose read failed must fail again without a call, until its buffer is used for another
// page.
TEST_F(PagesTest, PageModeKeepsFailures) {
  play(R"(
    open direct 3; fail pread; read 2 -> ioFailed: pread 4096 at 8192 fails with EIO
    set lastErrno 77; read 2 -> ioFailed; is lastErrno 77
    lists -> freePages 2(-1 bytes) empty empty empty
    fail nothing; read 1:0 -> ok: pread 4096 at 4096
    read 2:0 -> ok: pread 4096 at 8192)");
}

// A read that comes short must close the file. In page mode the caller learns how many bytes came.
TEST_F(PagesTest, AShortReadClosesTheFile) {
  playRows(R"(
    open <shape> 3; shrink 12388; read 3 -> misfit: pread <call>; is readLength <bytes> fd -1)",
           R"(
shape | call | bytes
direct | 4096 at 12288 moves 100 | 100
block | 16384 at 4096 moves 8292 | 0)");
}

// No page may be written into a file that ends inside its header.
TEST_F(PagesTest, NoPageIsWrittenBeforeTheHeader) {
  playRows(R"(
    open <shape> 2; set fileSize 4095; writeOwn 3:1 -> shorterThanHeader
    set fileSize 12288; close)",
           kShapeRows);
}

// A held block whose page was truncated away must not serve that page once it is appended again.
// With 40 buffers blocks are found by the index.
TEST_F(PagesTest, HeldBlocksEndWhereTheFileWasTruncated) {
  play(R"(
    open block 7 40; read 5 a; truncate 5; writeOwn 6:1 7:1; read 7:1; read 6:1; return a
    truncate 4; writeOwn 5:2; read 5:2)");
}

// A run of pages must take as few calls as the system allows, 1024 pages each unless contiguous,
// and no memory of the host. Of the options only kContiguous counts.
TEST_F(PagesTest, RunsGoStraightToTheCaller) {
  play("read 0 -> notOpen; readMany 1 1 scattered -> notOpen");
  settle(Shape::buffered);
  makeFile(2600);
  for (const Shape shape : kShapes) {
    settle(shape);
    play("open");
    playRows("set nextPage 1; readMany <page> <count> <options> -> <outcome>; is nextPage <next>",
             R"(
page | count | options | outcome | next
1 | 524288 | kContiguous | pageOutOfRange | 1
3 | 2500 | scattered | ok: lseek 12288, readv 1024, readv 1024, readv 452 | 2503
2 | 1024 | scattered+7 | ok: lseek 8192, readv 1024 | 1026
4 | 2 | kContiguous | ok: pread 8192 at 16384 | 6
2599 | 5 | kContiguous+1 | ok: pread 20480 at 10645504 moves 8192 | 2604
2599 | 5 | scattered | ok: lseek 10645504, readv 5 | 2604)");
    play("hostCalls ->; close");
  }
}

// After a failed run nextPage must tell the caller which pages arrived.
TEST_F(PagesTest, FailedRunsTellHowFarTheyCame) {
  playRows(R"(
    open buffered 2100; fail <fault>; readMany 1 2100 scattered -> <outcome>
    is lastErrno 0 nextPage <next>; close)",
           R"(
fault | outcome | next
lseek | ioFailed: lseek 4096 fails with EIO | 1
readv number 2 with EINTR | ioFailed: lseek 4096, readv 1024, readv 1024 fails with EINTR | 1025
readv number 3 half | ok: lseek 4096, readv 1024, readv 1024, readv 52 | 2101)");
}

// In page mode each write goes to the file at once. A written buffer still caches its page; a write
// from the caller's own memory empties a cached copy, or leaves it alone if it is held.
TEST_F(PagesTest, PageModeWritesAtOnceAndKeepsTheCopy) {
  play(R"(
    open direct 7; read 7 a; write 7:1 a -> ok: pwrite 4096 at 28672; hostCalls ->; count getenv 0
    is ownAllocations 0; lists -> freePages empty empty empty 7
    write 7 a -> notHeld
    read 7:1 -> ok
    writeOwn 7:2; has it 7:1
    write 7:3; writeOwn 7:2; read 7:2 -> ok: pread 4096 at 28672)");
}

// In block mode a write must also reach a held block that has the page, or ends just before it. A
// free block that has the page is emptied, as it would serve old bytes.
TEST_F(PagesTest, BlockModeEndsHoldsAndUpdatesBlocks) {
  play(R"(
    open block 7; read 5 a; read 6 b; writeOwn 6:1 -> ok: pwrite 4096 at 24576; has b 6:1
    writeOwn 8:1 -> ok: pwrite 4096 at 32768
    lists -> freeBlocks empty empty heldBlocks 5-8(2 holds) writeBlock empty; has a+12288 8:1
    read 8 -> ok
    write 8 -> ok: pwrite 4096 at 32768
    write 6 b -> ok: pwrite 4096 at 24576; lists -> freeBlocks empty empty heldBlocks 5-8 writeBlock empty
    write 5 a -> ok: pwrite 4096 at 20480; lists -> freeBlocks empty empty empty writeBlock empty
    touch 1; acquire; write 3:5 -> ok: pwrite 4096 at 12288
    lists -> freeBlocks empty empty empty(stale slot 1) writeBlock empty; is heldCount 0
    read 3:5 -> ok: pread 16384 at 4096)");
}

// A failed write-back must lose the collected pages only: the file is cut back to the page before
// the first of them.
TEST_F(PagesTest, AFailedWriteBackCutsTheFileBackToThePageBeforeTheCollectedOnes) {
  playRows(R"(
    open block 4; writeOwn 5 6 7; fail pwrite <fault>
    <step> -> <status>: pwrite <call>, lseek 20480, ftruncate 20480 {report <status>, report <status>}
    is pageCount 4 fileSize 20480 nextPage 5; fileBytes -> 20480; close)",
           R"(
fault | step | status | call
with EIO | read 5 | ioFailed | 12288 at 20480 fails with EIO
half | read 6 | noSpace | 12288 at 20480 moves 6144
with ENOSPC | writeOwn 8 | noSpace | 16384 at 20480 fails with ENOSPC)");
}

// Collected pages are rewritten in memory, also from an address in the write block itself. Such a
// write ends no hold.
TEST_F(PagesTest, BlockModeRewritesCollectedPagesInPlace) {
  play(R"(
    open block 8; writeOwn 9 10; acquire; write 9:2 -> ok; is heldCount 0
    write 10:2 writeBlock+4096 -> ok
    write 8 writeBlock+4096 -> notHeld
    write 11 writeBlock+4096 -> notHeld
    flush -> ok: pwrite 8192 at 36864, fsync; onDisk 9:2 10:2
    write 10 writeBlock+4096 -> notHeld
    acquire; write 11 -> ok: pwrite 4096 at 45056)");
}

// Direct I/O refuses unaligned memory. The page must reach the file all the same, through aligned
// memory that is freed afterwards.
TEST_F(PagesTest, UnalignedMemoryIsCopiedForDirectIo) {
  const CallerMemory memory = callerMemory(2LL * kPage);
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    const char* const copied =
        shape == Shape::buffered ? "" : "memAlloc bufferPool 4096 zeroed, memFree bufferPool";
    for (const std::int32_t shift : {0, 8, 512}) {
      EXPECT_EQ(did(write(2, memory.get() + shift, kOwn)), "ok: pwrite 4096 at 8192");
      EXPECT_EQ(calls().hostCalls(), shift == 0 ? "" : copied);
    }
    calls().plan({{Call::memFree, 1, 1, -1, qz::hostForeignBlock}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)), "ok: pwrite 4096 at 8192");
    play("fail nothing; close");
  }
}

// A cached page beyond the new end must not be served once another is appended in its place.
TEST_F(PagesTest, TruncateEmptiesBuffersBeyondTheNewEnd) {
  play(R"(
    open block 16 4; touch 1 5 9 13; truncate 10
    lists -> freeBlocks empty(stale slot 1) 1-4(stale 1) 5-8(stale 5) 9-10(stale 9) writeBlock empty
    read 10 -> ok
    return; truncate 8
    lists -> freeBlocks empty(stale slot 1 2) empty(stale slot 1) 1-4(stale 1) 5-8(stale 5) writeBlock empty
    touch 6 -> ok)");
  play(R"(
    close; open buffered 6 3; rewrite 2:1 4:1 6:1; read 6 a; truncate 3; touch 2 -> ok
    writeOwn 4:2 5:2 6:2; read 4:2 -> ok: pread 4096 at 16384; has a 6:1)");
}

}  // namespace
}  // namespace qztest
