// Header, flush, close, reopen, delete: what concerns the file as a whole.
#include <fmt/format.h>

#include <fstream>

#include "script.h"

namespace qztest {
namespace {

class WholeFileTest : public ScriptTest {};

TEST_F(WholeFileTest, HeaderIsPaddedOrWrittenWhole) {
  playRows(R"(
    header -1 -> !81E; open %1 2; set nextPage 9 lastErrno 9; header 10 -> ok pwrite 4096@0
    host -> memAlloc:b4096z memFree:b; is lastErrno 0; header -1 -> !009
    fail memAlloc; header 4 -> !002; is length 0
    fail memFree!80FFE101; header 4 -> ok pwrite 4096@0 {!80FFE101}; fail
    header 4096 -> ok pwrite 4096@0; host ->; header 8192 -> ok pwrite 8192@0; is fileSize 12288
    set fileSize 4096; header 8192 -> ok pwrite 8192@0; is fileSize 8192
    set writeAccess 0; header -1 -> !80E; close)",
           kShapeRows);
}

int guardCalls = 0;

TEST_F(WholeFileTest, CloseReleasesEverything) {
  play("close -> !81E; open direct 4 2; read 1; rewrite 2:1");
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
  play("open block 4 2; read 1; acquire; own 5 6; close -> ok pwrite 8192@20480");
  const std::string block = " memFree:m memFree:b memFree:m";
  EXPECT_EQ(calls().hostCalls(), block.substr(1) + " fileClose" + block + block);
  play("is fileSize 28672 firstBlockRead 0; close -> !81E");
}

TEST_F(WholeFileTest, CloseFlushesFirstWhereAsked) {
  play(R"(
    open buffered 2; close 0xFFFFFFFE; bytes -> 12288
    open block 4; set openOptions 0x300; own 5; close -> ok pwrite 4096@20480 fsync
    open block 4; set openOptions 0x300; read 1; own 5
    fail fsync; close -> 808 pwrite 4096@20480 fsync!5 {!808}
    lists -> blocks 0 0 heldBlocks 1-4; is stateFlags 0 heldCount 1
    read 2 -> !81E; close -> !81E; open -> !81F; delete -> 823; set openOptions 0x100; close
    open buffered 4; set writeAccess 0 openOptions 0x200; close -> !80E)");
  EXPECT_NE(h->hostFile, nullptr);
}

TEST_F(WholeFileTest, CloseKeepsItsFirstFailure) {
  // Releases 1 and 3 of the plan are the report's text buffer and the stale bits.
  play(R"(
    open block 4 2; own 5; fail pwrite!28 memFree#4*2!80FFE101
    close -> 80F pwrite 4096@20480!28 lseek 20480 ftruncate 20480 {!80F 4:80FFE101 4:80FFE101}
    is fd -1)");
  play(R"(
    open direct 4 2; fail fileClose!80FFE00D fileClose#2!80FFE00C; close -> 809
    lists -> free 0 0 0)");
  EXPECT_TRUE(h->hostFile != nullptr && h->pageTree != nullptr);
  EXPECT_EQ(did(call(&qz::OperationTable::qzpfreememhandle)), "ok {!81F}");
  play("close -> 808; fail destroy!80FFE102; close -> ok");  // the tree's answer is not looked at
}

TEST_F(WholeFileTest, DeleteRemovesAClosedFile) {
  play("open buffered 2; delete -> 823; close; set openOptions 2");
  h->status = qz::Status::busy;
  play(R"(
    delete -> ok; host -> fileOpen:2@37 fileClose:remove; is pageCount 0 fileSize 0; bytes -> -1
    set openOptions 0; delete -> 809 {4:FD4(~)}; host -> fileOpen:2@5!)");
  EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 && h->status == qz::Status::busy);
  // No file, yet no reason given; then a file that cannot be closed.
  play(R"(
    file 1; fail fileOpen!0=0; delete -> 809 {4:FD4(~)}; fail fileClose!80FFE00D; delete -> 809
    delete -> 823; close 1; bytes -> -1)");
}

TEST_F(WholeFileTest, ReopenAppliesHints) {
  play(R"(
    hint 1 1 0 -> !81E; open buffered 4 2; read 2 a; hint 1 0 2 -> ok; host -> fileReopen:0@2
    is readAccess 1 writeAccess 0 openOptions 2 heldCount 1 lastPageRead 0 nextPage 1)");
  // The access mode has lost its lock bits; options are added, never removed.
  play(R"(
    own 5 -> 808 pwrite 4096@20480!9 lseek 20480 ftruncate 20480!22 {!81C !808}; give a
    hint 4 2 0x00250200; host -> fileReopen:2@1; hint 4 2 0x00050000; host -> fileReopen:2@5
    is openOptions 0x00250202)");
}

TEST_F(WholeFileTest, ReopenFromBlocksToPages) {
  play(R"(
    open block 8 3; read 1 a; read 2 b; acquire c; own 9:1
    reopen direct -> ok pwrite 4096@36864)");
  const std::string released =
      "fileReopen:4002@5 memFree:m memFree:b memFree:m memFree:m memFree:b memFree:m treeCreate:t ";
  EXPECT_EQ(calls().hostCalls().find(released), 0) << calls().hostCalls();
  EXPECT_EQ(h->lastBlock, nullptr);
  play(R"(
    lists -> free 0 0 0 0 heldBlocks 1-4x2 acquired 0; is heldCount 3
    own 2:5 -> ok pwrite 4096@8192; has b 2:5; write 1:3 a -> ok pwrite 4096@4096; give b
    host -> memFree:m memFree:b memFree:m; write 10:1 c -> ok pwrite 4096@40960
    lists -> free 0 0 0 0 blocks 0; is heldCount 0; read 1:3 -> ok pread 4096@4096
    reopen block; lists -> held 0 blocks 0 0 0 write 0-0; read 10 -> ok pread 16384@36864=8192)");
}

}  // namespace
}  // namespace qztest
