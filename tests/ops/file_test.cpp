// Operations on the file as a whole: header, flush, close, reopen, delete.
#include <fmt/format.h>

#include <fstream>

#include "script.h"

namespace qztest {
namespace {

class WholeFileTest : public ScriptTest {};

// A header shorter than the header area must be filled up with zeros, or old bytes would stay
// before page 1.
TEST_F(WholeFileTest, AShortHeaderIsFilledUp) {
  playRows(R"(
    open <shape> 2; set nextPage 9 lastErrno 9; writeHeader 10 -> ok: pwrite 4096 at 0
    hostCalls -> memAlloc bufferPool 4096 zeroed, memFree bufferPool; is lastErrno 0
    fail memAlloc; writeHeader 4 -> noMemory; is length 0
    fail memFree with hostForeignBlock
    writeHeader 4 -> ok: pwrite 4096 at 0 {report hostForeignBlock}
    fail nothing; close)",
           kShapeRows);
}

// A header as long as its area, or longer, is written as it is; the file size may only grow by it.
TEST_F(WholeFileTest, AWholeHeaderIsWrittenAsItIs) {
  playRows(R"(
    writeHeader -1 -> notOpen
    open <shape> 2; writeHeader -1 -> badArgument
    writeHeader 4096 -> ok: pwrite 4096 at 0; hostCalls ->
    writeHeader 8192 -> ok: pwrite 8192 at 0; is fileSize 12288
    set fileSize 4096; writeHeader 8192 -> ok: pwrite 8192 at 0; is fileSize 8192
    set writeAccess noWrite; writeHeader -1 -> notWritable
    close)",
           kShapeRows);
}

std::string guardCalls;

// A handle that is closed and opened again must keep nothing of the first file. The page tree is
// emptied inside its guard.
TEST_F(WholeFileTest, CloseFreesEverything) {
  play("close -> notOpen; open direct 4 2; read 1; rewrite 2:1");
  static qz::PageTree* guarded;
  guarded = h->pageTree;
  qz::TreeGuard guard{};
  guardCalls.clear();
  guard.guardEnter = [](qz::TreeGuard*, qz::Word a1, qz::Word a2) {
    const char* const tree = guarded->anchor.root != nullptr ? "full" : "empty";
    guardCalls += fmt::format("enter {} {} {} ", a1, a2, tree);
  };
  guard.guardLeave = [](qz::TreeGuard*) {
    guardCalls += guarded->anchor.root == nullptr ? "leave empty" : "leave full";
  };
  h->pageTree->guard = &guard;
  play(R"(
    set lastErrno 5 hostErrorDetail1 5 hostErrorDetail2 5; close -> ok
    hostCalls -> fileClose, destroy tree, memFree bufferPool, memFree modulePool, memFree bufferPool, memFree modulePool, memFree bufferPool, memFree modulePool
    is fd -1 heldCount 0 lastErrno 0
    is hostErrorDetail1 0 hostErrorDetail2 0 stateFlags 0 bufferCount 2)");
  EXPECT_EQ(guardCalls, "enter 1 1 full leave empty");
  play("open block 4 2; read 1; acquire; writeOwn 5 6; close -> ok: pwrite 8192 at 20480");
  const std::string block = "memFree modulePool, memFree bufferPool, memFree modulePool";
  EXPECT_EQ(calls().hostCalls(), fmt::format("{0}, fileClose, {0}, {0}", block));
  play("is fileSize 28672 firstBlockRead 0; close -> notOpen");
}

// Of the flags only kRemoveFile counts: a close with all others keeps the file.
TEST_F(WholeFileTest, CloseIgnoresUnknownFlags) {
  play("open buffered 2; close 0xFFFFFFFE; fileBytes -> 12288");
}

// With optionFlushAtClose a close flushes first. A failed flush keeps the file attached, so that
// the host can close again.
TEST_F(WholeFileTest, CloseFlushesFirstIfAsked) {
  play(R"(
    open block 4; set openOptions optionDirectIo+optionFlushAtClose; writeOwn 5
    close -> ok: pwrite 4096 at 20480, fsync
    open block 4; set openOptions optionDirectIo+optionFlushAtClose; read 1; writeOwn 5
    fail fsync; close -> ioFailed: pwrite 4096 at 20480, fsync fails with EIO
    lists -> freeBlocks empty empty heldBlocks 1-4; is stateFlags 0 heldCount 1
    read 2 -> notOpen
    close -> notOpen
    open -> alreadyOpen
    delete -> deleteWhileOpen unreported
    set openOptions optionDirectIo; close; open buffered 4
    set writeAccess noWrite openOptions optionFlushAtClose; close -> notWritable)");
  EXPECT_NE(h->hostFile, nullptr);
}

// A close that loses pages must return that failure, not a later one of its clean-up.
TEST_F(WholeFileTest, CloseReturnsItsFirstFailure) {
  // The first three memFree succeed: the report's text, the write block's stale bits and data. The
  // fourth and fifth fail: the write block's record and the next block's stale bits.
  play(R"(
    open block 4 2; writeOwn 5
    fail pwrite with ENOSPC and memFree number 4 times 2 with hostForeignBlock
    close -> noSpace: pwrite 4096 at 20480 fails with ENOSPC, lseek 20480, ftruncate 20480 {report noSpace, error hostForeignBlock, error hostForeignBlock}
    is fd -1)");
  play(R"(
    open direct 4 2
    fail fileClose with hostNotRemoved and fileClose number 2 with hostCloseFailed
    close -> notRemoved unreported; lists -> freePages empty empty empty)");
  EXPECT_TRUE(h->hostFile != nullptr && h->pageTree != nullptr);
  EXPECT_EQ(did(call(&qz::OperationTable::qzpfreememhandle)), "ok {report alreadyOpen}");
  // A page tree that cannot be destroyed does not fail the close.
  play("close -> ioFailed unreported; fail destroy with hostBlocksLive; close -> ok");
}

// An open file must not be deleted, and a delete that failed must not pass as one that succeeded.
TEST_F(WholeFileTest, DeleteRemovesAClosedFile) {
  play(R"(
    open buffered 2; delete -> deleteWhileOpen unreported
    close; set openOptions optionAccessVariant)");
  h->status = qz::Status::busy;
  play(R"(
    delete -> ok; hostCalls -> fileOpen O_RDWR for write+exclusive+noLock, fileClose remove
    is pageCount 0 fileSize 0; fileBytes -> -1
    set openOptions 0; delete -> notRemoved {error cannotRemoveReport(file)}
    hostCalls -> fileOpen O_RDWR for write+exclusive fails)");
  EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 && h->status == qz::Status::busy);
  // A host that gives no file and no reason; then a file that cannot be removed.
  play(R"(
    makeFile 1; fail fileOpen with ok returning 0
    delete -> notRemoved {error cannotRemoveReport(file)}
    fail fileClose with hostNotRemoved; delete -> notRemoved unreported
    delete -> deleteWhileOpen unreported
    close kRemoveFile; fileBytes -> -1)");
}

// A reopen must give the caller the rights of the new access, and keep held pages.
TEST_F(WholeFileTest, ReopenChangesTheAccess) {
  play(R"(
    reopenWith readSequential writeNewPages 0 -> notOpen
    open buffered 4 2; read 2 a; reopenWith readSequential noWrite optionAccessVariant -> ok
    hostCalls -> fileReopen O_RDONLY for read
    is readAccess readSequential writeAccess noWrite openOptions optionAccessVariant
    is heldCount 1 lastPageRead 0 nextPage 1)");
  // The access mode of a reopen has no lock bits unless they are the host's own. Options are added,
  // never removed.
  play(R"(
    writeOwn 5 -> ioFailed: pwrite 4096 at 20480 fails with EBADF, lseek 20480, ftruncate 20480 fails with EINVAL {report notTruncated, report ioFailed}
    return a; reopenWith readOrdered rewritePages ownWrite+ownExclusive+ownNoLock+optionFlushAtClose
    hostCalls -> fileReopen O_RDWR for write
    reopenWith readOrdered rewritePages ownWrite+ownExclusive
    hostCalls -> fileReopen O_RDWR for write+exclusive
    is openOptions ownWrite+ownExclusive+ownNoLock+optionFlushAtClose+optionAccessVariant)");
}

// Blocks that are held when the file is reopened with page buffers stay valid. When they are
// written or returned they must be freed.
TEST_F(WholeFileTest, BlocksHeldAtAReopenWithPageBuffersStayValid) {
  play(R"(
    open block 8 3; read 1 a; read 2 b; acquire c; writeOwn 9:1
    reopen direct -> ok: pwrite 4096 at 36864)");
  const std::string block = "memFree modulePool, memFree bufferPool, memFree modulePool";
  const std::string freed =
      fmt::format("fileReopen O_RDWR+O_DIRECT for write+exclusive, {0}, {0}, treeCreate, ", block);
  EXPECT_EQ(calls().hostCalls().find(freed), 0) << calls().hostCalls();
  EXPECT_EQ(h->lastBlock, nullptr);
  play(R"(
    lists -> freePages empty empty empty empty heldBlocks 1-4(2 holds) acquiredBlocks empty; is heldCount 3
    writeOwn 2:5 -> ok: pwrite 4096 at 8192; has b 2:5
    write 1:3 a -> ok: pwrite 4096 at 4096
    return b; hostCalls -> memFree modulePool, memFree bufferPool, memFree modulePool
    write 10:1 c -> ok: pwrite 4096 at 40960; lists -> freePages empty empty empty empty freeBlocks empty
    is heldCount 0
    read 1:3 -> ok: pread 4096 at 4096
    reopen block; lists -> heldPages empty freeBlocks empty empty empty writeBlock empty
    read 10 -> ok: pread 16384 at 36864 moves 8192)");
}

}  // namespace
}  // namespace qztest
