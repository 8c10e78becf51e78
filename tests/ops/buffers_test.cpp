// Acquiring, returning, adding and removing buffers.
#include "script.h"

namespace qztest {
namespace {

class BuffersTest : public ScriptTest {};

TEST_F(BuffersTest, PageBuffersMoveBetweenTheirLists) {
  play(R"(
    acquire -> !81E; give null -> !81E; add -1 -> !81E; remove 0 -> !81E
    open direct 9 2; give stray -> !814; give null -> !814; acquire a; give a+1 -> !814; give a; lists -> free 0 0 0
    read 3 b; lists -> free 0 0 held 3; give b; lists -> free 0 0 0
    read 3 -> ok pread 4096@12288; write 3; rewrite 4 5; lists -> free 3 4 5)");
  EXPECT_EQ(named("a"), named("b")) << "emptied buffers are used first";
  // With all buffers caching a page, an acquire takes the one released last; a read, the first.
  play(
      "acquire; lists -> free 3 4 held 0; read 5 -> ok pread 4096@20480; lists -> free 4 held 5 0");
  // Found among several whichever way they were taken: last, first, between.
  play(R"(
    give; add 2; read 7 a; acquire b; acquire c; give b -> ok; give a -> ok; give c -> ok)");
}

TEST_F(BuffersTest, BlocksKeepTheirPagesWhenGivenBack) {
  play(R"(
    open block 9 3; read 1 a; read 2 b; lists -> blocks 0 0 heldBlocks 1-4x2 write 0-0
    give a+77; lists -> blocks 0 0 heldBlocks 1-4/1 write 0-0
    touch 5; give b; lists -> blocks 0 5-8/1 1-4/3 write 0-0
    read 1:0 -> ok pread 4096@4096; read 3:0 c -> ok
    lists -> blocks 0 5-8/1 heldBlocks 1-4x2/2 write 0-0
    give a+16384 -> !814; give c; give a; give wb -> !814)");
  EXPECT_EQ(named("b"), named("a") + kPage);
  EXPECT_EQ(h->blockFreeList.tail->lastPageHandedOut, 3);
}

TEST_F(BuffersTest, BlocksAreChosenEmptyFirstElseReleasedLast) {
  play(R"(
    open block 12 3; touch 1 5 9; lists -> blocks 1-4/1 5-8/1 9-12/1 write 0-0
    acquire a; lists -> blocks 1-4/1 5-8/1 acquired 0/1=16384 write 0-0
    touch 2; read 9 b; lists -> blocks 5-8/1 heldBlocks 9-12 acquired 0/1=16384 write 0-0
    touch 5 -> ok; give a+4096; lists -> blocks 5-8/1 0/3=16384 heldBlocks 9-12 write 0-0
    read 1 c; lists -> blocks 5-8/1 heldBlocks 1-4 9-12 write 0-0
    touch 2 -> ok; give b; give c)");
  EXPECT_EQ(named("c"), named("a")) << "empty, so before the block of page 5";
}

TEST_F(BuffersTest, AcquireMakesABlockWhenNoneIsFree) {
  play(R"(
    open block 4 1; acquire a; set bufferCount 2
    fail memAlloc; acquire -> !80D; fail memAlloc#2; acquire -> !80D
    fail memAlloc#3; acquire -> 80D {4:80D !80D}; is heldCount 1
    fail memAlloc#3 memFree*2!80FFE101; acquire -> 80D {4:80FFE101 4:80FFE101 4:80D !80D}
    fail; acquire b; lists -> acquired 0 0 write 0-0; give b; give a)");
}

TEST_F(BuffersTest, AddedAndRemovedPageBuffers) {
  play(R"(
    open buffered 9 1; add 2; is bufferCount 3 length 2; lists -> free 0 0 0 0
    fail memAlloc#3; add 3 -> !811; is length 1 bufferCount 4; lists -> free 0 0 0 0 0; remove 1
    fail memAlloc#4; add 3 -> !811; is length 1 bufferCount 4; lists -> free 0 0 0 0 0; remove 1
    fail; add 0; is bufferCount 3 length 0; add -1; is bufferCount 3; remove 0; remove -3
    read 9 a; lists -> free 0 0 0 held 9; remove 4 -> !80D; lists -> held 9; is bufferCount 0
    read 1 -> !80D; give a)");
}

TEST_F(BuffersTest, AddedAndRemovedBlocks) {
  play("open block 9 1; add 2; is bufferCount 3 length 2; lists -> blocks 0 0 0 write 0-0");
  playRows("fail memAlloc#%1; add 3 -> %2; is length 1 bufferCount 4; remove 1", R"(
4 | !811
5 | !811
6 | 811 {4:811 !811})");
  play(R"(
    fail; add 0; is bufferCount 3 length 0; add -1; is bufferCount 2; set bufferCount 3
    remove 0; remove -3; lists -> blocks 0 0 0 write 0-0
    read 9 a; remove 4 -> !80D; lists -> heldBlocks 9-9 write 0-0; is bufferCount 1
    read 1 -> !80D; give a)");
}

}  // namespace
}  // namespace qztest
