// Acquiring, returning, adding and removing buffers.
#include "script.h"

namespace qztest {
namespace {

class BuffersTest : public ScriptTest {};

// A cached page would be lost, or an old one served, if a buffer joined the wrong list or end.
TEST_F(BuffersTest, PageBuffersMoveBetweenTheirLists) {
  play(R"(
    acquire -> notOpen
    return null -> notOpen
    add -1 -> notOpen
    remove 0 -> notOpen
    open direct 9 2; return stray -> notHeld
    return null -> notHeld
    acquire a; return a+1 -> notHeld
    return a; lists -> free empty empty empty
    read 3 b; lists -> free empty empty held 3
    return b; lists -> free empty empty empty
    read 3 -> ok pread 4096@12288
    write 3; rewrite 4 5; lists -> free 3 4 5)");
  EXPECT_EQ(named("a"), named("b")) << "emptied buffers are used first";
  // With all buffers caching a page, an acquire takes the one released last; a read, the first.
  play(R"(
    acquire; lists -> free 3 4 held empty
    read 5 -> ok pread 4096@20480; lists -> free 4 held 5 empty)");
  // Found among several whichever way they were taken: last, first, between.
  play(R"(
    return; add 2; read 7 a; acquire b; acquire c; return b -> ok
    return a -> ok
    return c -> ok)");
}

// Only the page that was returned becomes stale: the block's other pages are served from memory.
TEST_F(BuffersTest, BlocksKeepTheirPagesWhenReturned) {
  play(R"(
    open block 9 3; read 1 a; read 2 b
    lists -> blocks empty empty heldBlocks 1-4(2 holds) write empty
    return a+77; lists -> blocks empty empty heldBlocks 1-4(stale 1) write empty
    touch 5; return b; lists -> blocks empty 5-8(stale 5) 1-4(stale 1 2) write empty
    read 1:0 -> ok pread 4096@4096
    read 3:0 c -> ok
    lists -> blocks empty 5-8(stale 5) heldBlocks 1-4(2 holds, stale 2) write empty
    return a+16384 -> notHeld
    return c; return a; return writeBlock -> notHeld)");
  EXPECT_EQ(named("b"), named("a") + kPage);
  EXPECT_EQ(h->blockFreeList.tail->lastPageHandedOut, 3);
}

// A scan must reuse one block and leave the rest of the cache in place.
TEST_F(BuffersTest, BlocksAreChosenEmptyFirstElseReleasedLast) {
  play(R"(
    open block 12 3; touch 1 5 9
    lists -> blocks 1-4(stale 1) 5-8(stale 5) 9-12(stale 9) write empty
    acquire a
    lists -> blocks 1-4(stale 1) 5-8(stale 5) acquired empty(stale slot 1, 16384 bytes) write empty
    touch 2; read 9 b
    lists -> blocks 5-8(stale 5) heldBlocks 9-12 acquired empty(stale slot 1, 16384 bytes) write empty
    touch 5 -> ok
    return a+4096
    lists -> blocks 5-8(stale 5) empty(stale slot 1 2, 16384 bytes) heldBlocks 9-12 write empty
    read 1 c; lists -> blocks 5-8(stale 5) heldBlocks 1-4 9-12 write empty
    touch 2 -> ok
    return b; return c)");
  EXPECT_EQ(named("c"), named("a")) << "empty, so before the block of page 5";
}

// No memory at any step leaves the handle as it was, with nothing leaked.
TEST_F(BuffersTest, AcquireMakesABlockWhenNoneIsFree) {
  play(R"(
    open block 4 1; acquire a; set bufferCount 2; fail memAlloc; acquire -> noBuffer
    fail memAlloc number 2; acquire -> noBuffer
    fail memAlloc number 3; acquire -> noBuffer {error noBuffer, report noBuffer}; is heldCount 1
    fail memAlloc number 3 and memFree times 2 with hostForeignBlock
    acquire -> noBuffer {error hostForeignBlock, error hostForeignBlock, error noBuffer, report noBuffer}
    fail nothing; acquire b; lists -> acquired empty empty write empty
    return b; return a)");
}

// The caller learns how many buffers were made, and held ones are never freed.
TEST_F(BuffersTest, AddedAndRemovedPageBuffers) {
  play(R"(
    open buffered 9 1; add 2; is bufferCount 3 length 2; lists -> free empty empty empty empty
    fail memAlloc number 3; add 3 -> buffersMissing; is length 1 bufferCount 4
    lists -> free empty empty empty empty empty
    remove 1; fail memAlloc number 4; add 3 -> buffersMissing; is length 1 bufferCount 4
    lists -> free empty empty empty empty empty
    remove 1; fail nothing; add 0; is bufferCount 3 length 0
    add -1; is bufferCount 3
    remove 0; remove -3; read 9 a; lists -> free empty empty empty held 9
    remove 4 -> noBuffer; lists -> held 9; is bufferCount 0
    read 1 -> noBuffer
    return a)");
}

// The same for blocks, whose limit goes down with a negative count.
TEST_F(BuffersTest, AddedAndRemovedBlocks) {
  play(R"(
    open block 9 1; add 2; is bufferCount 3 length 2
    lists -> blocks empty empty empty write empty)");
  playRows("fail memAlloc number <call>; add 3 -> <outcome>; is length 1 bufferCount 4; remove 1",
           R"(
call | outcome
4 | buffersMissing
5 | buffersMissing
6 | buffersMissing {error buffersMissing, report buffersMissing})");
  play(R"(
    fail nothing; add 0; is bufferCount 3 length 0
    add -1; is bufferCount 2
    set bufferCount 3; remove 0; remove -3; lists -> blocks empty empty empty write empty
    read 9 a; remove 4 -> noBuffer; lists -> heldBlocks 9-9 write empty; is bufferCount 1
    read 1 -> noBuffer
    return a)");
}

}  // namespace
}  // namespace qztest
