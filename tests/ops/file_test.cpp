// Header, flush, close, reopen, delete: what concerns the file as a whole.
#include <filesystem>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

class WholeFileTest : public FileTest {
 protected:
  std::string headerOnDisk(std::size_t bytes) const {
    std::string text = outputOfFile();
    text.resize(bytes);
    return text;
  }

 private:
  std::string outputOfFile() const {
    std::string text(static_cast<std::size_t>(bytesOnDisk()), 0);
    FILE* file = std::fopen(path.c_str(), "rb");
    EXPECT_EQ(std::fread(text.data(), 1, text.size(), file), text.size());
    std::fclose(file);
    return text;
  }
};

TEST_F(WholeFileTest, HeaderIsPaddedOrWrittenWhole) {
  const CallerMemory memory = callerMemory(2 * kPage);
  std::fill_n(memory.get(), 2 * kPage, 'x');
  settle(Shape::buffered);
  EXPECT_EQ(did(writeHeader(memory.get(), -1)), "81E {!81E}");
  for (const Shape shape : kShapes) {
    openWith(shape, 2);
    h->nextPage = 9;
    h->lastErrno = 9;
    EXPECT_EQ(did(writeHeader(memory.get(), 10)), "ok pwrite 4096@0");
    EXPECT_EQ(calls().hostCalls(), "memAlloc:b4096z memFree:b");
    EXPECT_TRUE(length == kHeader && h->nextPage == 1 && h->lastErrno == 0 &&
                h->fileSize == 3 * kPage);
    EXPECT_EQ(headerOnDisk(4096), std::string(10, 'x') + std::string(4086, '\0'));
    EXPECT_EQ(did(writeHeader(memory.get(), 0)), "ok pwrite 4096@0");
    EXPECT_EQ(did(writeHeader(memory.get(), 4096)), "ok pwrite 4096@0");
    EXPECT_EQ(calls().hostCalls(), "");
    EXPECT_EQ(did(writeHeader(memory.get(), -1)), "009 {!009}");
    EXPECT_EQ(did(writeHeader(memory.get(), 8192)), "ok pwrite 8192@0");
    EXPECT_EQ(headerOnDisk(8192), std::string(8192, 'x'));
    h->fileSize = kPage;
    EXPECT_EQ(did(writeHeader(memory.get(), 8192)), "ok pwrite 8192@0");
    EXPECT_EQ(h->fileSize, 2 * kPage);
    h->writeAccess = qz::noWrite;
    EXPECT_EQ(did(writeHeader(memory.get(), -1)), "80E {!80E}");
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(WholeFileTest, FailedHeaderWritesTellHowMuchWasStored) {
  const struct {
    Fault fault;
    const char* result;
    std::int32_t length, lastErrno;
  } rows[] = {
      {{Call::pwrite, 1, 1, -1, EFBIG},
       "80F pwrite 4096@0!27 lseek 4096 ftruncate 4096 {!80F}",
       -1,
       27},
      {{Call::pwrite, 1, 1, -1, ENOSPC},
       "80F pwrite 4096@0!28 lseek 4096 ftruncate 4096 {!80F}",
       -1,
       28},
      {{Call::pwrite, 1, 1, -1, EDQUOT},
       "80F pwrite 4096@0!122 lseek 4096 ftruncate 4096 {!80F}",
       -1,
       122},
      {{Call::pwrite, 1, 1, -1, EINTR}, "808 pwrite 4096@0!4 {!808}", -1, 4},
      {{Call::pwrite, 1, 1, 0}, "808 pwrite 4096@0=0 {!808}", 0, 0},
      {{Call::pwrite, 1, 1, kShort}, "80F pwrite 4096@0=2048 {!80F}", 2048, 0},
      {{Call::memAlloc}, "002 {!002}", 0, -1},
      {{Call::memFree, 1, 1, -1, 0x80FFE101}, "ok pwrite 4096@0 {!80FFE101}", 4096, 0},
  };
  for (const auto& row : rows) {
    openWith(Shape::buffered, 2);
    calls().plan({row.fault});
    EXPECT_EQ(did(writeHeader("head", 4)), row.result);
    EXPECT_EQ(length, row.length);
    EXPECT_TRUE(row.lastErrno == -1 || h->lastErrno == row.lastErrno) << h->lastErrno;
    EXPECT_EQ(h->pageCount, row.length == -1 && row.lastErrno != 4 ? 0 : 2);
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(WholeFileTest, FlushWritesBackThenSyncs) {
  const auto fsyncs = [](int nth, int count, std::uint32_t error) {
    return Fault{Call::fsync, nth, count, -1, error};
  };
  const struct {
    std::vector<Fault> faults;
    const char* result;
    std::int32_t lastErrno;
  } rows[] = {
      {{}, "ok pwrite 4096@20480 fsync", 0},
      {{fsyncs(1, 3, EINTR)}, "ok pwrite 4096@20480 fsync!4 fsync!4 fsync!4 fsync", 0},
      {{fsyncs(1, 1, ETIMEDOUT)}, "ok pwrite 4096@20480 fsync!110 fsync", 0},
      {{fsyncs(1, 2, ETIMEDOUT)}, "808 pwrite 4096@20480 fsync!110 fsync!110 {!808}", 110},
      {{fsyncs(1, 1, ETIMEDOUT), fsyncs(2, 1, EINTR), fsyncs(3, 1, ETIMEDOUT)},
       "808 pwrite 4096@20480 fsync!110 fsync!4 fsync!110 {!808}",
       110},
      {{fsyncs(1, 1, EIO)}, "808 pwrite 4096@20480 fsync!5 {!808}", 5},
      {{fsyncs(1, 1, EFBIG)}, "80F pwrite 4096@20480 fsync!27 {!80F}", 27},
      {{fsyncs(1, 1, ENOSPC)}, "80F pwrite 4096@20480 fsync!28 {!80F}", 28},
      {{fsyncs(1, 1, EDQUOT)}, "80F pwrite 4096@20480 fsync!122 {!80F}", 122},
      {{{Call::pwrite}},
       "808 pwrite 4096@20480!5 lseek 20480 ftruncate 20480 fsync {!808 !808}",
       5},
      {{{Call::pwrite}, fsyncs(1, 1, ENOSPC)},
       "80F pwrite 4096@20480!5 lseek 20480 ftruncate 20480 fsync!28 {!808 !80F}",
       28},
  };
  settle(Shape::buffered);
  EXPECT_EQ(did(flush()), "81E {!81E}");
  for (const auto& row : rows) {
    openWith(Shape::block, 4);
    EXPECT_EQ(did(flush()), "ok fsync");
    writeOwn(5);
    h->lastErrno = 0;
    calls().plan(row.faults);
    EXPECT_EQ(did(flush()), row.result);
    EXPECT_EQ(h->lastErrno, row.lastErrno);
    EXPECT_EQ(did(flush()), "ok fsync");
    writeOwn(h->pageCount + 1);
    h->writeAccess = qz::noWrite;
    EXPECT_EQ(did(flush()), "80E {!80E}");
    close();
  }
  openWith(Shape::buffered, 4);
  writeOwn(5);
  EXPECT_EQ(did(flush()), "ok fsync");
}

int guardCalls = 0;

TEST_F(WholeFileTest, CloseReleasesEverything) {
  EXPECT_EQ(did(close()), "81E {!81E}");
  const std::string page = " memFree:b memFree:m";
  const std::string block = " memFree:m memFree:b memFree:m";
  openWith(Shape::direct, 4, 2);
  read(1);
  rewrite(2, 1);
  static qz::PageTree* guarded;
  guarded = h->pageTree;
  qz::TreeGuard guard{};
  guardCalls = 0;
  guard.guardEnter = [](qz::TreeGuard*, qz::Word a1, qz::Word a2) {
    guardCalls += a1 == 1 && a2 == 1 && guarded->anchor.root != nullptr ? 1 : 100;
  };
  guard.guardLeave = [](qz::TreeGuard*) {
    guardCalls += guarded->anchor.root == nullptr ? 10 : 100;
  };
  h->pageTree->guard = &guard;
  h->lastErrno = h->hostErrorDetail1 = h->hostErrorDetail2 = 5;
  EXPECT_EQ(did(close()), "ok");
  EXPECT_EQ(calls().hostCalls(), "fileClose destroy:t" + page + page + page);
  EXPECT_EQ(guardCalls, 11);
  EXPECT_EQ(calls().at(Call::fileClose).flags, 0U);
  EXPECT_TRUE(h->fd == -1 && h->heldCount == 0 && h->lastErrno == 0 && h->hostErrorDetail1 == 0 &&
              h->hostErrorDetail2 == 0 && h->stateFlags == 0 && h->bufferCount == 2);
  openWith(Shape::block, 4, 2);
  read(1);
  acquire();
  writeOwn(5);
  writeOwn(6);
  EXPECT_EQ(did(close()), "ok pwrite 8192@20480");
  EXPECT_EQ(calls().hostCalls(), block.substr(1) + " fileClose" + block + block);
  EXPECT_TRUE(h->fileSize == 7 * kPage && h->firstBlockRead == 0);
  EXPECT_EQ(did(close()), "81E {!81E}");
}

TEST_F(WholeFileTest, CloseRemovesWhatIsAskedOrEmpty) {
  const struct {
    std::int64_t pages, header;
    std::uint32_t write, flags;
    bool kept;
  } rows[] = {{0, 0, qz::rewritePages, 0, false}, {0, 0, qz::writeNewPages, 0, false},
              {0, 0, qz::noWrite, 0, true},       {0, kHeader, qz::rewritePages, 0, true},
              {2, 0, qz::rewritePages, 1, false}, {2, 0, qz::rewritePages, 0xFFFFFFFE, true}};
  for (const Shape shape : kShapes) {
    for (const auto& row : rows) {
      settle(shape);
      makeFile(row.pages, row.header);
      h->headerSize = row.header;
      h->writeAccess = row.write;
      EXPECT_EQ(did(open()), "ok");
      const std::int64_t size = h->fileSize;
      EXPECT_EQ(did(close(row.flags)), "ok");
      EXPECT_EQ(bytesOnDisk() >= 0, row.kept);
      EXPECT_TRUE(h->pageCount == (row.flags == 1 ? 0 : row.pages) && h->fileSize == size);
    }
  }
  settle(Shape::block);  // collected pages count
  makeFile(0, 0);
  h->headerSize = 0;
  EXPECT_EQ(did(open()), "ok");
  writeOwn(1);
  EXPECT_EQ(did(close()), "ok pwrite 4096@0");
  EXPECT_EQ(bytesOnDisk(), kPage);
}

TEST_F(WholeFileTest, CloseFlushesFirstWhereAsked) {
  openWith(Shape::block, 4);
  h->openOptions |= qz::optionFlushAtClose;
  writeOwn(5);
  EXPECT_EQ(did(close()), "ok pwrite 4096@20480 fsync");
  openWith(Shape::block, 4);
  h->openOptions |= qz::optionFlushAtClose;
  read(1);
  writeOwn(5);
  calls().plan({{Call::fsync}});
  EXPECT_EQ(did(close()), "808 pwrite 4096@20480 fsync!5 {!808}");
  EXPECT_TRUE(h->hostFile != nullptr && h->stateFlags == 0 && h->writeBlock == nullptr &&
              h->heldCount == 1);
  EXPECT_EQ(did(read(2)), "81E {!81E}");
  EXPECT_EQ(did(close()), "81E {!81E}");
  EXPECT_EQ(did(open()), "81F {!81F}");
  EXPECT_EQ(did(call(&Table::qzpdelete)), "823");
  h->openOptions &= ~qz::optionFlushAtClose;
  EXPECT_EQ(did(close()), "ok");
  openWith(Shape::buffered, 4);
  h->writeAccess = qz::noWrite;
  h->openOptions |= qz::optionFlushAtClose;
  EXPECT_EQ(did(close()), "80E {!80E}");
  EXPECT_NE(h->hostFile, nullptr);
}

TEST_F(WholeFileTest, CloseKeepsItsFirstFailure) {
  openWith(Shape::block, 4, 2);
  writeOwn(5);
  calls().plan({{Call::pwrite, 1, 1, -1, ENOSPC}, {Call::memFree, 4, 2, -1, 0x80FFE101}});
  // Releases 1 and 3 of the plan are the report's text buffer and the stale bits.
  EXPECT_EQ(did(close()),
            "80F pwrite 4096@20480!28 lseek 20480 ftruncate 20480 {!80F 4:80FFE101 4:80FFE101}");
  EXPECT_EQ(h->hostFile, nullptr);
  for (const Shape shape : kShapes) {
    openWith(shape, 4, 2);
    calls().plan({{Call::memFree, 1, kEveryLater, -1, 0x80FFE101}});
    const Status status = close();
    std::string entries = "4:80FFE101";
    for (int i = 1; i < (shape == Shape::block ? 9 : 6); ++i) entries += " 4:80FFE101";
    EXPECT_EQ(did(status), "808 {" + entries + "}");
    EXPECT_EQ(h->hostFile, nullptr);
  }
  openWith(Shape::direct, 4, 2);
  calls().plan({{Call::fileClose, 1, 1, -1, 0x80FFE00D}, {Call::fileClose, 2, 1, -1, 0x80FFE00C}});
  EXPECT_EQ(did(close()), "809");
  EXPECT_TRUE(h->hostFile != nullptr && h->pageBuffersAllocated == 3 && h->pageTree != nullptr);
  EXPECT_EQ(did(call(&Table::qzpfreememhandle)), "ok {!81F}");
  EXPECT_EQ(did(close()), "808");
  calls().plan({{Call::destroy, 1, 1, -1, 0x80FFE102}});
  EXPECT_EQ(did(close()), "ok") << "the tree's answer is not looked at";
}

TEST_F(WholeFileTest, DeleteRemovesAClosedFile) {
  openWith(Shape::buffered, 2);
  EXPECT_EQ(did(call(&Table::qzpdelete)), "823");
  close();
  h->openOptions = 0x2;
  h->status = Status::busy;
  EXPECT_EQ(did(call(&Table::qzpdelete)), "ok");
  const CallRecord& opened = calls().at(Call::fileOpen);
  EXPECT_TRUE(opened.flags == 2 && opened.offset == 0x25 && opened.target == 0666);
  EXPECT_EQ(calls().at(Call::fileClose).flags, 1U);
  EXPECT_TRUE(h->pageCount == 0 && h->fileSize == 0 && h->status == Status::busy);
  EXPECT_EQ(bytesOnDisk(), -1);
  h->openOptions = 0;
  EXPECT_EQ(did(call(&Table::qzpdelete)), "809 {4:FD4(~)}");
  EXPECT_EQ(calls().at(Call::fileOpen).offset, 5);
  makeFile(1);
  calls().plan({{Call::fileOpen, 1, 1, 0, 0}});  // no file, yet no reason given
  EXPECT_EQ(shortCode(static_cast<std::uint32_t>(call(&Table::qzpdelete))), "809");
  calls().plan({{Call::fileClose, 1, 1, -1, 0x80FFE00D}});
  EXPECT_EQ(did(call(&Table::qzpdelete)), "809");
  EXPECT_NE(h->hostFile, nullptr);
  EXPECT_EQ(did(call(&Table::qzpdelete)), "823");
  EXPECT_EQ(did(close(qz::kRemoveFile)), "ok");
  EXPECT_EQ(bytesOnDisk(), -1);
}

TEST_F(WholeFileTest, ReopenAppliesHints) {
  EXPECT_EQ(did(reopen(1, 1, 0)), "81E {!81E}");
  openWith(Shape::buffered, 4, 2);
  read(2);
  char* const held = at;
  EXPECT_EQ(did(reopen(qz::readSequential, qz::noWrite, 0x2)), "ok");
  EXPECT_EQ(calls().hostCalls(), "fileReopen");
  const CallRecord& record = calls().at(Call::fileReopen);
  EXPECT_TRUE(record.offset == 2 && record.flags == 0) << "34 loses its three upper bits";
  EXPECT_TRUE(h->readAccess == 1 && h->writeAccess == 0 && h->openOptions == 2 &&
              h->heldCount == 1 && h->lastPageRead == 0 && h->nextPage == 1);
  EXPECT_EQ(did(writeOwn(5)), "808 pwrite 4096@20480!9 lseek 20480 ftruncate 20480!22 {!81C !808}");
  EXPECT_EQ(did(giveBack(held)), "ok");
  const std::pair<std::uint32_t, std::int64_t> ownModes[] = {{0x00250200, 1}, {0x00050000, 5}};
  for (const auto& [options, mode] : ownModes) {
    EXPECT_EQ(did(reopen(qz::readOrdered, qz::rewritePages, options)), "ok");
    EXPECT_EQ(calls().at(Call::fileReopen).offset, mode);
  }
  EXPECT_EQ(h->openOptions, 0x00250202U) << "bits are added, never removed";
}

TEST_F(WholeFileTest, ReopenFromPagesToBlocks) {
  for (const Shape shape : {Shape::buffered, Shape::direct}) {
    openWith(shape, 8, 3);
    read(2);
    char* const two = at;
    read(4);
    char* const four = at;
    rewrite(3, 1);
    EXPECT_EQ(did(reopen(Shape::block)), "ok");
    EXPECT_EQ(calls().hostCalls().rfind("fileReopen destroy:t memFree:b memFree:m memFree:b "
                                        "memFree:m memAlloc:",
                                        0),
              0U)
        << calls().hostCalls();
    EXPECT_TRUE(h->pageBuffersAllocated == 2 && h->blocksAllocated == 4 && h->heldCount == 2 &&
                h->pageTree == nullptr);
    stamp(two, kPage, 2, 7);
    EXPECT_EQ(did(write(2, two)), "ok pwrite 4096@8192");
    EXPECT_EQ(did(read(2)), "ok pread 16384@4096");
    EXPECT_TRUE(holdsPage(2, 7));
    EXPECT_EQ(did(giveBack(four)), "ok");
    EXPECT_EQ(calls().hostCalls(), "memFree:b memFree:m memFree:b memFree:m");
    EXPECT_EQ(did(giveBack(four)), "814 {!814}");
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(WholeFileTest, ReopenFromBlocksToPages) {
  openWith(Shape::block, 8, 3);
  read(1);
  char* const one = at;
  read(2);
  char* const two = at;
  acquire();
  char* const acquired = at;
  writeOwn(9, 1);
  EXPECT_EQ(did(reopen(Shape::direct)), "ok pwrite 4096@36864");
  EXPECT_EQ(calls().hostCalls().rfind("fileReopen memFree:m memFree:b memFree:m memFree:m "
                                      "memFree:b memFree:m treeCreate:t memAlloc:",
                                      0),
            0U)
      << calls().hostCalls();
  EXPECT_TRUE(h->blocksAllocated == 2 && h->pageBuffersAllocated == 4 && h->heldCount == 3 &&
              h->writeBlock == nullptr && h->lastBlock == nullptr);
  EXPECT_EQ(did(writeOwn(2, 5)), "ok pwrite 4096@8192");
  EXPECT_TRUE(isStamped(two, kPage, 2, 5)) << "a leftover block is kept right";
  stamp(one, kPage, 1, 3);
  EXPECT_EQ(did(write(1, one)), "ok pwrite 4096@4096");
  EXPECT_EQ(did(giveBack(two)), "ok");
  EXPECT_EQ(calls().hostCalls(), "memFree:m memFree:b memFree:m");
  stamp(acquired, kPage, 10, 1);
  EXPECT_EQ(did(write(10, acquired)), "ok pwrite 4096@40960");
  EXPECT_TRUE(h->heldCount == 0 && listed(h->blockFreeList) == 1);
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096");
  EXPECT_TRUE(holdsPage(1, 3));
  EXPECT_EQ(did(reopen(Shape::block)), "ok");
  EXPECT_TRUE(h->blocksAllocated == 4 && h->writeBlock != nullptr);
  EXPECT_EQ(did(read(10)), "ok pread 16384@36864=8192");
}

TEST_F(WholeFileTest, FailedReopenGoesOnAsBefore) {
  openWith(Shape::block, 8);
  read(1);
  char* const one = at;
  writeOwn(9, 1);
  calls().plan({{Call::pwrite, 1, 1, -1, ENOSPC}});
  EXPECT_EQ(did(reopen(Shape::direct)),
            "80F pwrite 4096@36864!28 lseek 36864 ftruncate 36864 {!80F}");
  EXPECT_EQ(calls().count(Call::fileReopen), 0);
  calls().plan({{Call::fileReopen, 1, 1, EACCES, 0x80FFE007}});
  EXPECT_EQ(did(reopen(Shape::buffered, qz::noWrite)), "826");
  EXPECT_TRUE(h->directIoMode == 3 && h->writeAccess == 2 && h->readAccess == qz::readOrdered &&
              h->lastErrno == EACCES && h->hostErrorDetail1 == 11 && h->hostErrorDetail2 == 22 &&
              h->status == Status::reopenFailed);
  EXPECT_EQ(did(read(2)), "ok");
  qz::HostFile* const file = h->hostFile;
  h->openRetryCount = 2;
  calls().plan({{Call::fileReopen, 1, 2, 0, 0x80FFE00F}});
  EXPECT_EQ(did(reopen(Shape::block)), "ok");
  EXPECT_EQ(calls().hostCalls(), "fileReopen! taskWait:1000 fileReopen! taskWait:1000 fileReopen");
  EXPECT_EQ(h->hostFile, file);
  h->openOptions |= qz::optionDirectIo;
  calls().plan({{Call::fileReopen, 1, 1, EINVAL, 0x80FFE002}});  // direct I/O no longer possible
  EXPECT_EQ(did(reopen(Shape::block)), "ok");
  EXPECT_TRUE(h->directIoMode == 0 && h->pageTree != nullptr);
  EXPECT_EQ(did(giveBack(one)), "ok");
}

// A change of shape that stops half-way: nothing is handed out, everything can be given back.
TEST_F(WholeFileTest, HalfWayReopenServesNothing) {
  for (const Shape from : {Shape::buffered, Shape::block}) {
    const bool toBlocks = from == Shape::buffered;
    const Shape to = toBlocks ? Shape::block : Shape::buffered;
    std::vector<std::pair<Fault, std::string>> rows;
    for (const int nth : {1, 2}) {
      rows.emplace_back(Fault{Call::memFree, nth, 1, -1, 0x80FFE101}, "808 {4:80FFE101}");
      rows.emplace_back(Fault{Call::memAlloc, nth}, "002 {4:002}");
    }
    if (!toBlocks) {
      rows.emplace_back(Fault{Call::treeCreate}, "002 {4:002}");
    }
    for (const auto& [fault, result] : rows) {
      openWith(from, 8, 2);
      read(1);
      char* const held = at;
      calls().plan({fault});
      EXPECT_EQ(did(reopen(to)), result);
      EXPECT_EQ(h->stateFlags, qz::stateOpen);
      EXPECT_EQ((h->directIoMode & qz::blockMode) != 0, toBlocks);
      calls().plan({});
      EXPECT_EQ(did(read(2)), "80D {!80D}");
      EXPECT_EQ(did(writeOwn(9, 1)), "ok pwrite 4096@36864");
      EXPECT_EQ(did(writeOwn(1, 1)), "ok pwrite 4096@4096");
      if (fault.call == Call::memFree && toBlocks) {
        EXPECT_EQ(did(add(1)), "811 {!811}");
        EXPECT_EQ(did(acquire()), "80D {!80D}");
      }
      EXPECT_EQ(did(truncate(8)), "ok lseek 36864 ftruncate 36864");
      EXPECT_EQ(did(giveBack(held)), "ok");
      EXPECT_EQ(did(close()), "ok");
      EXPECT_TRUE(onDisk(1, 1));
    }
  }
}

}  // namespace
}  // namespace qztest
