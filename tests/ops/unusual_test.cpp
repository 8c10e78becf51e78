// What only unusual hosts, sizes and orders of calls lead to.
#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

class UnusualTest : public FileTest {
 protected:
  // Hands page 1 out in a shape and goes on in another.
  void holdAndReopen(Shape first, Shape second) {
    openWith(first, 8);
    EXPECT_EQ(read(1), Status::ok);
    held = at;
    EXPECT_EQ(reopen(second), Status::ok);
  }
  char* held = nullptr;
};

TEST_F(UnusualTest, HostPageSizesBeyondTheLargestPage) {
  const struct {
    std::int32_t minimum, maximum, multiple;
  } rows[] = {{0x40000001, 0x40000002, 0}, {1000, 600, 0x50000000}};
  for (const auto& row : rows) {
    host.setHostPageSize(0x60000000);
    h->hostPageSize = 0;
    const qz::PageSizeRequest wanted{row.minimum, row.maximum, row.multiple};
    EXPECT_EQ(did(call(&Table::qzppsize, &wanted)), "80A statfs");
    EXPECT_EQ(h->pageSize, 0x60000000);
  }
}

TEST_F(UnusualTest, SizesThatNoFileOrBlockCanHave) {
  makeFile(2);
  settle(Shape::buffered);
  h->headerSize = INT64_MAX;
  h->pageCount = 1;
  EXPECT_EQ(did(open()), "818 {!818}");
  settle(Shape::buffered);
  h->pageSize = h->minPageSize = h->defaultPageSize = 0;
  EXPECT_EQ(did(open()), "818 {!818}");
  settle(Shape::block);
  h->requestedBlockBytes = (std::int64_t{1} << 61) + 1;
  EXPECT_EQ(did(open()), "002 {4:002}");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, h->fileName, h->fileNameCapacity)), "ok statfs");
  EXPECT_EQ(calls().count(Call::memFree), calls().count(Call::memAlloc)) << "the buffer stays";
  calls().plan({{Call::memAlloc}});
  const char32_t name[] = U"name";
  EXPECT_EQ(call(&Table::qzpsetfilename, name, INT32_MAX), Status::noMemory);
  EXPECT_EQ(calls().count(Call::memAlloc), sizeof(void*) == 4 ? 0 : 1);
  setName(path);
}

// Sizes as the caller gives them are believed.
TEST_F(UnusualTest, TheLastPageThatCanBeNumbered) {
  settle(Shape::buffered);
  makeFile(1);
  h->readAccess = qz::readSequential;
  h->sequentialStartPage = INT64_MAX;
  h->pageSize = 1;
  h->headerSize = 0;
  h->pageCount = h->fileSize = INT64_MAX;
  ASSERT_EQ(did(open()), "ok");
  calls().plan({{Call::pread, 1, 1, 1}, {Call::pwrite, 1, 1, 1}});
  EXPECT_EQ(did(read(INT64_MAX)), "ok pread 1@9223372036854775806");
  EXPECT_EQ(did(read(INT64_MAX)), "ok");
  EXPECT_EQ(did(write(INT64_MAX, at)), "ok pwrite 1@9223372036854775806");
  EXPECT_EQ(h->nextPage, INT64_MAX);
}

TEST_F(UnusualTest, NoJournalAnywhere) {
  makeFile(0, 8);
  settle(Shape::buffered);
  journal = nullptr;
  host.handle()->defaultJournal = nullptr;
  char header[16];
  EXPECT_EQ(did(preopen(header, sizeof header)), "816 read 16=8");
  setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1);
  h->headerSize = 8;
  EXPECT_EQ(did(open()), "ok");
  EXPECT_EQ(did(close()), "ok");
  journal = &recorder;
  h->readAccess = 32;  // no hint that has a name
  EXPECT_NE(did(open()).find("Write Access"), std::string::npos) << recorder.entries;
  EXPECT_EQ(recorder.entries.find("Read Access"), std::string::npos);
  unsetenv("QZIOP_DISPLAY_IOP_TYPE");
}

TEST_F(UnusualTest, BufferCountsAtTheirLimits) {
  openWith(Shape::block, 8);
  EXPECT_EQ(add(INT32_MIN), Status::ok);
  h->bufferCount = INT32_MIN;
  EXPECT_EQ(remove(1), Status::ok);
  EXPECT_EQ(h->bufferCount, INT32_MIN);
  EXPECT_EQ(close(), Status::ok);
  openWith(Shape::block, 8);
  h->bufferCount = 6;
  EXPECT_EQ(reopen(Shape::block), Status::ok);
  EXPECT_TRUE(h->blocksAllocated == 7 && listed(h->blockFreeList) == 6);
}

TEST_F(UnusualTest, AddressesNearTheEndOfABlock) {
  openWith(Shape::block, 8);
  EXPECT_EQ(read(4), Status::ok);
  EXPECT_EQ(did(write(4, at + 8)), "814 {!814}");
  EXPECT_EQ(giveBack(at), Status::ok);
}

// A held block that came short does not grow over an appended page. A second copy of the block has
// it, and either serves the pages that both have.
TEST_F(UnusualTest, AppendBehindABlockThatCameShort) {
  for (const std::int32_t buffers : {3, 20}) {
    openWith(Shape::block, 3, buffers);
    calls().plan({{Call::pread, 1, 1, 2 * kPage + 100}});
    EXPECT_EQ(read(1), Status::ok);
    held = at;
    calls().plan({});
    EXPECT_EQ(writeOwn(4, 1), Status::ok);
    EXPECT_EQ(did(read(4)), "ok pread 16384@4096");
    EXPECT_TRUE(holdsPage(4, 1));
    EXPECT_EQ(writeOwn(5, 1), Status::ok);
    EXPECT_EQ(read(5), Status::ok);
    EXPECT_EQ(giveBack(at), Status::ok);
    EXPECT_EQ(did(read(1)), "ok");
    EXPECT_TRUE(holdsPage(1, 0));
    EXPECT_TRUE(giveBack(at) == Status::ok && giveBack(held) == Status::ok);
    EXPECT_EQ(close(), Status::ok);
  }
}

// Where a host puts something in the place of the close, nothing of a block that came short stays
// cached, unless it is held.
TEST_F(UnusualTest, AShortPageWhoseCloseIsReplaced) {
  static auto original = module->operations.qzpclose;
  const auto puttingOff = [](qz::FileHandle*, std::uint32_t, qz::Journal*) { return Status::ok; };
  const auto openingAgain = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* log) {
    original(file, flags, log);
    return file->ops->operations.qzpopen(file, log);
  };
  const struct {
    decltype(original) close;
    bool holds;
    const char *first, *second;
  } rows[] = {{puttingOff, false, "818 pread 16384@4096=4196 {!818}", "ok pread 16384@4096"},
              {puttingOff, true, "818 {!818}", "818 {!818}"},
              {openingAgain, false, "818 pread 16384@4096=4196 {!818}", "ok pread 16384@4096"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    openWith(Shape::block, 8);
    module->operations.qzpclose = row.close;
    calls().plan({{Call::pread, 1, 1, kPage + 100}});
    EXPECT_TRUE(!row.holds || read(1) == Status::ok);
    EXPECT_EQ(did(read(2)), row.first);
    calls().plan({});
    module->operations.qzpclose = original;
    EXPECT_EQ(did(read(2)), row.second);
    EXPECT_TRUE(row.holds || (holdsPage(2, 0) && close() == Status::ok));
  }
}

// Blocks that the caller still holds fix the block size, also where a change of shape stops.
TEST_F(UnusualTest, AChangeOfShapeThatStopsWithBlocksHeld) {
  holdAndReopen(Shape::block, Shape::direct);
  calls().plan({{Call::memFree, 1, 1, -1, qz::hostForeignBlock}});
  EXPECT_EQ(reopen(Shape::block), Status::ioFailed);
  calls().plan({});
  EXPECT_TRUE(h->blockBytes == 4 * kPage && h->pagesPerBlock == 4 && h->blocksAllocated == 1);
  EXPECT_EQ(giveBack(held), Status::ok);
}

// A page that was handed out before goes back without a tree to enter it in.
TEST_F(UnusualTest, AWriteWithoutAPageTree) {
  holdAndReopen(Shape::direct, Shape::block);
  calls().plan({{Call::treeCreate}});
  EXPECT_EQ(reopen(Shape::direct), Status::noMemory);
  calls().plan({});
  stamp(held, kPage, 1, 1);
  EXPECT_EQ(did(write(1, held)), "ok pwrite 4096@4096");
  EXPECT_EQ(did(read(1)), "80D {!80D}");
  EXPECT_TRUE(onDisk(1, 1));
}

}  // namespace
}  // namespace qztest
