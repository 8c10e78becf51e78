// Open: the physical open, the geometry, the buffers.
#include <fcntl.h>

#include <climits>
#include <filesystem>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

class OpenTest : public FileTest {};

// A switch of the environment for the time of a test.
class Displayed {
 public:
  Displayed() { setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1); }
  ~Displayed() { unsetenv("QZIOP_DISPLAY_IOP_TYPE"); }
  Displayed(const Displayed&) = delete;
  Displayed& operator=(const Displayed&) = delete;
};

TEST_F(OpenTest, HintsBecomeFlagsAndAccessMode) {
  const struct {
    std::uint32_t read, write, options, mode;
    std::int32_t support;
    std::uint32_t flags;
    std::int64_t access;
    std::uint32_t ioMode;
  } rows[] = {
      {1, 0, 0, 0, 0x10000, 0, 10, 0},
      {0, 0, 0, 1, 0x10000, 0, 10, 0},
      {0, 1, 0, 1, 0x10000, 1, 5, 0},
      {4, 2, 0, 1, 0x10000, 2, 5, 0},
      {4, 9, 0, 2, 0x10000, 0x42, 5, 0},
      {1, 0, 0x2, 1, 0x10000, 0, 34, 0},
      {1, 1, 0x2, 1, 0x10000, 2, 33, 0},
      {1, 0, 0x00050000, 1, 0x10000, 0, 5, 0},
      {1, 0, 0x80210002, 1, 0x10000, 0, 0x8021, 0},
      {1, 0, 0x04000000, 1, 0x10000, 0, 10, 0},  // not one of the bits that choose
      {2, 2, 0x100, 1, 0x10000, 0x4002, 5, 1},
      {8, 0, 0x100, 1, 1, 0x4000, 10, 1},
      {1, 2, 0x100, 1, 0x10000, 0x4002, 5, 3},
      {0, 1, 0x100, 2, 0x10000, 0x4041, 5, 3},
      {2, 2, 0x100, 1, -2, 2, 5, 0},
      {2, 2, 0x100, 1, 0, 2, 5, 0},
  };
  for (const auto& row : rows) {
    h->readAccess = row.read;
    h->writeAccess = row.write;
    h->openOptions = row.options;
    h->openMode = row.mode;
    h->directIoSupport = row.support;
    h->pageCount = h->fileSize = 9;
    calls().plan({{Call::fileOpen, 1, 1, ENOENT, 0x80FFE006}});
    EXPECT_EQ(did(open()), "801");
    EXPECT_EQ(calls().at(Call::fileOpen).flags, row.flags) << &row - rows;
    EXPECT_EQ(calls().at(Call::fileOpen).offset, row.access) << &row - rows;
    EXPECT_EQ(h->directIoMode, row.ioMode) << &row - rows;
    EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 &&
                calls().at(Call::fileOpen).length == 1);
    EXPECT_TRUE(h->pageCount == (row.mode == 2 ? 0 : 9) && h->fileSize == h->pageCount);
  }
}

TEST_F(OpenTest, HostStatusesAreMapped) {
  const char* const codes[] = {"808", "002", "808", "808", "808", "808", "801", "802",
                               "808", "803", "805", "806", "808", "809", "810", "807",
                               "807", "807", "807", "807", "808", "820", "808"};
  settle(Shape::buffered);
  for (std::uint32_t i = 0; i < std::size(codes); ++i) {
    calls().plan({{Call::fileOpen, 1, 1, static_cast<int>(i) + 200, 0x80FFE000 + i}});
    EXPECT_EQ(did(open()), codes[i]) << i;
    EXPECT_EQ(h->lastErrno, static_cast<int>(i) + 200);
    EXPECT_TRUE(h->hostErrorDetail1 == 11 && h->hostErrorDetail2 == 22 && h->fd == -1);
  }
  calls().plan({{Call::fileOpen, 1, 1, 0, 1}});
  EXPECT_EQ(did(open()), "808");
  calls().plan({{Call::fileOpen, 1, 1, 0, 0}});
  EXPECT_EQ(did(open()), "808") << "no file, yet no reason given";
  calls().plan({});
  std::filesystem::create_directory(path);
  EXPECT_EQ(did(open()), "803");
  EXPECT_EQ(did(call(&Table::qzpdelete)), "809 {4:FD4(~)}");
  setName(path + "/none/file");
  EXPECT_EQ(did(open()), "801");
}

TEST_F(OpenTest, DirectIoFallsBackToBuffered) {
  makeFile(2);
  for (const Shape shape : {Shape::direct, Shape::block}) {
    settle(shape);
    calls().plan({{Call::fileOpen, 1, 1, EINVAL, 0x80FFE002}});
    EXPECT_EQ(did(open()), "ok");
    EXPECT_TRUE(calls().at(Call::fileOpen).flags == 0x4002 &&
                calls().at(Call::fileOpen, 1).flags == 2 && h->directIoMode == 0);
    EXPECT_EQ(did(read(2)), "ok pread 4096@8192");
    EXPECT_EQ(did(close()), "ok");
    calls().plan({{Call::fileOpen, 1, 2, EINVAL, 0x80FFE002}});
    EXPECT_EQ(did(open()), "808");
    EXPECT_EQ(calls().count(Call::fileOpen), 2);
    // Other reasons do not count, nor does EINVAL where direct I/O was not asked for.
    calls().plan({{Call::fileOpen, 1, 1, EIO, 0x80FFE002}});
    EXPECT_EQ(did(open()), "808");
  }
  settle(Shape::buffered);
  calls().plan({{Call::fileOpen, 1, 1, EINVAL, 0x80FFE002}});
  EXPECT_EQ(did(open()), "808");
}

TEST_F(OpenTest, BusyFilesAreWaitedFor) {
  const struct {
    std::int32_t retries;
    int busyCalls;
    std::uint32_t status;
    const char* result;
    int waits;
  } rows[] = {{3, 2, 0x80FFE00F, "ok", 2},    {3, 99, 0x80FFE011, "807", 3},
              {1, 1, 0x80FFE013, "ok", 1},    {0, 99, 0x80FFE00F, "807", 0},
              {-1, 99, 0x80FFE00F, "807", 0}, {3, 99, 0x80FFE010, "807", 0},
              {3, 99, 0x80FFE012, "807", 0},  {3, 99, 0x80FFE006, "801", 0}};
  makeFile(2);
  for (const auto& row : rows) {
    settle(Shape::direct);
    h->openRetryCount = row.retries;
    calls().plan({{Call::fileOpen, 1, row.busyCalls, EAGAIN, row.status}});
    EXPECT_EQ(did(open()), row.result);
    std::string wanted = row.busyCalls > 0 ? "fileOpen!" : "fileOpen";
    for (int i = 1; i <= row.waits; ++i)
      wanted += i < row.busyCalls ? " taskWait:1000 fileOpen!" : " taskWait:1000 fileOpen";
    EXPECT_EQ(calls().hostCalls().substr(0, wanted.size()), wanted);
    EXPECT_EQ(calls().count(Call::taskWait), row.waits);
    if (h->hostFile != nullptr) {
      EXPECT_EQ(did(close()), "ok");
    }
  }
  // The wait ends with the first answer that is not busy; without a host handle there is none.
  h->openRetryCount = 5;
  calls().plan({{Call::fileOpen, 1, 2, 0, 0x80FFE011}, {Call::fileOpen, 3, 1, 0, 0x80FFE007}});
  EXPECT_EQ(did(open()), "802");
  calls().plan({{Call::fileOpen, 1, 2, 0, 0x80FFE011}});
  Library::get().qzextent(nullptr);
  EXPECT_EQ(did(open()), "807");
  Library::get().qzextent(host.handle());
}

TEST_F(OpenTest, NotesTellTheIoType) {
  const Displayed displayed;
  makeFile(2);
  const std::string page =
      "2:821(Read Access: Read Random|~) 2:821(Write Access: Rewrite Pages|~) ";
  const struct {
    std::int32_t support;
    std::uint32_t options, read, write;
    std::string journal;
  } rows[] = {
      {1, 0x100, 8, 0,
       "2:Trying Direct IO with small buffers since read access is random or is "
       "many-at-a-time: ~ 2:821(Read Access: Read Many|~) 2:821(Write Access: No Write|~) "
       "2:821(DIRECT IO|~)"},
      {1, 0, 2, 2,
       "2:Direct IO not being performed because the application did not tell us to use Direct "
       "IO: ~ " +
           page + "2:821(VANILLA|~)"},
      {-2, 0x100, 2, 2,
       "2:Direct IO not being performed because the filesystem type is not appropriate: ~ " + page +
           "2:821(VANILLA|~)"},
      {0, 0, 2, 2,
       "2:Direct IO not being performed because we were not told to use Direct IO: ~ " + page +
           "2:821(VANILLA|~)"},
      {1, 0x100, 1, 1,
       "2:821(Read Access: Read Sequential|~) 2:821(Write Access: Write New Pages|~) "
       "2:821(LARGE DIRECT IO|~) "
       "2:Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384"},
      {1, 0x100, 16, 7,
       "2:821(Read Access: Read Hint|~) 2:821(LARGE DIRECT IO|~) "
       "2:Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384"},
      {1, 0x100, 4, 0,
       "2:821(Read Access: Read Ordered|~) 2:821(Write Access: No Write|~) "
       "2:821(LARGE DIRECT IO|~) "
       "2:Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384"},
      {1, 0x100, 0, 1,
       "2:821(Read Access: No Read|~) 2:821(Write Access: Write New Pages|~) "
       "2:821(LARGE DIRECT IO|~) "
       "2:Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384"},
  };
  for (const bool withJournal : {true, false}) {  // else the host's default journal
    journal = withJournal ? &recorder : nullptr;
    for (const auto& row : rows) {
      settle(Shape::buffered);
      h->directIoSupport = row.support;
      h->openOptions = row.options;
      h->readAccess = row.read;
      h->writeAccess = row.write;
      EXPECT_EQ(did(open()), "ok {" + row.journal + "}");
      EXPECT_EQ(did(close()), "ok");
    }
  }
  journal = &recorder;
  settle(Shape::block);
  h->directIoSupport = qz::directIoFit;
  h->requestedBlockBytes = 0;
  calls().plan({{Call::fileOpen, 1, 1, EINVAL, 0x80FFE002}});
  EXPECT_EQ(did(open()),
            "ok {2:Direct IO not being performed because the open failed for Direct IO: ~ "
            "2:821(Read Access: Read Ordered|~) 2:821(Write Access: Rewrite Pages|~) "
            "2:821(VANILLA|~)}");
}

TEST_F(OpenTest, BufferCountIsChosenWhereNotGiven) {
  const struct {
    std::int32_t given;
    std::uint32_t read, write, options;
    std::int32_t chosen;
  } rows[] = {{0, 1, 0, 0, 1},    {-5, 16, 0, 0x10, 1}, {0, 0, 2, 0x10, 1}, {0, 0, 1, 0, 1},
              {0, 0, 1, 0x10, 0}, {0, 0, 0, 0, 0},      {7, 0, 0, 0, 7},    {-5, 0, 0, 0, -5}};
  for (const std::uint32_t direct : {0U, 0x100U}) {
    for (const auto& row : rows) {
      settle(Shape::buffered, row.given);
      makeFile(2);
      h->readAccess = row.read;
      h->writeAccess = row.write;
      h->openOptions = row.options | direct;
      h->sequentialStartPage = 0;
      EXPECT_EQ(did(open()), "ok");
      EXPECT_EQ(h->bufferCount, row.chosen);
      EXPECT_EQ(h->sequentialStartPage, 1);
      const bool block = (h->directIoMode & qz::blockMode) != 0;
      const std::int64_t made = std::max(row.chosen + 1, 0);
      EXPECT_EQ(block ? h->blocksAllocated : h->pageBuffersAllocated, made);
      EXPECT_EQ(h->writeBlock != nullptr, block && made > 0);
      if (row.chosen < 0) {
        EXPECT_EQ(did(read(1)), "80D {!80D}");
        EXPECT_EQ(did(acquire()), "80D {!80D}");
      }
      EXPECT_EQ(did(close()), "ok");
    }
  }
}

TEST_F(OpenTest, GeometryIsSettledOrRefused) {
  const struct {
    std::int64_t fileBytes, header;
    std::int32_t pageSize;
    std::int64_t pages, size;  // as given
    const char* result;
    std::int32_t settledPage;
    std::int64_t settledPages;
  } rows[] = {
      {10000, 0, 0, 0, 0, "818 {!818}", 4096, 3},
      {10000, 0, 1000, 0, 0, "ok", 1000, 10},
      {2048, 0, 0, 0, 0, "ok", 512, 4},
      {4096, 0, 0, 0, 0, "ok", 512, 8},
      {4097, 1, 0, 0, 0, "ok", 4096, 1},
      {0, 100, 0, 0, 0, "818 {!818}", 512, 1},
      {100, 700, 512, 0, 0, "818 {!818}", 512, 1},   // fraction of a page below the header
      {100, 2000, 512, 0, 0, "818 {!818}", 512, 1},  // less than no pages
      {88, 600, 512, 0, 0, "818 {!818}", 512, 1},    // a whole page less
      {100, 100, 512, 0, 0, "ok", 512, 0},
      {8192, 4096, 4096, 2, 0, "818 {!818}", 4096, 3},
      {8192, 4096, 4096, 2, 12288, "ok", 4096, 2},  // the caller's word is taken
      {8192, 0, 4096, INT64_MAX, 0, "818 {!818}", 4096, -1},
  };
  for (const auto& row : rows) {
    for (const std::uint32_t mode : {qz::openOrRemove, qz::openOrKeep}) {
      settle(Shape::buffered);
      makeFile(0, row.fileBytes);
      h->openMode = mode;
      h->headerSize = row.header;
      h->pageSize = row.pageSize;
      h->pageCount = row.pages;
      h->fileSize = row.size;
      EXPECT_EQ(did(open()), row.result) << &row - rows;
      EXPECT_EQ(h->pageSize, row.settledPage);
      EXPECT_TRUE(row.settledPages == -1 || h->pageCount == row.settledPages) << h->pageCount;
      EXPECT_EQ(bytesOnDisk(), row.fileBytes) << "the file stays";
      if (h->hostFile != nullptr) {
        EXPECT_EQ(did(close()), "ok");
      }
    }
  }
}

TEST_F(OpenTest, RefusesWhatIsOpenAttachedOrNegative) {
  openWith(Shape::direct, 2);
  h->pageSize = -1;
  EXPECT_EQ(did(open()), "81F {!81F}");
  h->pageSize = kPage;
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096");
  calls().plan({{Call::fileClose, 1, 1, -1, 0x80FFE00C}});
  EXPECT_EQ(did(close()), "808");
  h->pageSize = -1;
  EXPECT_EQ(did(open()), "81F {!81F}");
  h->pageSize = kPage;
  EXPECT_EQ(did(close()), "ok");
  for (int i = 0; i < 4; ++i) {
    settle(Shape::direct);
    makeFile(2);
    (i == 0 ? h->pageCount : i == 1 ? h->fileSize : h->headerSize) = -1;
    if (i == 3) {
      h->headerSize = kHeader;
      h->pageSize = -1;
    }
    EXPECT_EQ(did(open()), "818 {!818}");
    EXPECT_EQ(calls().count(Call::fileOpen), 0);
    char header[8];
    EXPECT_EQ(did(preopen(header, 8)), "ok read 8");
    EXPECT_EQ(did(open()), "818 {!818}");
    EXPECT_EQ(h->stateFlags, qz::statePreopened);
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(OpenTest, CreatesOrReplaces) {
  for (const Shape shape : kShapes) {
    settle(shape);
    makeFile(5);
    h->openMode = qz::createOrReplace;
    h->pageCount = h->fileSize = 9;
    EXPECT_EQ(did(open()), "ok ftruncate 0");
    EXPECT_TRUE(h->pageCount == 0 && h->fileSize == 0 && h->headerSize == 0);
    EXPECT_EQ(bytesOnDisk(), 0);
    EXPECT_EQ(did(close()), "ok");
    EXPECT_EQ(bytesOnDisk(), -1) << "an empty file that could be written is not kept";
    settle(shape);
    h->openMode = qz::createOrReplace;
    h->pageSize = 0;
    h->hostPageSize = 0;
    host.setHostPageSize(8192);
    EXPECT_EQ(did(open()), "ok ftruncate 0 statfs");
    EXPECT_EQ(h->pageSize, 8192);
    EXPECT_EQ(did(close()), "ok");
    settle(shape);
    h->openMode = qz::createOrReplace;
    calls().plan({{Call::ftruncate}});
    EXPECT_EQ(did(open()), "81C ftruncate 0!5 {!81C}");
    EXPECT_EQ(h->lastErrno, EIO);
    EXPECT_EQ(bytesOnDisk(), -1);
  }
}

TEST_F(OpenTest, BuffersAreMadeInOrder) {
  const auto sized = [](const char* pool, std::size_t bytes, const char* flag = "") {
    return " memAlloc:" + std::string(pool) + std::to_string(bytes) + flag;
  };
  const std::string page = sized("m", sizeof(qz::PageBuffer)) + sized("b", 4096);
  const std::string block =
      sized("m", sizeof(qz::BlockRecord), "z") + sized("b", 16384) + sized("m", 1, "z");
  openWith(Shape::buffered, 1, 1);
  EXPECT_EQ(calls().hostCalls(), "fileOpen treeCreate:t" + page + page);
  EXPECT_EQ(calls().at(Call::treeCreate).length, offsetof(qz::PageBuffer, pageNumber));
  EXPECT_TRUE(h->nextPage == 1 && h->lastPageRead == 0);
  close();
  openWith(Shape::block, 1, 1);
  EXPECT_EQ(calls().hostCalls(), "fileOpen" + block + block);
  EXPECT_TRUE(h->writeBlock != nullptr && listed(h->blockFreeList) == 1);
  close();
  const struct {
    std::int32_t pageSize;
    std::int64_t requested;
    const char* result;
    std::int32_t blockBytes, pages;
  } rows[] = {{4096, 0, "ok", 262144, 64},
              {3000, 0, "ok", 98304000, 32768},
              {524288, 0, "ok", 524288, 1},
              {4096, 6144, "ok", 12288, 3},
              {4096, -5, "ok", 262144, 64},
              {4096, 1LL << 31, "002 {4:002}", 0, 0},
              {4096, (1LL << 40) + 4096, "002 {4:002}", 0, 0},
              {0x40000000, 0x30000000, "002 {4:002}", 0, 0}};
  for (const auto& row : rows) {
    settle(Shape::block, 1);
    makeFile(0, 100);
    h->headerSize = 100;
    h->bufferCount = 0;
    h->readAccess = qz::noRead;
    h->writeAccess = qz::writeNewPages;
    h->openOptions |= qz::optionKeepBufferCount;
    h->pageSize = row.pageSize;
    h->requestedBlockBytes = row.requested;
    EXPECT_EQ(did(open()), row.result);
    if (h->hostFile != nullptr) {
      EXPECT_TRUE(h->blockBytes == row.blockBytes && h->pagesPerBlock == row.pages &&
                  h->bitmapBytes == (row.pages + 7) / 8)
          << h->blockBytes;
      EXPECT_EQ(did(close()), "ok");
    } else {
      EXPECT_EQ(calls().count(Call::memAlloc), 0);
    }
  }
}

// Memory refused at every single allocation of an open, one after another.
TEST_F(OpenTest, NoMemoryLeavesNothingBehind) {
  for (const Shape shape : kShapes) {
    for (const std::uint32_t mode : {qz::openOrRemove, qz::openOrKeep, qz::createOrReplace}) {
      for (int nth = 1;; ++nth) {
        settle(shape);
        makeFile(2);
        h->openMode = mode;
        calls().plan({{Call::memAlloc, nth}});
        const Status status = open();
        if (calls().faultsMet() == 0) {
          EXPECT_EQ(status, Status::ok);
          EXPECT_EQ(nth, shape == Shape::block ? 13 : 9);
          break;
        }
        EXPECT_EQ(shortCode(static_cast<std::uint32_t>(status)) + recorder.entries, "0024:002");
        EXPECT_EQ(h->status, Status::noMemory);
        EXPECT_EQ(bytesOnDisk() >= 0, mode == qz::openOrKeep) << nameOf(shape) << mode;
        EXPECT_TRUE(h->hostFile == nullptr && h->stateFlags == 0);
      }
      EXPECT_EQ(did(close(qz::kRemoveFile)), "ok");
    }
  }
  for (const Shape shape : {Shape::buffered, Shape::direct}) {
    settle(shape);
    makeFile(2);
    calls().plan({{Call::treeCreate}});
    EXPECT_EQ(did(open()), "002 {4:002}");
    EXPECT_EQ(calls().count(Call::memAlloc), 0);
    EXPECT_EQ(did(open()), "ok");
    EXPECT_EQ(did(close()), "ok");
  }
}

// Releases that fail on the way are journalled first, the missing memory after them.
TEST_F(OpenTest, FailedCleanUpIsJournalled) {
  settle(Shape::block);
  makeFile(2);
  calls().plan({{Call::memAlloc, 3}, {Call::memFree, 1, 2, -1, 0x80FFE101}});
  EXPECT_EQ(did(open()), "002 {4:80FFE101 4:80FFE101 4:002}");
}

}  // namespace
}  // namespace qztest
