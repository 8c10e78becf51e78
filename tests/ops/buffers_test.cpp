// Acquiring, returning, adding and removing buffers.
#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;

class BuffersTest : public FileTest {};

TEST_F(BuffersTest, RefusedOnAClosedHandle) {
  settle(Shape::buffered);
  void* address = nullptr;
  EXPECT_EQ(did(call(&qz::OperationTable::qzpbufacquire, &address)), "81E {!81E}");
  EXPECT_EQ(did(giveBack(h)), "81E {!81E}");
  EXPECT_EQ(did(add(-1)), "81E {!81E}");
  EXPECT_EQ(did(remove(0)), "81E {!81E}");
  EXPECT_EQ(h->status, Status::notOpen);
}

TEST_F(BuffersTest, HoldsAreLimited) {
  for (const Shape shape : kShapes) {
    openWith(shape, 9, 2);
    EXPECT_EQ(did(acquire()), "ok");
    char* const first = at;
    EXPECT_EQ(read(9), Status::ok);
    char* const second = at;
    EXPECT_EQ(did(acquire()), "80D {!80D}");
    EXPECT_EQ(did(read(1)), "80D {!80D}");
    EXPECT_TRUE(at == nullptr && h->heldCount == 2);
    EXPECT_EQ(did(giveBack(first)), "ok");
    EXPECT_EQ(did(giveBack(first)), "814 {!814}");
    EXPECT_EQ(did(giveBack(second)), "ok");
    EXPECT_EQ(did(giveBack(second)), "814 {!814}") << nameOf(shape);
    EXPECT_EQ(did(giveBack(h)), "814 {!814}");
    EXPECT_EQ(did(giveBack(nullptr)), "814 {!814}");
    EXPECT_EQ(h->heldCount, 0);
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(BuffersTest, PageBuffersMoveBetweenTheirLists) {
  openWith(Shape::direct, 9, 2);
  acquire();
  EXPECT_EQ(h->pageHeldList.head->data, at);
  EXPECT_EQ(did(giveBack(at + 1)), "814 {!814}") << "not the start of the page";
  giveBack(at);
  EXPECT_TRUE(h->pageFreeList.head->data == at && h->pageFreeList.head->pageNumber == 0);
  char* const returned = at;
  read(3);
  EXPECT_EQ(at, returned) << "emptied buffers are used first";
  giveBack(at);
  EXPECT_EQ(did(read(3)), "ok pread 4096@12288") << "a page given back unwritten is forgotten";
  // With all buffers caching a page, an acquire takes the one released last; a read, the first.
  write(3, at);
  rewrite(4, 0);
  rewrite(5, 0);
  acquire();
  EXPECT_EQ(did(read(5)), "ok pread 4096@20480");
  giveBack(at);
  EXPECT_EQ(did(read(4)), "ok");
  giveBack(at);
  // Found among several whichever way they were taken: last, first, between.
  add(2);
  char* addresses[3];
  giveBack(h->pageHeldList.head->data);
  for (char*& address : addresses) {
    acquire();
    address = at;
  }
  EXPECT_EQ(did(giveBack(addresses[1])), "ok");
  EXPECT_EQ(did(giveBack(addresses[0])), "ok");
  EXPECT_EQ(did(giveBack(addresses[2])), "ok");
}

TEST_F(BuffersTest, BlocksKeepTheirPagesWhenGivenBack) {
  openWith(Shape::block, 9, 3);
  read(1);
  char* const one = at;
  read(2);
  char* const two = at;
  EXPECT_EQ(two, one + kPage);
  qz::BlockRecord* const block = h->blockHeldList.head;
  EXPECT_EQ(block->holdCount, 2);
  EXPECT_EQ(block->lastPageHandedOut, 2);
  giveBack(one + 77);  // any byte of the page
  EXPECT_TRUE(h->blockHeldList.head == block && block->holdCount == 1 && *block->staleBits == 1);
  read(5);
  giveBack(at);
  EXPECT_EQ(did(giveBack(two)), "ok");
  EXPECT_TRUE(h->blockFreeList.tail == block && block->blockNumber == 1 && *block->staleBits == 3);
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096");
  EXPECT_TRUE(holdsPage(1, 0) && *block->staleBits == 2);
  EXPECT_EQ(did(read(3)), "ok");
  EXPECT_EQ(did(giveBack(one + 4 * kPage)), "814 {!814}") << "the block ends before";
  EXPECT_EQ(did(giveBack(one + 2 * kPage)), "ok");
  EXPECT_EQ(did(giveBack(one)), "ok");
  EXPECT_EQ(did(giveBack(h->writeBlock->data)), "814 {!814}") << "never handed out";
}

TEST_F(BuffersTest, BlocksAreChosenEmptyFirstElseReleasedLast) {
  openWith(Shape::block, 12, 3);
  for (const std::int64_t page : {1, 5, 9}) {
    read(page);
    giveBack(at);
  }
  acquire();  // takes the block of page 9
  qz::BlockRecord* const acquired = h->blockAcquiredList.head;
  EXPECT_TRUE(acquired->data == at && acquired->holdCount == 1 && acquired->firstPage == 0);
  EXPECT_EQ(did(read(2)), "ok");
  EXPECT_EQ(did(giveBack(at)), "ok");
  EXPECT_EQ(did(read(9)), "ok pread 16384@36864");  // in place of the block of page 1
  char* const nine = at;
  EXPECT_EQ(did(read(5)), "ok pread 4096@20480");
  giveBack(at);
  giveBack(acquired->data + kPage);
  EXPECT_EQ(h->blockFreeList.tail, acquired);
  EXPECT_EQ(did(read(1)), "ok pread 16384@4096");
  char* const one = at;
  EXPECT_EQ(h->blockHeldList.head, acquired) << "empty, so before the block of page 5";
  EXPECT_EQ(did(read(2)), "ok") << "what was stale before is not any more";
  giveBack(at);
  giveBack(nine);
  giveBack(one);
}

TEST_F(BuffersTest, AcquireMakesABlockWhenNoneIsFree) {
  openWith(Shape::block, 4, 1);
  acquire();
  char* const first = at;
  h->bufferCount = 2;
  const char* const journals[] = {"80D {!80D}", "80D {!80D}", "80D {4:80D !80D}"};
  for (int nth = 1; nth <= 3; ++nth) {
    calls().plan({{Call::memAlloc, nth}});
    EXPECT_EQ(did(acquire()), journals[nth - 1]);
    EXPECT_EQ(h->heldCount, 1);
  }
  calls().plan({{Call::memAlloc, 3}, {Call::memFree, 1, 2, -1, 0x80FFE101}});
  EXPECT_EQ(did(acquire()), "80D {4:80FFE101 4:80FFE101 4:80D !80D}");
  calls().plan({});
  EXPECT_EQ(did(acquire()), "ok");
  EXPECT_EQ(h->blocksAllocated, 3);
  EXPECT_EQ(did(giveBack(at)), "ok");
  EXPECT_EQ(did(giveBack(first)), "ok");
}

TEST_F(BuffersTest, AddAndRemove) {
  for (const Shape shape : {Shape::buffered, Shape::block}) {
    const bool block = shape == Shape::block;
    openWith(shape, 9, 1);
    std::int64_t& records = block ? h->blocksAllocated : h->pageBuffersAllocated;
    EXPECT_EQ(did(add(2)), "ok");
    EXPECT_TRUE(h->bufferCount == 3 && records == 4 && length == 2);
    for (int nth = 1; nth <= (block ? 3 : 2); ++nth) {  // the second record's parts
      calls().plan({{Call::memAlloc, (block ? 3 : 2) + nth}});
      EXPECT_EQ(did(add(3)), nth == 3 ? "811 {4:811 !811}" : "811 {!811}");
      EXPECT_TRUE(length == 1 && h->bufferCount == 4 && records == 5) << length;
      EXPECT_EQ(did(remove(1)), "ok");
    }
    calls().plan({});
    EXPECT_EQ(did(add(0)), "ok");
    EXPECT_TRUE(h->bufferCount == 3 && length == 0);
    EXPECT_EQ(did(add(-1)), "ok");
    EXPECT_EQ(h->bufferCount, block ? 2 : 3);
    h->bufferCount = 3;
    EXPECT_EQ(did(remove(0)), "ok");
    EXPECT_EQ(did(remove(-3)), "ok");
    EXPECT_EQ(records, 4);
    read(9);
    char* const nine = at;
    // Page mode has one buffer more than may be held, block mode the write block.
    EXPECT_EQ(did(remove(4)), "80D {!80D}");
    EXPECT_TRUE(records == (block ? 2 : 1) && h->bufferCount == (block ? 1 : 0));
    EXPECT_EQ(did(read(1)), "80D {!80D}");
    EXPECT_EQ(did(giveBack(nine)), "ok");
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(BuffersTest, RemoveGoesOnOrStopsAtAFailedRelease) {
  openWith(Shape::block, 9, 3);
  calls().plan({{Call::memFree, 2, 2, -1, 0x80FFE101}});
  EXPECT_EQ(did(remove(2)), "808 {4:80FFE101 4:80FFE101}");
  EXPECT_TRUE(h->bufferCount == 1 && h->blocksAllocated == 2 && h->status == Status::ioFailed);
  close();
  openWith(Shape::buffered, 9, 3);
  rewrite(7, 1);
  calls().plan({{Call::memFree, 1, 2, -1, 0x80FFE101}});
  EXPECT_EQ(did(remove(2)), "808 {4:80FFE101 4:80FFE101}");
  EXPECT_TRUE(h->bufferCount == 2 && h->pageBuffersAllocated == 3);
  calls().plan({});
  EXPECT_EQ(did(remove(3)), "ok") << "cached pages go as well";
  EXPECT_EQ(did(read(7)), "80D {!80D}");
}

}  // namespace
}  // namespace qztest
