// The four operations that the module calls itself go through the table, where a host may have
// put another entry.
#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

int replaced = 0;
std::int64_t argument = 0;
Table originals;

class InternalCallTest : public FileTest {
 protected:
  void SetUp() override {
    originals = module->operations;
    replaced = 0;
    module->operations.qzpclose = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* j) {
      ++replaced;
      argument = flags;
      return originals.qzpclose(file, flags, j);
    };
    module->operations.qzpinfo = [](qz::FileHandle* file, qz::Journal* j) {
      ++replaced;
      return originals.qzpinfo(file, j);
    };
    module->operations.qzptruncate = [](qz::FileHandle* file, std::int64_t pages, qz::Journal* j) {
      ++replaced;
      argument = pages;
      return originals.qzptruncate(file, pages, j);
    };
    module->operations.qzpflush = [](qz::FileHandle* file, qz::Journal* j) {
      ++replaced;
      return originals.qzpflush(file, j);
    };
  }
  void expectReplaced(Status status, Status wanted, std::int64_t wantedArgument) {
    EXPECT_EQ(status, wanted);
    EXPECT_EQ(replaced, 1);
    EXPECT_EQ(argument, wantedArgument);
    replaced = 0;
    argument = 0;
    calls().plan({});
  }
};

TEST_F(InternalCallTest, InfoAndClose) {
  makeFile(2);
  settle(Shape::buffered);
  EXPECT_EQ(call(&Table::qzpsetfilename, recorder.fileName.data(),
                 static_cast<std::int32_t>(recorder.fileName.size())),
            Status::ok);
  expectReplaced(Status::ok, Status::ok, 0);
  h->hostPageSize = 0;
  const qz::PageSizeRequest any{};
  expectReplaced(call(&Table::qzppsize, &any), Status::ok, 0);
  settle(Shape::buffered);
  h->hostPageSize = 0;
  expectReplaced(open(), Status::ok, 0);
  calls().plan({{Call::pread, 1, 1, kShort}});
  expectReplaced(read(2), Status::misfit, 0);
  for (const std::uint32_t mode : {qz::openOrKeep, qz::openOrRemove}) {
    settle(Shape::block);
    h->openMode = mode;
    calls().plan({{Call::memAlloc}});
    expectReplaced(open(), Status::noMemory, mode == qz::openOrKeep ? 0 : 1);
  }
  makeFile(2, 1);
  settle(Shape::block);
  expectReplaced(open(), Status::misfit, 0);
  h->openMode = qz::createOrReplace;
  calls().plan({{Call::ftruncate}});
  expectReplaced(open(), Status::notTruncated, 1);
}

TEST_F(InternalCallTest, TruncateAndFlush) {
  openWith(Shape::buffered, 4);
  for (const int error : {ENOSPC, EIO}) {
    calls().plan({{Call::pwrite, 1, 1, -1, static_cast<std::uint32_t>(error)}});
    expectReplaced(writeOwn(5), error == EIO ? Status::ioFailed : Status::noSpace, 4);
  }
  calls().plan({{Call::pwrite, 1, 1, -1, EDQUOT}});
  expectReplaced(writeHeader("x", 1), Status::noSpace, 0);
  EXPECT_EQ(close(qz::kRemoveFile), Status::ok);
  replaced = 0;
  openWith(Shape::block, 4);
  EXPECT_EQ(writeOwn(5), Status::ok);
  EXPECT_EQ(writeOwn(6), Status::ok);
  calls().plan({{Call::pwrite}});
  expectReplaced(read(5), Status::ioFailed, 4);
  h->openOptions |= qz::optionFlushAtClose;
  module->operations.qzpclose = originals.qzpclose;
  expectReplaced(close(), Status::ok, 0);
}

}  // namespace
}  // namespace qztest
