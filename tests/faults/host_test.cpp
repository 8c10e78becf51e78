// Every status of the host's file service wherever a file is opened.
#include <algorithm>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

// The module's code for the host statuses 0x80FFE000 to 0x80FFE016, by their last five bits.
constexpr Status kMapped[] = {Status::ioFailed,
                              Status::noMemory,
                              Status::ioFailed,
                              Status::ioFailed,
                              Status::ioFailed,
                              Status::ioFailed,
                              Status::fileNotFound,
                              Status::accessRefused,
                              Status::ioFailed,
                              Status::isDirectory,
                              Status::noFileName,
                              Status::noDescriptor,
                              Status::ioFailed,
                              Status::notRemoved,
                              Status::readOnlyFileSystem,
                              Status::busy,
                              Status::busy,
                              Status::busy,
                              Status::busy,
                              Status::busy,
                              Status::ioFailed,
                              Status::unsupportedFile,
                              Status::ioFailed};

bool isWaitedFor(std::uint32_t status) {
  return status == qz::hostLocked || status == qz::hostDeviceBusy || status == qz::hostTryAgain;
}

class HostStatuses : public FileTest {
 protected:
  // Has the host refuse `refusals` times; three retries are allowed.
  Status refused(std::uint32_t hostStatus, int refusals, Call call, auto operation,
                 bool mayWait = true) {
    SCOPED_TRACE(testing::Message() << nameOf(call) << " " << std::hex << hostStatus);
    h->openRetryCount = 3;
    calls().plan({{call, 1, refusals, EACCES, hostStatus}});
    const Status status = operation();
    calls().plan({});
    const int waits = mayWait && isWaitedFor(hostStatus) ? std::min(refusals, 3) : 0;
    EXPECT_EQ(calls().count(Call::taskWait), waits);
    EXPECT_EQ(calls().count(call), 1 + waits);
    return status;
  }
  static bool recovers(std::uint32_t hostStatus, int refusals) {
    return isWaitedFor(hostStatus) && refusals <= 3;
  }
  void expectDetails(bool recovered) const {
    qz::StatusReport told{};
    h->module->operations.qzpgetstatus(h, &told);
    EXPECT_TRUE(recovered || (told.lastErrno == EACCES && told.hostErrorDetail1 == 11 &&
                              told.hostErrorDetail2 == 22));
  }
};

TEST_F(HostStatuses, EachOpenMeetsEachOfThem) {
  makeFile(3);
  char header[8];
  for (const Shape shape : kShapes) {
    settle(shape);
    for (std::uint32_t i = 0; i < std::size(kMapped); ++i) {
      const std::uint32_t hostStatus = 0x80FFE000 + i;
      for (const int refusals : {1, 3, 4}) {
        const bool recovered = recovers(hostStatus, refusals);
        const Status wanted = recovered ? Status::ok : kMapped[i];
        EXPECT_EQ(refused(hostStatus, refusals, Call::fileOpen,
                          [&] { return preopen(header, sizeof header); }),
                  wanted);
        expectDetails(recovered);
        EXPECT_EQ(open(), Status::ok);
        EXPECT_EQ(close(), Status::ok);
        EXPECT_EQ(refused(hostStatus, refusals, Call::fileOpen, [&] { return open(); }), wanted);
        expectDetails(recovered);
        EXPECT_TRUE(recovered || open() == Status::ok);
        EXPECT_EQ(read(2), Status::ok);
        const std::uint32_t mode = h->directIoMode;
        const Status reopened = refused(hostStatus, refusals, Call::fileReopen,
                                        [&] { return reopen(shape, qz::noWrite); });
        EXPECT_EQ(reopened, recovered ? Status::ok : Status::reopenFailed);
        EXPECT_EQ(h->writeAccess, recovered ? qz::noWrite : qz::rewritePages);
        EXPECT_EQ(h->directIoMode, mode);
        expectDetails(recovered);
        EXPECT_EQ(giveBack(at), Status::ok);
        EXPECT_EQ(read(3), Status::ok);
        EXPECT_EQ(close(), Status::ok);
        h->writeAccess = qz::rewritePages;
      }
    }
  }
}

// A delete waits for nothing. One that the host could not end leaves the file attached: it is
// closed and deleted again.
TEST_F(HostStatuses, ADeleteMeetsEachOfThem) {
  for (std::uint32_t i = 0; i < std::size(kMapped); ++i) {
    openWith(Shape::buffered, 1);
    EXPECT_EQ(close(), Status::ok);
    const auto erase = [&] { return call(&Table::qzpdelete); };
    EXPECT_EQ(refused(0x80FFE000 + i, 1, Call::fileOpen, erase, false), Status::notRemoved);
    EXPECT_EQ(recorder.entries, "4:FD4(~)");
    EXPECT_EQ(refused(0x80FFE000 + i, 1, Call::fileClose, erase, false), Status::notRemoved);
    EXPECT_EQ(erase(), Status::deleteWhileOpen);
    EXPECT_EQ(close(), Status::ok);
    EXPECT_EQ(erase(), Status::ok);
    EXPECT_EQ(bytesOnDisk(), -1);
  }
}

}  // namespace
}  // namespace qztest
