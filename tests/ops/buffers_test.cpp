// Acquiring, returning, adding and removing buffers.
#include "script.h"

namespace qztest {
namespace {

class BuffersTest : public ScriptTest {};

// A closed file has no buffers.
TEST_F(BuffersTest, ClosedFilesRefuseTheBufferOperations) {
  play(R"(
    acquire -> notOpen
    return null -> notOpen
    add -1 -> notOpen
    remove 0 -> notOpen)");
}

// A buffer that joined the wrong list, or the wrong end of one, would lose a cached page or serve
// an old one.
TEST_F(BuffersTest, PageBuffersMoveBetweenTheirLists) {
  play(R"(
    open direct 9 2; return stray -> notHeld
    return null -> notHeld
    acquire a; return a+1 -> notHeld
    return a; lists -> freePages empty empty empty
    read 3 b; lists -> freePages empty empty heldPages 3
    return b; lists -> freePages empty empty empty
    read 3 -> ok: pread 4096 at 12288
    write 3; rewrite 4 5; lists -> freePages 3 4 5)");
  EXPECT_EQ(named("a"), named("b")) << "emptied buffers are used first";
  // With a page in every buffer, acquire takes the buffer that was returned last, read the first.
  play(R"(
    acquire; lists -> freePages 3 4 heldPages empty
    read 5 -> ok: pread 4096 at 20480; lists -> freePages 4 heldPages 5 empty)");
  // Any of several held buffers can be returned: the last, the first, one between.
  play(R"(
    return; add 2; read 7 a; acquire b; acquire c; return b -> ok
    return a -> ok
    return c -> ok)");
}

// A page that is returned becomes stale, since its holder may have changed it. The block's other
// pages must still come from memory.
TEST_F(BuffersTest, OnlyTheReturnedPageOfABlockBecomesStale) {
  play(R"(
    open block 9 3; read 1 a; read 2 b
    lists -> freeBlocks empty empty heldBlocks 1-4(2 holds) writeBlock empty
    return a+77; lists -> freeBlocks empty empty heldBlocks 1-4(stale 1) writeBlock empty
    touch 5; return b; lists -> freeBlocks empty 5-8(stale 5) 1-4(stale 1 2) writeBlock empty
    read 1:0 -> ok: pread 4096 at 4096
    read 3:0 c -> ok
    lists -> freeBlocks empty 5-8(stale 5) heldBlocks 1-4(2 holds, stale 2) writeBlock empty
    return a+16384 -> notHeld
    return c; return a; return writeBlock -> notHeld)");
  EXPECT_EQ(named("b"), named("a") + kPage);
  EXPECT_EQ(h->blockFreeList.tail->lastPageHandedOut, 3);
}

// A scan must reuse one block, an empty one or else the one returned last, and leave the rest of
// the cache alone.
TEST_F(BuffersTest, BlocksAreChosenEmptyFirstElseReturnedLast) {
  play(R"(
    open block 12 3; touch 1 5 9
    lists -> freeBlocks 1-4(stale 1) 5-8(stale 5) 9-12(stale 9) writeBlock empty
    acquire a
    lists -> freeBlocks 1-4(stale 1) 5-8(stale 5) acquiredBlocks empty(stale slot 1, 16384 bytes) writeBlock empty
    touch 2; read 9 b
    lists -> freeBlocks 5-8(stale 5) heldBlocks 9-12 acquiredBlocks empty(stale slot 1, 16384 bytes) writeBlock empty
    touch 5 -> ok
    return a+4096
    lists -> freeBlocks 5-8(stale 5) empty(stale slot 1 2, 16384 bytes) heldBlocks 9-12 writeBlock empty
    read 1 c; lists -> freeBlocks 5-8(stale 5) heldBlocks 1-4 9-12 writeBlock empty
    touch 2 -> ok
    return b; return c)");
  EXPECT_EQ(named("c"), named("a")) << "empty, so before the block of page 5";
}

// An acquire without a free block makes one, in three allocations. If one of them fails, the handle
// stays as it was and nothing leaks.
TEST_F(BuffersTest, AcquireMakesABlockWhenNoneIsFree) {
  play(R"(
    open block 4 1; acquire a; set bufferCount 2; fail memAlloc; acquire -> noBuffer
    fail memAlloc number 2; acquire -> noBuffer
    fail memAlloc number 3; acquire -> noBuffer {error noBuffer, report noBuffer}; is heldCount 1
    fail memAlloc number 3 and memFree times 2 with hostForeignBlock
    acquire -> noBuffer {error hostForeignBlock, error hostForeignBlock, error noBuffer, report noBuffer}
    fail nothing; acquire b; lists -> acquiredBlocks empty empty writeBlock empty
    return b; return a)");
}

// The caller learns how many buffers an add made, and a remove never frees a held one.
TEST_F(BuffersTest, PageBuffersAreAddedAndRemoved) {
  play(R"(
    open buffered 9 1; add 2; is bufferCount 3 length 2; lists -> freePages empty empty empty empty
    fail memAlloc number 3; add 3 -> buffersMissing; is length 1 bufferCount 4
    lists -> freePages empty empty empty empty empty
    remove 1; fail memAlloc number 4; add 3 -> buffersMissing; is length 1 bufferCount 4
    lists -> freePages empty empty empty empty empty
    remove 1; fail nothing; add 0; is bufferCount 3 length 0
    add -1; is bufferCount 3
    remove 0; remove -3; read 9 a; lists -> freePages empty empty empty heldPages 9
    remove 4 -> noBuffer; lists -> heldPages 9; is bufferCount 0
    read 1 -> noBuffer
    return a)");
}

// The same for blocks. Here an add of a negative count lowers bufferCount.
TEST_F(BuffersTest, BlocksAreAddedAndRemoved) {
  play(R"(
    open block 9 1; add 2; is bufferCount 3 length 2
    lists -> freeBlocks empty empty empty writeBlock empty)");
  playRows("fail memAlloc number <call>; add 3 -> <outcome>; is length 1 bufferCount 4; remove 1",
           R"(
call | outcome
4 | buffersMissing
5 | buffersMissing
6 | buffersMissing {error buffersMissing, report buffersMissing})");
  play(R"(
    fail nothing; add 0; is bufferCount 3 length 0
    add -1; is bufferCount 2
    set bufferCount 3; remove 0; remove -3; lists -> freeBlocks empty empty empty writeBlock empty
    read 9 a; remove 4 -> noBuffer; lists -> heldBlocks 9-9 writeBlock empty; is bufferCount 1
    read 1 -> noBuffer
    return a)");
}

}  // namespace
}  // namespace qztest
