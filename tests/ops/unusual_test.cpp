// Cases that only unusual hosts, sizes and orders of calls lead to.
#include <fmt/format.h>

#include "script.h"

namespace qztest {
namespace {

using qz::Status;

class UnusualTest : public ScriptTest {};

// Sizes whose sums or products overflow, and a page size of 0, must be refused.
TEST_F(UnusualTest, SizesThatOverflowAreRefused) {
  play(R"(
    makeFile 2; settle buffered; set headerSize 9223372036854775807 pageCount 1; open -> misfit
    settle buffered; set pageSize 0 minPageSize 0 defaultPageSize 0; open -> misfit
    settle block; set requestedBlockBytes 2305843009213693953; open -> noMemory {error noMemory})");
}

// The system moves at most 0x7FFFF000 bytes with one call. A larger page must be refused before the
// file is opened, a larger block before any record is made.
TEST_F(UnusualTest, PagesAndBlocksThatNoCallCanMoveAreRefused) {
  play(R"(
    settle buffered; set pageSize 0x7FFFF001; open -> misfit; count fileOpen 0
    settle block; set headerSize 0 pageSize 512 requestedBlockBytes 0x7FFFFE00; makeFile 0 0
    open -> noMemory {error noMemory}
    hostCalls -> fileOpen O_RDWR+O_DIRECT for write+exclusive, fileClose remove
    settle block; set headerSize 0 requestedBlockBytes 0x7FFFF000; makeFile 0 0
    fail memAlloc number 2; open -> noMemory {error noMemory}; is blockBytes 0x7FFFF000
    count memAlloc 2)");
}

// A name may be the handle's own, with or without its terminator. The size in bytes of a very long
// one must not overflow where sizes have 32 bits.
TEST_F(UnusualTest, NamesThatAreTheHandlesOwnOrVeryLong) {
  using Table = qz::OperationTable;
  const std::u32string ownName(h->fileName, h->fileNameLength);
  for (const int extra : {0, 1}) {
    EXPECT_EQ(did(call(&Table::qzpsetfilename, h->fileName, h->fileNameCapacity + extra)),
              "ok: statfs");
    EXPECT_EQ(std::u32string(h->fileName, ownName.size()), ownName);
  }
  calls().plan({{Call::memAlloc}});
  const char32_t name[] = U"name";
  EXPECT_EQ(call(&Table::qzpsetfilename, name, INT32_MAX), Status::noMemory);
  EXPECT_EQ(calls().count(Call::memAlloc), sizeof(void*) == 4 ? 0 : 1);
  setName(path);
}

// Page counts near the largest 64-bit number must not overflow. The caller's counts are believed,
// and all transfers are simulated.
TEST_F(UnusualTest, TheLastPageThatCanBeNumberedIsReadAndWritten) {
  playRows(R"(
    settle buffered; makeFile 1
    set readAccess readSequential sequentialStartPage <page> pageSize 1 headerSize 0
    set pageCount <page> fileSize <page>; open; fail pread returning 1 and pwrite returning 1
    read <page> -> ok: pread 1 at 9223372036854775806
    read <page> -> ok
    write <page> -> ok: pwrite 1 at 9223372036854775806; is nextPage <page>
    set nextPage 1; fail pread returning 1
    readMany <page> 2 kContiguous -> ok: pread 2 at 9223372036854775806 moves 1; is nextPage <page>
    set nextPage 1; fail lseek returning 0 and readv returning 1
    readMany <page> 2 scattered; is nextPage <page>
    set nextPage 1; fail lseek returning 0 and ftruncate returning 0
    truncate <page>; is nextPage <page>)",
           "page\n9223372036854775807");
}

// Hosts may pass no journal and have no default one: reports and notes must not crash then.
TEST_F(UnusualTest, ReportsAndNotesWithoutAnyJournal) {
  journal = nullptr;
  host.handle()->defaultJournal = nullptr;
  play(
      "makeFile 0 8; settle buffered; preopen 16 -> shorterThanHeader: read 16 moves 8 unreported");
  setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1);
  play("set headerSize 8; open; close");
  journal = &recorder;
  play("set readAccess 32; open");  // an access without a name has no note
  EXPECT_NE(recorder.entries.find("Write Access"), std::string::npos) << recorder.entries;
  EXPECT_EQ(recorder.entries.find("Read Access"), std::string::npos);
  unsetenv("QZIOP_DISPLAY_IOP_TYPE");
}

// Buffer counts at the ends of their range must not wrap around.
TEST_F(UnusualTest, BufferCountsAtTheirLimits) {
  play(R"(
    open block 8; add -2147483648; set bufferCount -2147483648; remove 1
    is bufferCount -2147483648
    close; open block 8; set bufferCount 6; reopen block
    lists -> freeBlocks empty empty empty empty empty empty writeBlock empty)");
}

// A write must not read beyond the end of a block, where its page would begin inside the block.
TEST_F(UnusualTest, APageThatWouldEndBehindItsBlockIsNotWritten) {
  play("open block 8; read 4 a; write 4 a+8 -> notHeld; return a");
}

// A replaced qzpclose may leave the file open after a short read. The short block must not stay in
// the cache, unless the caller holds it.
TEST_F(UnusualTest, AShortPageWhoseCloseIsReplaced) {
  static auto original = module->operations.qzpclose;
  const auto leavingOpen = [](qz::FileHandle*, std::uint32_t, qz::Journal*) { return Status::ok; };
  const auto openingAgain = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* log) {
    original(file, flags, log);
    return file->ops->operations.qzpopen(file, log);
  };
  const std::string shortRead = "read 2 -> misfit: pread 16384 at 4096 moves 4196; fail nothing";
  const std::string again = "read 2:0 -> ok: pread 16384 at 4096; close";
  const struct {
    decltype(original) close;
    std::string first, second;
  } rows[] = {{leavingOpen, shortRead, again},
              {openingAgain, shortRead, again},
              {leavingOpen, "read 1; read 2 -> misfit; fail nothing", "read 2 -> misfit"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    play("open block 8; fail pread returning 4196");
    module->operations.qzpclose = row.close;
    play(row.first);
    module->operations.qzpclose = original;
    play(row.second);
  }
}

// A block that is held across a reopen fixes the block size. A reopen back to blocks that fails
// must not change it.
TEST_F(UnusualTest, AFailedReopenKeepsTheSizeOfAHeldBlock) {
  play(R"(
    open block 8; read 1 a; reopen direct; fail memFree with hostForeignBlock
    reopen block -> ioFailed {error hostForeignBlock}
    fail nothing; is blockBytes 16384 pagesPerBlock 4; lists -> heldBlocks 1-4
    return a)");
}

// A reopen that lacks memory leaves a handle without a page tree. A page held since before must
// still be written.
TEST_F(UnusualTest, AHeldPageIsWrittenWithoutAPageTree) {
  play(R"(
    open direct 8; read 1 a; reopen block; fail treeCreate
    reopen direct -> noMemory {error noMemory}
    fail nothing; write 1:1 a -> ok: pwrite 4096 at 4096
    read 1 -> noBuffer; onDisk 1:1)");
}

qz::OperationTable originals;
std::string replaced;  // the calls of replaced entries, with their arguments

class InternalCallTest : public ScriptTest {
 protected:
  void SetUp() override {
    originals = module->operations;
    module->operations.qzpclose = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* j) {
      replaced += fmt::format("close {} ", flags);
      return originals.qzpclose(file, flags, j);
    };
    module->operations.qzpinfo = [](qz::FileHandle* file, qz::Journal* j) {
      replaced += "info ";
      return originals.qzpinfo(file, j);
    };
    module->operations.qzptruncate = [](qz::FileHandle* file, std::int64_t pages, qz::Journal* j) {
      replaced += fmt::format("truncate {} ", pages);
      return originals.qzptruncate(file, pages, j);
    };
    module->operations.qzpflush = [](qz::FileHandle* file, qz::Journal* j) {
      replaced += "flush ";
      return originals.qzpflush(file, j);
    };
  }
};

// The module calls four operations itself: close, info, truncate and flush. It must do so through
// the table, where a host may have replaced them.
TEST_F(InternalCallTest, GoThroughTheTable) {
  const std::pair<const char*, std::string> rows[] = {
      {"set hostPageSize 0; choosePageSize 0 0 0", "info "},
      {"makeFile 2; settle buffered; set hostPageSize 0; open", "info "},
      {"fail pread half; read 2 -> misfit: pread 4096 at 8192 moves 2048", "close 0 "},
      {"settle block; fail memAlloc; open -> noMemory {error noMemory}", "close 0 "},
      {"settle block; set openMode openOrRemove; fail memAlloc; open -> noMemory {error noMemory}",
       "close 1 "},
      {"makeFile 2 1; settle block; open -> misfit", "close 0 "},
      {"set openMode createOrReplace; fail ftruncate; open -> notTruncated: ftruncate 0 fails with "
       "EIO",
       "close 1 "},
      {"open buffered 4; fail pwrite with ENOSPC; writeOwn 5 -> "
       "noSpace: pwrite 4096 at 20480 fails with ENOSPC, lseek 20480, ftruncate 20480",
       "truncate 4 "},
      {"fail pwrite with EDQUOT; writeHeader 1 -> noSpace: pwrite 4096 at 0 fails with EDQUOT, "
       "lseek 4096, ftruncate "
       "4096",
       "truncate 0 "},
      {"close", "close 0 "},
      {"open block 4; writeOwn 5 6; fail pwrite; read 5 -> "
       "ioFailed: pwrite 8192 at 20480 fails with EIO, lseek 20480, ftruncate 20480 {report "
       "ioFailed, report "
       "ioFailed}",
       "truncate 4 "},
      {"set openOptions optionDirectIo+optionFlushAtClose; close -> ok: fsync", "close 0 flush "}};
  setName(path);
  EXPECT_EQ(replaced, "info ");
  for (const auto& [script, internalCalls] : rows) {
    replaced.clear();
    play(script);
    EXPECT_EQ(replaced, internalCalls) << script;
  }
}

}  // namespace
}  // namespace qztest
