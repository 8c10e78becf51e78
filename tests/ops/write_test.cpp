// Writing pages, and cutting the file.
#include "script.h"

namespace qztest {
namespace {

class WriteTest : public ScriptTest {};

// The caller's own memory replaces a copy that nobody holds, and leaves a held one as it is.
TEST_F(WriteTest, PageModeWritesAtOnceAndKeepsTheCopy) {
  play(R"(
    open direct 7; read 7 a; write 7:1 a -> ok pwrite 4096@28672; host ->; count getenv 0
    is ownAllocations 0; lists -> free 0 0 0 7; write 7 a -> !814; read 7:1 -> ok
    own 7:2; has it 7:1; write 7:3; own 7:2; read 7:2 -> ok pread 4096@28672)");
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

TEST_F(WriteTest, TruncateForgetsWhatLiesBeyond) {
  play(R"(
    open block 16 4; touch 1 5 9 13; truncate 10; lists -> blocks 0/1 1-4/1 5-8/1 9-10/1 write 0-0
    read 10 -> ok; give; truncate 8; lists -> blocks 0/3 0/1 1-4/1 5-8/1 write 0-0; touch 6 -> ok
    close; open buffered 6 3; rewrite 2:1 4:1 6:1; read 6 a; truncate 3; touch 2 -> ok
    own 4:2 5:2 6:2; read 4:2 -> ok pread 4096@16384; has a 6:1)");
}

}  // namespace
}  // namespace qztest
