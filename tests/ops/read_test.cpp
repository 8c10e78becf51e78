// Reading pages one by one and in runs.
#include <filesystem>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;

class ReadTest : public FileTest {
 protected:
  // Cuts the file by plain calls while the module has it open.
  void cutTo(std::int64_t bytes) const {
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(bytes));
  }
};

TEST_F(ReadTest, ChecksComeInOrder) {
  settle(Shape::buffered);
  EXPECT_EQ(did(read(0)), "81E {!81E}");
  for (const Shape shape : kShapes) {
    openWith(shape, 3, 1);
    const struct {
      std::int64_t page;
      const char* result;
    } rows[] = {{0, "80C {!80C}"}, {-1, "80C {!80C}"}, {INT64_MIN, "80C {!80C}"},
                {4, "80B"},        {5, "80C {!80C}"},  {INT64_MAX, "80C {!80C}"}};
    for (const auto& row : rows) {
      EXPECT_EQ(did(read(row.page)), row.result) << row.page;
      EXPECT_EQ(at, nullptr);
      EXPECT_EQ(shortCode(static_cast<std::uint32_t>(h->status)),
                std::string(row.result).substr(0, 3));
    }
    h->readAccess = qz::readSequential;
    for (const std::int64_t page : {0, 4, 5, 2}) {
      EXPECT_EQ(did(read(page)), "812 {!812}");
    }
    EXPECT_EQ(read(1), Status::ok);
    EXPECT_EQ(did(read(3)), "812 {!812}");
    EXPECT_EQ(did(read(2)), "80D {!80D}");
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(ReadTest, SequentialReadersFollowTheOrderOrRestart) {
  for (const std::int64_t start : {0, 3}) {
    settle(Shape::block);
    makeFile(5);
    h->readAccess = qz::readSequential;
    h->sequentialStartPage = start;
    EXPECT_EQ(did(open()), "ok");
    for (const std::int64_t page : {1, 2, 3}) {
      EXPECT_EQ(read(page), Status::ok);
      giveBack(at);
    }
    EXPECT_EQ(did(read(5)), "812 {!812}");
    EXPECT_EQ(read(std::max<std::int64_t>(start, 1)), Status::ok);
    giveBack(at);
    h->lastPageRead = 5;
    EXPECT_EQ(did(read(6)), "80B") << "the end is in order";
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(ReadTest, OneTransferForAPageOrABlock) {
  for (const Shape shape : kShapes) {
    const bool block = shape == Shape::block;
    openWith(shape, 10);
    EXPECT_EQ(did(read(6)), block ? "ok pread 16384@20480" : "ok pread 4096@24576");
    EXPECT_TRUE(holdsPage(6, 0) && h->lastPageRead == 6);
    EXPECT_EQ(request.length, block ? kPage : 0);
    EXPECT_EQ(calls().hostCalls(), "") << "no allocation";
    EXPECT_EQ(calls().count(Call::environment), 0);
    EXPECT_EQ(calls().ownAllocations, 0);
    EXPECT_EQ(h->nextPage, block ? 9 : 1);
    EXPECT_EQ(h->firstBlockRead, block ? 2 : 0);
    write(6, at);
    EXPECT_EQ(did(read(6)), block ? "ok pread 16384@20480" : "ok");
    EXPECT_EQ(did(read(7)), block ? "ok" : "ok pread 4096@28672");
    EXPECT_EQ(did(read(10)), block ? "ok pread 16384@36864=8192" : "ok pread 4096@40960");
    EXPECT_TRUE(holdsPage(10, 0));
    EXPECT_EQ(did(close()), "ok") << "with three holds";
  }
}

// A page that a page-mode caller already holds: another hold of the same buffer.
TEST_F(ReadTest, HeldPagesAreSharedInPageMode) {
  openWith(Shape::buffered, 5, 4);
  read(2);
  char* const held = at;
  qz::PageBuffer* const buffer = h->pageHeldList.head;
  EXPECT_EQ(did(read(2)), "ok");
  EXPECT_TRUE(at == held && h->heldCount == 2 && buffer->held == 1 && buffer->extraHolds == 1);
  EXPECT_EQ(did(giveBack(held)), "ok");
  EXPECT_TRUE(h->heldCount == 1 && buffer->pageNumber == 2 && h->pageHeldList.head == buffer);
  read(2);
  stamp(held, kPage, 2, 1);
  EXPECT_EQ(did(write(2, held)), "ok pwrite 4096@8192");
  EXPECT_TRUE(h->heldCount == 1 && h->pageHeldList.head == buffer && buffer->pageNumber == 2);
  read(2);
  EXPECT_EQ(did(write(3, held)), "ok pwrite 4096@12288");
  EXPECT_TRUE(h->heldCount == 1 && buffer->pageNumber == 2) << "the other hold is of page 2";
  EXPECT_EQ(did(giveBack(held)), "ok");
  EXPECT_EQ(did(giveBack(held)), "814 {!814}");
  EXPECT_EQ(did(read(2)), "ok pread 4096@8192");
  EXPECT_TRUE(holdsPage(2, 1));
}

TEST_F(ReadTest, PageModeTellsShortMissingAndFailedPages) {
  const struct {
    std::int64_t bytes;  // of page 3 that are still there
    const char* result;
    std::int32_t length;
  } rows[] = {{100, "818 pread 4096@12288=100 {!818}", 100}, {0, "80B pread 4096@12288=0", 0}};
  for (const auto& row : rows) {
    openWith(Shape::direct, 3);
    cutTo(3 * kPage + row.bytes);
    EXPECT_EQ(did(read(3)), row.result);
    EXPECT_TRUE(request.length == row.length && at == nullptr);
    EXPECT_EQ(h->hostFile == nullptr, row.bytes != 0);
    if (h->hostFile != nullptr) {
      EXPECT_EQ(did(read(3)), "80B") << "judged again without a call";
      EXPECT_EQ(did(close()), "ok");
    } else {
      EXPECT_EQ(did(read(3)), "81E {!81E}");
    }
  }
  openWith(Shape::direct, 3);
  for (const std::uint32_t error : {EINTR, EIO}) {
    calls().plan({{Call::pread, 1, 1, -1, error}});
    const std::int64_t page = error == EINTR ? 1 : 2;
    EXPECT_EQ(did(read(page)), "808 pread 4096@" + std::to_string(page * kPage) + "!" +
                                   std::to_string(error) + " {!808}");
    EXPECT_EQ(h->lastErrno, static_cast<int>(error));
  }
  h->lastErrno = 77;
  EXPECT_EQ(did(read(2)), "808 {!808}") << "judged again";
  EXPECT_EQ(h->lastErrno, 77);
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096") << "in the buffer of the failed read";
  EXPECT_EQ(did(read(2)), "ok pread 4096@8192");
}

TEST_F(ReadTest, BlockModeTellsShortAndFailedBlocks) {
  const struct {
    std::int64_t page, bytes;  // of the file
    std::vector<Fault> faults;
    const char* result;
    std::int32_t lastErrno;
  } rows[] = {
      {7, 4096 * 7 + 99, {}, "818 pread 16384@20480=8291 {!818}", 0},
      {6, 4096 * 6 + 99, {}, "818 pread 16384@20480=4195 {!818}", 0},  // not the block's last
      {7, 4096 * 5, {}, "818 pread 16384@20480=0 {!818}", 0},
      {5, 4096 * 8, {{Call::pread}}, "818 pread 16384@20480!5 {!818}", 5},
      {7, 4096 * 8, {{Call::pread}}, "818 pread 16384@20480!5 {!818}", 5},
      {5,
       4096 * 8,
       {{Call::pread, 1, 2, -1, EINTR}, {Call::pread, 3, 1, -1, ENXIO}},
       "818 pread 16384@20480!4 pread 16384@20480!4 pread 16384@20480!6 {!818}",
       6},
  };
  for (const auto& row : rows) {
    openWith(Shape::block, 7);
    cutTo(row.bytes);
    calls().plan(row.faults);
    EXPECT_EQ(did(read(row.page)), row.result);
    EXPECT_EQ(h->lastErrno, row.lastErrno);
    EXPECT_TRUE(request.length == 0 && at == nullptr && h->hostFile == nullptr);
  }
  openWith(Shape::block, 7);
  calls().plan({{Call::pread, 1, 2, -1, EINTR}});
  EXPECT_EQ(did(read(7)), "ok pread 16384@20480!4 pread 16384@20480!4 pread 16384@20480=12288");
}

// Writing the page after it does not make a block whole that came short.
TEST_F(ReadTest, ShortBlocksDoNotGrow) {
  openWith(Shape::block, 6);
  cutTo(6 * kPage);
  EXPECT_EQ(did(read(5)), "ok pread 16384@20480=4096");
  EXPECT_EQ(did(writeOwn(7, 1)), "ok pwrite 4096@28672");
  EXPECT_EQ(h->blockHeldList.head->lastPage, 6);
  EXPECT_EQ(did(read(7)), "ok pread 16384@20480=12288");
  EXPECT_TRUE(holdsPage(7, 1));
}

TEST_F(ReadTest, StalePagesAreReadAgainAlone) {
  for (const bool fails : {false, true}) {
    openWith(Shape::block, 7);
    read(5);
    read(6);
    giveBack(h->blockHeldList.head->data);
    calls().plan({{Call::pread, 1, 1, -1, EINTR}});
    EXPECT_EQ(did(read(5)), "ok pread 4096@20480!4 pread 4096@20480");
    EXPECT_TRUE(holdsPage(5, 0) && h->nextPage == 6);
    giveBack(at);
    calls().plan({fails ? Fault{Call::pread} : Fault{Call::pread, 1, 1, kShort}});
    EXPECT_EQ(did(read(5)),
              fails ? "818 pread 4096@20480!5 {!818}" : "818 pread 4096@20480=2048 {!818}");
    EXPECT_EQ(h->lastErrno, fails ? EIO : 0);
    EXPECT_EQ(h->hostFile, nullptr);
  }
}

TEST_F(ReadTest, CollectedPagesAreWrittenBeforeTheyAreRead) {
  openWith(Shape::block, 8);
  read(8);  // a block that stays held
  for (const std::int64_t page : {9, 10, 11}) {
    EXPECT_EQ(did(writeOwn(page, 1)), "ok");
  }
  EXPECT_EQ(did(read(7)), "ok");
  EXPECT_EQ(did(read(10)), "ok pwrite 12288@36864 pread 16384@36864=12288");
  EXPECT_TRUE(holdsPage(10, 1));
  giveBack(at);
  EXPECT_EQ(did(writeOwn(12, 1)), "ok pwrite 4096@49152");
  EXPECT_EQ(did(writeOwn(13, 1)), "ok");
  calls().plan({{Call::pwrite, 1, 1, -1, ENOSPC}});
  EXPECT_EQ(did(read(13)), "80F pwrite 4096@53248!28 lseek 53248 ftruncate 53248 {!80F !80F}");
  EXPECT_TRUE(h->pageCount == 12 && h->lastErrno == ENOSPC);
}

TEST_F(ReadTest, RunsGoStraightToTheCaller) {
  settle(Shape::buffered);
  makeFile(2600);
  const CallerMemory memory = callerMemory(2500LL * kPage);
  EXPECT_EQ(did(readMany(1, 1, 0, memory.get())), "81E {!81E}");
  for (const Shape shape : kShapes) {
    settle(shape);
    EXPECT_EQ(did(open()), "ok");
    const struct {
      std::int64_t page;
      std::int32_t count;
      std::uint32_t options;
      const char* result;
      std::int64_t next;
    } rows[] = {
        {0, 0, 0, "80C {!80C}", 1},
        {-1, 1, 0, "80C {!80C}", 1},
        {2601, 0, 8, "80B", 1},
        {2602, 1, 0, "80C {!80C}", 1},
        {1, 0, 8, "80C {!80C}", 1},
        {1, -1, 0, "80C {!80C}", 1},
        {1, 1 << 19, 8, "80C {!80C}", 1},  // 2^31 bytes
        {3, 2500, 0, "ok lseek 12288 readv 1024 readv 1024 readv 452", 2503},
        {2, 1024, 7, "ok lseek 8192 readv 1024", 1026},
        {4, 2, 8, "ok pread 8192@16384", 6},
        {2599, 5, 9, "ok pread 20480@10645504=8192", 2604},
        {2599, 5, 0, "ok lseek 10645504 readv 5", 2604},
    };
    for (const auto& row : rows) {
      h->nextPage = 1;
      EXPECT_EQ(did(readMany(row.page, row.count, row.options, memory.get())), row.result);
      EXPECT_EQ(h->nextPage, row.next);
      if (h->status == Status::ok) {
        EXPECT_TRUE(isStamped(memory.get(), kPage, row.page, 0));
        EXPECT_TRUE(isStamped(memory.get() + kPage, kPage, row.page + 1, 0));
        EXPECT_EQ(calls().hostCalls(), "");
      }
    }
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(ReadTest, FailedRunsTellHowFarTheyCame) {
  const CallerMemory memory = callerMemory(2100LL * kPage);
  openWith(Shape::buffered, 2100);
  const struct {
    std::uint32_t options;
    Fault fault;
    const char* result;
    std::int32_t lastErrno;
    std::int64_t next;
  } rows[] = {
      {8, {Call::pread, 1, 1, -1, EINTR}, "808 pread 8601600@4096!4 {!808}", 4, 77},
      {8, {Call::pread, 1, 1, 0}, "80B pread 8601600@4096=0", 0, 77},
      {0, {Call::lseek}, "808 lseek 4096!5 {!808}", 0, 77},
      {0, {Call::readv, 2, 1, -1, EINTR}, "808 lseek 4096 readv 1024 readv 1024!4 {!808}", 0, 1025},
      {0, {Call::readv, 3, 1, 0}, "80B lseek 4096 readv 1024 readv 1024 readv 52", 0, 2049},
      {0, {Call::readv, 3, 1, kShort}, "ok lseek 4096 readv 1024 readv 1024 readv 52", 0, 2101},
  };
  for (const auto& row : rows) {
    h->lastErrno = 0;
    h->nextPage = 77;
    calls().plan({row.fault});
    EXPECT_EQ(did(readMany(1, 2100, row.options, memory.get())), row.result);
    EXPECT_TRUE(h->lastErrno == row.lastErrno && h->nextPage == row.next) << h->nextPage;
  }
  close();
  openWith(Shape::block, 4);
  writeOwn(5, 1);
  EXPECT_EQ(did(readMany(4, 2, 8, memory.get())), "ok pread 8192@16384=4096")
      << "collected pages are not seen";
}

}  // namespace
}  // namespace qztest
