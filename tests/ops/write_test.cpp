// Writing pages, and cutting the file.
#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;

class WriteTest : public FileTest {
 protected:
  Status writeSized(std::int32_t bytes) {
    request = {1, reinterpret_cast<char*>(this), kOwn, 0, bytes};
    return call(&qz::OperationTable::qzpwrite, &request);
  }
};

TEST_F(WriteTest, ChecksComeInOrder) {
  settle(Shape::buffered);
  EXPECT_EQ(did(writeSized(0)), "81E {!81E}");
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    for (const std::int32_t bytes : {0, -1, kPage - 1, kPage + 1, INT32_MIN}) {
      EXPECT_EQ(did(writeSized(bytes)), "81B {!81B}");
    }
    const std::int64_t size = h->fileSize;
    h->fileSize = kHeader - 1;
    EXPECT_EQ(did(writeOwn(0)), "80C {!80C}");
    EXPECT_EQ(did(writeOwn(INT64_MIN)), "80C {!80C}");
    EXPECT_EQ(did(writeOwn(5)), "815 {!815}");
    EXPECT_EQ(did(writeOwn(3)), "816 {!816}");
    EXPECT_EQ(did(writeOwn(4)), "816 {!816}");
    h->fileSize = size;
    for (const std::uint32_t access : {qz::writeNewPages, qz::noWrite}) {
      h->writeAccess = access;
      EXPECT_EQ(did(write(3, h)), "815 {!815}");
      EXPECT_EQ(did(write(4, h)), "814 {!814}") << "not a module buffer";
    }
    EXPECT_EQ(h->status, Status::notHeld);
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(WriteTest, PageModeWritesAtOnceAndKeepsTheCopy) {
  for (const Shape shape : {Shape::buffered, Shape::direct}) {
    openWith(shape, 7);
    read(7);
    stamp(at, kPage, 7, 1);
    char* const seven = at;
    EXPECT_EQ(did(write(7, at)), "ok pwrite 4096@28672");
    EXPECT_EQ(calls().hostCalls(), "");
    EXPECT_EQ(calls().count(Call::environment), 0);
    EXPECT_EQ(calls().ownAllocations, 0);
    EXPECT_TRUE(h->pageFreeList.tail->data == seven && h->nextPage == 8 && onDisk(7, 1));
    EXPECT_EQ(did(write(7, seven)), "814 {!814}") << "the hold has ended";
    EXPECT_EQ(did(read(7)), "ok");
    giveBack(at);
    acquire();
    stamp(at, kPage, 8, 0);
    EXPECT_EQ(did(write(8, at)), "ok pwrite 4096@32768");
    EXPECT_TRUE(h->pageCount == 8 && h->fileSize == 9 * kPage && h->nextPage == 9);
    // The caller's own memory replaces a copy that nobody holds.
    EXPECT_EQ(did(writeOwn(8, 2)), "ok pwrite 4096@32768");
    EXPECT_EQ(did(read(8)), "ok pread 4096@32768");
    EXPECT_TRUE(holdsPage(8, 2));
    // A held copy is left as it is.
    char* const held = at;
    EXPECT_EQ(did(writeOwn(8, 3)), "ok pwrite 4096@32768");
    EXPECT_TRUE(isStamped(held, kPage, 8, 2));
    EXPECT_EQ(did(write(8, held)), "ok pwrite 4096@32768");
    EXPECT_TRUE(onDisk(8, 2));
    EXPECT_EQ(did(close()), "ok");
  }
}

// No tree entry may be lost or lead to the wrong buffer when a buffer changes its page.
TEST_F(WriteTest, PageModeRekeysBuffers) {
  openWith(Shape::buffered, 5, 4);
  rewrite(2, 1);  // a free copy of page 2
  read(1);
  stamp(at, kPage, 2, 2);
  EXPECT_EQ(did(write(2, at)), "ok pwrite 4096@8192");
  EXPECT_EQ(did(read(2)), "ok");
  EXPECT_TRUE(holdsPage(2, 2));
  char* const two = at;
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096") << "the buffer has left page 1";
  char* const one = at;
  // Page 2 is held elsewhere: that buffer leaves the tree and can still be given back.
  EXPECT_EQ(did(write(2, one)), "ok pwrite 4096@8192");
  EXPECT_EQ(did(read(2)), "ok");
  EXPECT_TRUE(at == one && holdsPage(1, 0));
  EXPECT_EQ(did(giveBack(two)), "ok");
  EXPECT_EQ(did(giveBack(one)), "ok");
  read(3);
  char* const three = at;
  read(4);
  EXPECT_EQ(did(write(3, at)), "ok pwrite 4096@12288");
  EXPECT_EQ(did(write(5, three)), "ok pwrite 4096@20480");
  EXPECT_EQ(did(read(5)), "ok");
  EXPECT_TRUE(holdsPage(3, 0) && at == three);
}

TEST_F(WriteTest, BlockModeCollectsAppendedPages) {
  settle(Shape::block);
  makeFile(0);
  EXPECT_EQ(did(open()), "ok");
  for (const std::int64_t page : {1, 2, 3}) {
    EXPECT_EQ(did(writeOwn(page, 1)), "ok");
    EXPECT_EQ(calls().hostCalls(), "");
  }
  EXPECT_TRUE(h->pageCount == 3 && h->fileSize == kHeader && h->nextPage == 1);
  EXPECT_EQ(did(writeOwn(2, 2)), "ok") << "rewritten where it is collected";
  EXPECT_EQ(h->writeBlock->dirtyPages, 3);
  EXPECT_EQ(did(writeOwn(4, 1)), "ok pwrite 16384@4096");
  EXPECT_TRUE(h->fileSize == 5 * kPage && h->nextPage == 5 && h->pageCount == 4);
  EXPECT_TRUE(onDisk(1, 1) && onDisk(2, 2) && onDisk(3, 1) && onDisk(4, 1));
  EXPECT_EQ(did(writeOwn(5, 1)), "ok");
  EXPECT_EQ(did(flush()), "ok pwrite 4096@20480 fsync");
  for (const std::int64_t page : {6, 7, 8}) {  // none of them begins a block
    EXPECT_EQ(did(writeOwn(page, 1)), "ok pwrite 4096@" + std::to_string(page * kPage));
  }
  EXPECT_EQ(did(writeOwn(9, 1)), "ok");
  EXPECT_EQ(did(writeOwn(4, 3)), "ok pwrite 4096@16384") << "not in the write block";
  EXPECT_EQ(did(close()), "ok pwrite 4096@36864");
  EXPECT_TRUE(onDisk(4, 3) && onDisk(9, 1));
}

TEST_F(WriteTest, BlockModeEndsHoldsAndUpdatesBlocks) {
  openWith(Shape::block, 7);
  read(5);
  char* const five = at;
  read(6);
  qz::BlockRecord* const block = h->blockHeldList.head;
  // Another buffer's write reaches the held block, and lets it grow by the page after its last.
  EXPECT_EQ(did(writeOwn(6, 1)), "ok pwrite 4096@24576");
  EXPECT_TRUE(isStamped(at, kPage, 6, 1));
  EXPECT_EQ(did(writeOwn(8, 1)), "ok pwrite 4096@32768");
  EXPECT_TRUE(block->lastPage == 8 && block->validBytes == 4 * kPage &&
              isStamped(five + 3 * kPage, kPage, 8, 1));
  EXPECT_EQ(did(read(8)), "ok");
  EXPECT_EQ(did(write(8, at)), "ok pwrite 4096@32768");
  EXPECT_EQ(did(write(6, five + kPage)), "ok pwrite 4096@24576");
  EXPECT_EQ(block->holdCount, 1);
  EXPECT_EQ(did(write(5, five)), "ok pwrite 4096@20480");
  EXPECT_TRUE(h->blockFreeList.head == block && block->blockNumber == 0 && block->validBytes == 0);
  // A free copy of the block is emptied where it lies.
  read(1);
  giveBack(at);
  qz::BlockRecord* const copy = h->blockFreeList.tail;
  acquire();
  stamp(at, kPage, 3, 5);
  EXPECT_EQ(did(write(3, at)), "ok pwrite 4096@12288");
  EXPECT_TRUE(h->blockFreeList.tail == copy && copy->blockNumber == 0 && h->heldCount == 0);
  EXPECT_EQ(did(read(3)), "ok pread 16384@4096");
  EXPECT_TRUE(holdsPage(3, 5));
}

// A page's address written as another page leaves foreign bytes in the slot of the first.
TEST_F(WriteTest, BlockModeDistrustsSlotsWrittenAsAnotherPage) {
  openWith(Shape::block, 8);
  read(5);
  read(6);
  stamp(at, kPage, 1, 1);
  EXPECT_EQ(did(write(1, at)), "ok pwrite 4096@4096");
  EXPECT_EQ(did(read(6)), "ok pread 4096@24576");
  EXPECT_TRUE(holdsPage(6, 0));
}

TEST_F(WriteTest, BlockModeRewritesCollectedPagesInPlace) {
  openWith(Shape::block, 8);
  writeOwn(9, 1);
  writeOwn(10, 1);
  acquire();
  stamp(at, kPage, 9, 2);
  EXPECT_EQ(did(write(9, at)), "ok");
  EXPECT_EQ(h->heldCount, 0);
  char* const slot = h->writeBlock->data + kPage;
  stamp(slot, kPage, 10, 2);
  EXPECT_EQ(did(write(10, slot)), "ok") << "an address inside the write block ends no hold";
  EXPECT_EQ(did(write(8, slot)), "814 {!814}");
  EXPECT_EQ(did(write(11, slot)), "814 {!814}");
  EXPECT_EQ(did(flush()), "ok pwrite 8192@36864 fsync");
  EXPECT_TRUE(onDisk(9, 2) && onDisk(10, 2));
  EXPECT_EQ(did(write(10, slot)), "814 {!814}");
  acquire();
  stamp(at, kPage, 11, 0);
  EXPECT_EQ(did(write(11, at)), "ok pwrite 4096@45056");
}

// A page written below a held block after a truncate: both copies of the block are kept right.
TEST_F(WriteTest, BlockModeKeepsEveryCopyRight) {
  openWith(Shape::block, 8);
  read(6);
  char* const six = at;
  EXPECT_EQ(did(truncate(5)), "ok lseek 24576 ftruncate 24576");
  EXPECT_EQ(did(writeOwn(6, 1)), "ok pwrite 4096@24576");
  EXPECT_TRUE(isStamped(six, kPage, 6, 1));
  EXPECT_EQ(did(writeOwn(7, 1)), "ok pwrite 4096@28672");
  EXPECT_EQ(did(read(7)), "ok");
  EXPECT_TRUE(holdsPage(7, 1));
}

TEST_F(WriteTest, UnalignedMemoryBouncesUnderDirectIo) {
  const CallerMemory memory = callerMemory(2 * kPage);
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    const std::string bounce = shape == Shape::buffered ? "" : "memAlloc:b4096z memFree:b";
    for (const std::int32_t shift : {0, 8, 512}) {
      stamp(memory.get() + shift, kPage, 2, static_cast<std::uint32_t>(shift));
      EXPECT_EQ(did(write(2, memory.get() + shift, kOwn)), "ok pwrite 4096@8192");
      EXPECT_EQ(calls().hostCalls(), shift == 0 ? "" : bounce);
      EXPECT_TRUE(onDisk(2, static_cast<std::uint32_t>(shift)));
    }
    calls().plan({{Call::memAlloc}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)),
              bounce.empty() ? "ok pwrite 4096@8192" : "002 {!002}");
    calls().plan({{Call::memFree, 1, 1, -1, 0x80FFE101}});
    EXPECT_EQ(did(write(2, memory.get() + 8, kOwn)), "ok pwrite 4096@8192");
    calls().plan({});
    EXPECT_EQ(did(close()), "ok");
  }
}

struct Failure {
  Fault fault;
  const char* code;
  const char* mark;  // in the trace
  std::int32_t lastErrno;
};
const Failure kFailures[] = {
    {{Call::pwrite, 1, 1, -1, EFBIG}, "80F", "!27", EFBIG},
    {{Call::pwrite, 1, 1, -1, ENOSPC}, "80F", "!28", ENOSPC},
    {{Call::pwrite, 1, 1, -1, EDQUOT}, "80F", "!122", EDQUOT},
    {{Call::pwrite, 1, 1, -1, EINTR}, "808", "!4", EINTR},
    {{Call::pwrite, 1, 1, -1, EIO}, "808", "!5", EIO},
    {{Call::pwrite, 1, 1, 0}, "808", "=0", 0},
    {{Call::pwrite, 1, 1, kShort}, "80F", "=", 0},
};

TEST_F(WriteTest, FailedDirectWritesCutBackAndKeepTheHold) {
  for (const Shape shape : kShapes) {
    for (const Failure& failure : kFailures) {
      openWith(shape, 5);
      acquire();
      char* const held = at;
      stamp(at, kPage, 6, 1);
      h->lastErrno = 0;
      calls().plan({failure.fault});
      const std::string mark = failure.fault.result == kShort ? "=2048" : failure.mark;
      EXPECT_EQ(did(write(6, held)), std::string(failure.code) + " pwrite 4096@24576" + mark +
                                         " lseek 24576 ftruncate 24576 {!" + failure.code + "}");
      EXPECT_TRUE(h->lastErrno == failure.lastErrno && h->heldCount == 1 && h->pageCount == 5);
      EXPECT_EQ(bytesOnDisk(), 6 * kPage);
      EXPECT_EQ(did(write(6, held)), "ok pwrite 4096@24576");
      EXPECT_TRUE(onDisk(6, 1) && h->heldCount == 0);
      EXPECT_EQ(did(close()), "ok");
    }
  }
  openWith(Shape::direct, 5);
  calls().plan({{Call::pwrite, 1, 1, -1, ENOSPC}, {Call::ftruncate}});
  EXPECT_EQ(did(writeOwn(6)), "80F pwrite 4096@24576!28 lseek 24576 ftruncate 24576!5 {!81C !80F}");
  EXPECT_EQ(h->status, Status::noSpace);
}

TEST_F(WriteTest, FailedWriteBacksDropTheCollectedPages) {
  for (const Failure& failure : kFailures) {
    openWith(Shape::block, 4);
    for (const std::int64_t page : {5, 6, 7}) {
      EXPECT_EQ(did(writeOwn(page)), "ok");
    }
    acquire();
    stamp(at, kPage, 8, 0);
    h->lastErrno = 0;
    calls().plan({failure.fault});
    const std::string mark = failure.fault.result == kShort ? "=8192" : failure.mark;
    EXPECT_EQ(did(write(8, at)), std::string(failure.code) + " pwrite 16384@20480" + mark +
                                     " lseek 20480 ftruncate 20480 {!" + failure.code + " !" +
                                     failure.code + "}");
    EXPECT_TRUE(h->heldCount == 0 && h->pageCount == 4 && h->fileSize == 5 * kPage);
    EXPECT_EQ(h->lastErrno, failure.lastErrno);
    EXPECT_EQ(bytesOnDisk(), 5 * kPage);
    EXPECT_EQ(did(writeOwn(5, 1)), "ok");
    EXPECT_EQ(did(close()), "ok pwrite 4096@20480");
    EXPECT_TRUE(onDisk(5, 1));
  }
  // The cut-back of a failed direct write writes the write block first; when that fails too, the
  // file ends before it.
  openWith(Shape::block, 4);
  writeOwn(5, 1);
  calls().plan({{Call::pwrite, 1, 1, -1, EIO}});
  EXPECT_EQ(did(writeOwn(2)),
            "808 pwrite 4096@8192!5 pwrite 4096@20480 lseek 24576 ftruncate 24576 {!808}");
  EXPECT_TRUE(h->pageCount == 5 && onDisk(5, 1) && onDisk(2, 0));
  close();
  openWith(Shape::block, 4);
  writeOwn(5, 1);
  calls().plan({{Call::pwrite, 1, 2, -1, EIO}});
  EXPECT_EQ(did(writeOwn(2)),
            "808 pwrite 4096@8192!5 pwrite 4096@20480!5 lseek 20480 ftruncate 20480 {!808 !808}");
  EXPECT_EQ(h->pageCount, 4);
}

TEST_F(WriteTest, TruncateIsBounded) {
  for (const Shape shape : kShapes) {
    openWith(shape, 3);
    EXPECT_EQ(did(truncate(4)), "80C {!80C}");
    EXPECT_EQ(did(truncate(-1)), "80C {!80C}");
    EXPECT_EQ(did(truncate(3)), "ok lseek 16384 ftruncate 16384");
    for (const Call failing : {Call::lseek, Call::ftruncate}) {
      calls().plan({{failing, 1, 1, -1, EINVAL}});
      EXPECT_EQ(did(truncate(1)), failing == Call::lseek
                                      ? "81C lseek 8192!22 {!81C}"
                                      : "81C lseek 8192 ftruncate 8192!22 {!81C}");
      EXPECT_TRUE(h->pageCount == 3 && h->fileSize == 4 * kPage && h->lastErrno == EINVAL);
    }
    EXPECT_EQ(did(truncate(0)), "ok lseek 4096 ftruncate 4096");
    EXPECT_TRUE(h->pageCount == 0 && h->fileSize == kHeader && h->nextPage == 1);
    EXPECT_EQ(bytesOnDisk(), kHeader);
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(WriteTest, TruncateForgetsWhatLiesBeyond) {
  openWith(Shape::block, 16, 4);
  for (const std::int64_t page : {1, 5, 9, 13}) {
    read(page);
    giveBack(at);
  }
  qz::BlockRecord* const last = h->blockFreeList.tail;
  EXPECT_EQ(truncate(10), Status::ok);
  EXPECT_TRUE(h->blockFreeList.head == last && last->blockNumber == 0 && last->validBytes == 0);
  qz::BlockRecord* const cut = h->blockFreeList.tail;
  EXPECT_TRUE(cut->firstPage == 9 && cut->lastPage == 10 && cut->validBytes == 2 * kPage);
  EXPECT_EQ(did(read(10)), "ok");
  giveBack(at);
  EXPECT_EQ(truncate(8), Status::ok);
  EXPECT_EQ(cut->blockNumber, 0);
  EXPECT_EQ(did(read(6)), "ok");
  giveBack(at);
  EXPECT_EQ(did(close()), "ok");
  openWith(Shape::buffered, 6, 3);
  for (const std::int64_t page : {2, 4, 6}) {
    rewrite(page, 1);
  }
  read(6);
  char* const six = at;
  EXPECT_EQ(truncate(3), Status::ok);
  EXPECT_EQ(did(read(2)), "ok");
  giveBack(at);
  for (const std::int64_t page : {4, 5, 6}) {
    EXPECT_EQ(writeOwn(page, 2), Status::ok);
  }
  EXPECT_EQ(did(read(4)), "ok pread 4096@16384");
  EXPECT_TRUE(holdsPage(4, 2) && isStamped(six, kPage, 6, 1)) << "the caller's hold stays";
}

TEST_F(WriteTest, TruncateCutsOrWritesTheWriteBlock) {
  const struct {
    std::int64_t to;
    const char* result;
  } rows[] = {{4, "ok lseek 20480 ftruncate 20480"},
              {3, "ok lseek 16384 ftruncate 16384"},
              {6, "ok pwrite 8192@20480 lseek 28672 ftruncate 28672"},
              {7, "ok pwrite 12288@20480 lseek 32768 ftruncate 32768"}};
  for (const auto& row : rows) {
    openWith(Shape::block, 4);
    for (const std::int64_t page : {5, 6, 7}) {
      writeOwn(page, 1);
    }
    EXPECT_EQ(did(truncate(row.to)), row.result);
    EXPECT_TRUE(h->writeBlock->firstPage == 0 && h->pageCount == row.to);
    EXPECT_EQ(bytesOnDisk(), (row.to + 1) * kPage);
    EXPECT_EQ(did(close()), "ok");
  }
  openWith(Shape::block, 4);
  for (const std::int64_t page : {5, 6, 7}) {
    writeOwn(page, 1);
  }
  calls().plan({{Call::pwrite, 1, 1, kShort}});
  EXPECT_EQ(did(truncate(6)), "80F pwrite 8192@20480=4096 lseek 20480 ftruncate 20480 {!80F}");
  EXPECT_EQ(h->pageCount, 4);
}

}  // namespace
}  // namespace qztest
