// Writing pages, and cutting the file.
#include "script.h"

namespace qztest {
namespace {

class WriteTest : public ScriptTest {};

TEST_F(WriteTest, ChecksComeInOrder) {
  playRows(R"(
    open %1 3; set fileSize 4095; own 0 -> !80C; own 5 -> !815; own 3 -> !816; own 4 -> !816
    set fileSize 16384 writeAccess 1; write 3 stray -> !815; write 4 stray -> !814; close)",
           kShapeRows);
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

// An address inside the write block ends no hold.
TEST_F(WriteTest, BlockModeRewritesCollectedPagesInPlace) {
  play(R"(
    open block 8; own 9 10; acquire; write 9:2 -> ok; is heldCount 0; write 10:2 wb+4096 -> ok
    write 8 wb+4096 -> !814; write 11 wb+4096 -> !814; flush -> ok pwrite 8192@36864 fsync
    disk 9:2 10:2; write 10 wb+4096 -> !814; acquire; write 11 -> ok pwrite 4096@45056)");
}

TEST_F(WriteTest, UnalignedMemoryBouncesUnderDirectIo) {
  const CallerMemory memory = callerMemory(2LL * kPage);
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    const char* const bounce = shape == Shape::buffered ? "" : "memAlloc:b4096z memFree:b";
    for (const std::int32_t shift : {0, 8, 512}) {
      EXPECT_EQ(did(write(2, memory.get() + shift, kOwn)), "ok pwrite 4096@8192");
      EXPECT_EQ(calls().hostCalls(), shift == 0 ? "" : bounce);
    }
    calls().plan({{Call::memFree, 1, 1, -1, 0x80FFE101}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)), "ok pwrite 4096@8192");
    play("fail; close");
  }
}

TEST_F(WriteTest, FailedDirectWritesCutBackAndKeepTheHold) {
  play(R"(
    open direct 5; acquire; fail pwrite=half ftruncate
    write 6:1 -> 80F pwrite 4096@24576=2048 lseek 24576 ftruncate 24576!5 {!81C !80F}
    write 6 -> ok pwrite 4096@24576; disk 6:1; is heldCount 0)");
}

// The cut-back of a failed direct write writes the write block first; when that fails too, the
// file ends before it.
TEST_F(WriteTest, FailedWriteBacksDropTheCollectedPages) {
  play(R"(
    open block 4; own 5 6 7; acquire; fail pwrite=half
    write 8 -> 80F pwrite 16384@20480=8192 lseek 20480 ftruncate 20480 {!80F !80F}
    is heldCount 0; close
    open block 4; own 5:1; fail pwrite
    own 2 -> 808 pwrite 4096@8192!5 pwrite 4096@20480 lseek 24576 ftruncate 24576 {!808}; close
    open block 4; own 5:1; fail pwrite*2
    own 2 -> 808 pwrite 4096@8192!5 pwrite 4096@20480!5 lseek 20480 ftruncate 20480 {!808 !808})");
}

TEST_F(WriteTest, TruncateForgetsWhatLiesBeyond) {
  play(R"(
    open block 16 4; touch 1 5 9 13; truncate 10; lists -> blocks 0/1 1-4/1 5-8/1 9-10/1 write 0-0
    read 10 -> ok; give; truncate 8; lists -> blocks 0/3 0/1 1-4/1 5-8/1 write 0-0; touch 6 -> ok
    close; open buffered 6 3; rewrite 2:1 4:1 6:1; read 6 a; truncate 3; touch 2 -> ok
    own 4:2 5:2 6:2; read 4:2 -> ok pread 4096@16384; has a 6:1)");
}

}  // namespace
}  // namespace qztest
