// Writing pages, and cutting the file.
#include "script.h"

namespace qztest {
namespace {

class WriteTest : public ScriptTest {};

TEST_F(WriteTest, ChecksComeInOrder) {
  const auto writeSized = [this](std::int32_t bytes) {
    request = {1, path.data(), kOwn, 0, bytes};
    return call(&qz::OperationTable::qzpwrite, &request);
  };
  EXPECT_EQ(did(writeSized(0)), "81E {!81E}");
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    for (const std::int32_t bytes : {0, -1, kPage - 1, kPage + 1, INT32_MIN}) {
      EXPECT_EQ(did(writeSized(bytes)), "81B {!81B}");
    }
    play(R"(
      set fileSize 4095; own 0 -> !80C; own -9223372036854775808 -> !80C; own 5 -> !815
      own 3 -> !816; own 4 -> !816; set fileSize 16384
      set writeAccess 1; write 3 stray -> !815; write 4 stray -> !814
      set writeAccess 0; write 3 stray -> !815; write 4 stray -> !814; close)");
  }
}

// The caller's own memory replaces a copy that nobody holds, and leaves a held one as it is.
TEST_F(WriteTest, PageModeWritesAtOnceAndKeepsTheCopy) {
  playRows(R"(
    open %1 7; read 7 a; write 7:1 a -> ok pwrite 4096@28672; host ->; count getenv 0
    is ownAllocations 0 nextPage 8; disk 7:1
    lists -> free 0 0 0 7; write 7 a -> !814; read 7 -> ok; give
    acquire; write 8:0 -> ok pwrite 4096@32768; is pageCount 8 fileSize 36864 nextPage 9
    own 8:2 -> ok pwrite 4096@32768; read 8:2 -> ok pread 4096@32768
    own 8:3 -> ok pwrite 4096@32768; has it 8:2; write 8; disk 8:2; close)",
           "buffered\ndirect");
}

// No tree entry may be lost or lead to the wrong buffer when a buffer changes its page.
TEST_F(WriteTest, PageModeRekeysBuffers) {
  play(R"(
    open buffered 5 4; rewrite 2:1; read 1; write 2:2 -> ok pwrite 4096@8192; read 2:2 b -> ok
    read 1 a -> ok pread 4096@4096; lists -> free 0 0 0 held 1 2)");
  // Page 2 is held elsewhere: that buffer leaves the tree and can still be given back.
  play(R"(
    write 2 a -> ok pwrite 4096@8192; lists -> free 0 0 0 2 held 0; read 2 c -> ok; has c 1:0
    give b; give c; read 3 a; read 4 b; write 3 b -> ok pwrite 4096@12288
    write 5 a -> ok pwrite 4096@20480; lists -> free 0 0 0 3 5; read 5 -> ok; has it 3:0)");
}

TEST_F(WriteTest, BlockModeCollectsAppendedPages) {
  play(R"(
    open block 0; own 1:1 -> ok; host ->; own 2 -> ok; host ->; own 3:1 -> ok; host ->
    is pageCount 3 fileSize 4096 nextPage 1; own 2:2 -> ok; lists -> blocks 0 0 0 write 1-3
    own 4:1 -> ok pwrite 16384@4096; is fileSize 20480 nextPage 5 pageCount 4
    disk 1:1 2:2 3:1 4:1; own 5 -> ok; flush -> ok pwrite 4096@20480 fsync
    own 6 -> ok pwrite 4096@24576; own 7 -> ok pwrite 4096@28672; own 8 -> ok pwrite 4096@32768
    own 9:1 -> ok; own 4:3 -> ok pwrite 4096@16384; close -> ok pwrite 4096@36864; disk 4:3 9:1)");
}

// Another buffer's write reaches the held block, and lets it grow by the page after its last; a
// free copy of the block is emptied where it lies.
TEST_F(WriteTest, BlockModeEndsHoldsAndUpdatesBlocks) {
  play(R"(
    open block 7; read 5 a; read 6 b; own 6:1 -> ok pwrite 4096@24576; has b 6:1
    own 8:1 -> ok pwrite 4096@32768; lists -> blocks 0 0 heldBlocks 5-8x2 write 0-0; has a+12288 8:1
    read 8 -> ok; write 8 -> ok pwrite 4096@32768; write 6 b -> ok pwrite 4096@24576
    lists -> blocks 0 0 heldBlocks 5-8 write 0-0; write 5 a -> ok pwrite 4096@20480
    lists -> blocks 0 0 0 write 0-0
    touch 1; acquire; write 3:5 -> ok pwrite 4096@12288; lists -> blocks 0 0 0/1 write 0-0
    is heldCount 0; read 3:5 -> ok pread 16384@4096)");
}

// A page's address written as another page leaves foreign bytes in the slot of the first.
TEST_F(WriteTest, BlockModeDistrustsSlotsWrittenAsAnotherPage) {
  play(R"(
    open block 8; read 5; read 6; write 1:1 -> ok pwrite 4096@4096
    read 6:0 -> ok pread 4096@24576)");
}

// An address inside the write block ends no hold.
TEST_F(WriteTest, BlockModeRewritesCollectedPagesInPlace) {
  play(R"(
    open block 8; own 9 10; acquire; write 9:2 -> ok; is heldCount 0; write 10:2 wb+4096 -> ok
    write 8 wb+4096 -> !814; write 11 wb+4096 -> !814; flush -> ok pwrite 8192@36864 fsync
    disk 9:2 10:2; write 10 wb+4096 -> !814; acquire; write 11 -> ok pwrite 4096@45056)");
}

// A page written below a held block after a truncate: both copies of the block are kept right.
TEST_F(WriteTest, BlockModeKeepsEveryCopyRight) {
  play(R"(
    open block 8; read 6 a; truncate 5 -> ok lseek 24576 ftruncate 24576
    own 6:1 -> ok pwrite 4096@24576; has a 6:1; own 7:1 -> ok pwrite 4096@28672; read 7:1 -> ok)");
}

TEST_F(WriteTest, UnalignedMemoryBouncesUnderDirectIo) {
  const CallerMemory memory = callerMemory(2LL * kPage);
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    const bool bounces = shape != Shape::buffered;
    for (const std::int32_t shift : {0, 8, 512}) {
      stamp(memory.get() + shift, kPage, 2, static_cast<std::uint32_t>(shift));
      EXPECT_EQ(did(write(2, memory.get() + shift, kOwn)), "ok pwrite 4096@8192");
      EXPECT_EQ(calls().hostCalls(), bounces && shift != 0 ? "memAlloc:b4096z memFree:b" : "");
      EXPECT_TRUE(onDisk(2, static_cast<std::uint32_t>(shift)));
    }
    calls().plan({{Call::memAlloc}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)),
              bounces ? "002 {!002}" : "ok pwrite 4096@8192");
    calls().plan({{Call::memFree, 1, 1, -1, 0x80FFE101}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)), "ok pwrite 4096@8192");
    play("fail; close");
  }
}

// Faults, their codes, the errors kept, and how they show on a page and on a block.
const std::string kFailures = R"(
!27 | 80F | 27 | !27 | !27
!28 | 80F | 28 | !28 | !28
!122 | 80F | 122 | !122 | !122
!4 | 808 | 4 | !4 | !4
!5 | 808 | 5 | !5 | !5
=0 | 808 | 0 | =0 | =0
=half | 80F | 0 | =2048 | =8192)";

TEST_F(WriteTest, FailedDirectWritesCutBackAndKeepTheHold) {
  for (const char* const shape : {"buffered", "direct", "block"}) {
    playRows(std::string("open ") + shape + R"( 5; acquire; set lastErrno 0; fail pwrite%1
      write 6:1 -> %2 pwrite 4096@24576%4 lseek 24576 ftruncate 24576 {!%2}
      is lastErrno %3 heldCount 1 pageCount 5; bytes -> 24576
      write 6 -> ok pwrite 4096@24576; disk 6:1; is heldCount 0; close)",
             kFailures);
  }
  play(R"(
    open direct 5; fail pwrite!28 ftruncate
    own 6 -> 80F pwrite 4096@24576!28 lseek 24576 ftruncate 24576!5 {!81C !80F})");
}

// The cut-back of a failed direct write writes the write block first; when that fails too, the
// file ends before it.
TEST_F(WriteTest, FailedWriteBacksDropTheCollectedPages) {
  playRows(R"(
    open block 4; own 5 6 7; acquire; set lastErrno 0; fail pwrite%1
    write 8 -> %2 pwrite 16384@20480%5 lseek 20480 ftruncate 20480 {!%2 !%2}
    is heldCount 0 pageCount 4 fileSize 20480 lastErrno %3; bytes -> 20480
    own 5:1 -> ok; close -> ok pwrite 4096@20480; disk 5:1)",
           kFailures);
  play(R"(
    open block 4; own 5:1; fail pwrite
    own 2 -> 808 pwrite 4096@8192!5 pwrite 4096@20480 lseek 24576 ftruncate 24576 {!808}
    is pageCount 5; disk 5:1 2:0; close
    open block 4; own 5:1; fail pwrite*2
    own 2 -> 808 pwrite 4096@8192!5 pwrite 4096@20480!5 lseek 20480 ftruncate 20480 {!808 !808}
    is pageCount 4)");
}

TEST_F(WriteTest, TruncateIsBounded) {
  playRows(R"(
    open %1 3; truncate 4 -> !80C; truncate -1 -> !80C; truncate 3 -> ok lseek 16384 ftruncate 16384
    fail lseek!22; truncate 1 -> 81C lseek 8192!22 {!81C}; is lastErrno 22; set lastErrno 0
    fail ftruncate!22; truncate 1 -> 81C lseek 8192 ftruncate 8192!22 {!81C}
    is pageCount 3 fileSize 16384 lastErrno 22; truncate 0 -> ok lseek 4096 ftruncate 4096
    is pageCount 0 fileSize 4096 nextPage 1; bytes -> 4096; close)",
           kShapeRows);
}

TEST_F(WriteTest, TruncateForgetsWhatLiesBeyond) {
  play(R"(
    open block 16 4; touch 1 5 9 13; truncate 10; lists -> blocks 0/1 1-4/1 5-8/1 9-10/1 write 0-0
    read 10 -> ok; give; truncate 8; lists -> blocks 0/3 0/1 1-4/1 5-8/1 write 0-0; touch 6 -> ok
    close; open buffered 6 3; rewrite 2:1 4:1 6:1; read 6 a; truncate 3; touch 2 -> ok
    own 4:2 5:2 6:2; read 4:2 -> ok pread 4096@16384; has a 6:1)");
}

TEST_F(WriteTest, TruncateCutsOrWritesTheWriteBlock) {
  playRows(R"(
    open block 4; own 5 6 7; truncate %1 -> ok%3 lseek %2 ftruncate %2; is pageCount %1
    bytes -> %2; lists -> blocks 0 0 0 write 0-0; close)",
           R"(
4 | 20480
3 | 16384
6 | 28672 |  pwrite 8192@20480
7 | 32768 |  pwrite 12288@20480)");
  play(R"(
    open block 4; own 5 6 7; fail pwrite=half
    truncate 6 -> 80F pwrite 8192@20480=4096 lseek 20480 ftruncate 20480 {!80F}; is pageCount 4)");
}

}  // namespace
}  // namespace qztest
