// Header, flush, close, reopen, delete: what concerns the file as a whole.
#include <fmt/format.h>

#include <fstream>

#include "script.h"

namespace qztest {
namespace {

class WholeFileTest : public ScriptTest {};

// A short header must not leave old bytes before page 1, nor a long one change the counts.
TEST_F(WholeFileTest, HeaderIsPaddedOrWrittenWhole) {
  playRows(R"(
    header -1 -> notOpen
    open <shape> 2; set nextPage 9 lastErrno 9; header 10 -> ok pwrite 4096@0
    host -> memAlloc:b4096z memFree:b; is lastErrno 0
    header -1 -> badArgument
    fail memAlloc; header 4 -> noMemory; is length 0
    fail memFree with hostForeignBlock; header 4 -> ok pwrite 4096@0 {report hostForeignBlock}
    fail nothing; header 4096 -> ok pwrite 4096@0; host ->
    header 8192 -> ok pwrite 8192@0; is fileSize 12288
    set fileSize 4096; header 8192 -> ok pwrite 8192@0; is fileSize 8192
    set writeAccess noWrite; header -1 -> notWritable
    close)",
           kShapeRows);
}

int guardCalls = 0;

// A handle that is closed and opened again must have nothing left of the first file.
TEST_F(WholeFileTest, CloseReleasesEverything) {
  play("close -> notOpen; open direct 4 2; read 1; rewrite 2:1");
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
  play(R"(
    set lastErrno 5 hostErrorDetail1 5 hostErrorDetail2 5; close -> ok
    host -> fileClose destroy:t memFree:b memFree:m memFree:b memFree:m memFree:b memFree:m
    is fd -1 heldCount 0 lastErrno 0
    is hostErrorDetail1 0 hostErrorDetail2 0 stateFlags 0 bufferCount 2)");
  EXPECT_EQ(guardCalls, 11);
  EXPECT_EQ(calls().at(Call::fileClose).flags, 0U);
  play("open block 4 2; read 1; acquire; writeOwn 5 6; close -> ok pwrite 8192@20480");
  const std::string block = " memFree:m memFree:b memFree:m";
  EXPECT_EQ(calls().hostCalls(), block.substr(1) + " fileClose" + block + block);
  play("is fileSize 28672 firstBlockRead 0; close -> notOpen");
}

// A failed flush keeps the file attached, so that the host can try again.
TEST_F(WholeFileTest, CloseFlushesFirstWhereAsked) {
  play(R"(
    open buffered 2; close 0xFFFFFFFE; bytes -> 12288
    open block 4; set openOptions optionDirectIo+optionFlushAtClose; writeOwn 5
    close -> ok pwrite 4096@20480 fsync
    open block 4; set openOptions optionDirectIo+optionFlushAtClose; read 1; writeOwn 5
    fail fsync; close -> ioFailed pwrite 4096@20480 fsync!EIO
    lists -> blocks empty empty heldBlocks 1-4; is stateFlags 0 heldCount 1
    read 2 -> notOpen
    close -> notOpen
    open -> alreadyOpen
    delete -> deleteWhileOpen unreported
    set openOptions optionDirectIo; close; open buffered 4
    set writeAccess noWrite openOptions optionFlushAtClose; close -> notWritable)");
  EXPECT_NE(h->hostFile, nullptr);
}

// Later failures of the clean-up must not hide the one that lost pages.
TEST_F(WholeFileTest, CloseKeepsItsFirstFailure) {
  // The first three releases (the report's text buffer, stale bits and data of the write block)
  // hold; the fourth and fifth, of its record and of the next block's stale bits, fail.
  play(R"(
    open block 4 2; writeOwn 5
    fail pwrite with ENOSPC and memFree number 4 times 2 with hostForeignBlock
    close -> noSpace pwrite 4096@20480!ENOSPC lseek 20480 ftruncate 20480 {report noSpace, error hostForeignBlock, error hostForeignBlock}
    is fd -1)");
  play(R"(
    open direct 4 2
    fail fileClose with hostNotRemoved and fileClose number 2 with hostCloseFailed
    close -> notRemoved unreported; lists -> free empty empty empty)");
  EXPECT_TRUE(h->hostFile != nullptr && h->pageTree != nullptr);
  EXPECT_EQ(did(call(&qz::OperationTable::qzpfreememhandle)), "ok {report alreadyOpen}");
  // The tree's refusal is ignored.
  play("close -> ioFailed unreported; fail destroy with hostBlocksLive; close -> ok");
}

// An open file is never deleted, and a delete that failed says so.
TEST_F(WholeFileTest, DeleteRemovesAClosedFile) {
  play(R"(
    open buffered 2; delete -> deleteWhileOpen unreported
    close; set openOptions optionAccessVariant)");
  h->status = qz::Status::busy;
  play(R"(
    delete -> ok; host -> fileOpen:O_RDWR@write+exclusive+noLock fileClose:remove
    is pageCount 0 fileSize 0; bytes -> -1
    set openOptions 0; delete -> notRemoved {error cannotRemoveReport(file)}; host -> fileOpen:O_RDWR@write+exclusive!)");
  EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 && h->status == qz::Status::busy);
  // No file, yet no reason given; then a file that cannot be closed.
  play(R"(
    file 1; fail fileOpen with 0 returning 0; delete -> notRemoved {error cannotRemoveReport(file)}
    fail fileClose with hostNotRemoved; delete -> notRemoved unreported
    delete -> deleteWhileOpen unreported
    close kRemoveFile; bytes -> -1)");
}

// The caller gets the new rights, and collected or held pages stay.
TEST_F(WholeFileTest, ReopenAppliesHints) {
  play(R"(
    hint readSequential writeNewPages 0 -> notOpen
    open buffered 4 2; read 2 a; hint readSequential noWrite optionAccessVariant -> ok
    host -> fileReopen:O_RDONLY@read
    is readAccess readSequential writeAccess noWrite openOptions optionAccessVariant
    is heldCount 1 lastPageRead 0 nextPage 1)");
  // The access mode has lost its lock bits; options are added, never removed.
  play(R"(
    writeOwn 5 -> ioFailed pwrite 4096@20480!EBADF lseek 20480 ftruncate 20480!EINVAL {report notTruncated, report ioFailed}
    return a; hint readOrdered rewritePages 0x00250200; host -> fileReopen:O_RDWR@write
    hint readOrdered rewritePages 0x00050000; host -> fileReopen:O_RDWR@write+exclusive
    is openOptions 0x00250202)");
}

// Holds of the old shape stay valid, and end in the new one without a leak.
TEST_F(WholeFileTest, ReopenFromBlocksToPages) {
  play(R"(
    open block 8 3; read 1 a; read 2 b; acquire c; writeOwn 9:1
    reopen direct -> ok pwrite 4096@36864)");
  const std::string released =
      "fileReopen:O_RDWR+O_DIRECT@write+exclusive memFree:m memFree:b memFree:m memFree:m "
      "memFree:b "
      "memFree:m treeCreate:t ";
  EXPECT_EQ(calls().hostCalls().find(released), 0) << calls().hostCalls();
  EXPECT_EQ(h->lastBlock, nullptr);
  play(R"(
    lists -> free empty empty empty empty heldBlocks 1-4(2 holds) acquired empty; is heldCount 3
    writeOwn 2:5 -> ok pwrite 4096@8192; has b 2:5
    write 1:3 a -> ok pwrite 4096@4096
    return b; host -> memFree:m memFree:b memFree:m
    write 10:1 c -> ok pwrite 4096@40960; lists -> free empty empty empty empty blocks empty
    is heldCount 0
    read 1:3 -> ok pread 4096@4096
    reopen block; lists -> held empty blocks empty empty empty write empty
    read 10 -> ok pread 16384@36864=8192)");
}

}  // namespace
}  // namespace qztest
