// What only unusual hosts, sizes and orders of calls lead to.
#include <fmt/format.h>

#include "script.h"

namespace qztest {
namespace {

using qz::Status;

class UnusualTest : public ScriptTest {};

TEST_F(UnusualTest, SizesThatNoFileOrBlockCanHave) {
  play(R"(
    file 2; settle buffered; set headerSize 9223372036854775807 pageCount 1; open -> !818
    settle buffered; set pageSize 0 minPageSize 0 defaultPageSize 0; open -> !818
    settle block; set requestedBlockBytes 2305843009213693953; open -> 002 {4:002})");
  // The system moves at most 0x7FFFF000 bytes with one call. A larger page is refused before the
  // file is opened, a larger block before any record is made.
  play(R"(
    settle buffered; set pageSize 0x7FFFF001; open -> !818; count fileOpen 0
    settle block; set headerSize 0 pageSize 512 requestedBlockBytes 0x7FFFFE00; file 0 0
    open -> 002 {4:002}; host -> fileOpen:4002@5 fileClose:remove
    settle block; set headerSize 0 requestedBlockBytes 0x7FFFF000; file 0 0; fail memAlloc#2
    open -> 002 {4:002}; is blockBytes 0x7FFFF000; count memAlloc 2)");
  using Table = qz::OperationTable;
  // The handle's own name, and the name with its terminator.
  const std::u32string ownName(h->fileName, h->fileNameLength);
  for (const int extra : {0, 1}) {
    EXPECT_EQ(did(call(&Table::qzpsetfilename, h->fileName, h->fileNameCapacity + extra)),
              "ok statfs");
    EXPECT_EQ(std::u32string(h->fileName, ownName.size()), ownName);
  }
  calls().plan({{Call::memAlloc}});
  const char32_t name[] = U"name";
  EXPECT_EQ(call(&Table::qzpsetfilename, name, INT32_MAX), Status::noMemory);
  EXPECT_EQ(calls().count(Call::memAlloc), sizeof(void*) == 4 ? 0 : 1);
  setName(path);
}

// Sizes as the caller gives them are believed.
TEST_F(UnusualTest, TheLastPageThatCanBeNumbered) {
  playRows(R"(
    settle buffered; file 1; set readAccess 1 sequentialStartPage %1 pageSize 1 headerSize 0
    set pageCount %1 fileSize %1; open; fail pread=1 pwrite=1
    read %1 -> ok pread 1@9223372036854775806; read %1 -> ok
    write %1 -> ok pwrite 1@9223372036854775806; is nextPage %1
    set nextPage 1; fail pread=1; many %1 2 8 -> ok pread 2@9223372036854775806=1; is nextPage %1
    set nextPage 1; fail lseek=0 readv=1; many %1 2 0; is nextPage %1
    set nextPage 1; fail lseek=0 ftruncate=0; truncate %1; is nextPage %1)",
           "9223372036854775807");
}

TEST_F(UnusualTest, NoJournalAnywhere) {
  journal = nullptr;
  host.handle()->defaultJournal = nullptr;
  play("file 0 8; settle buffered; preopen 16 -> 816 read 16=8");
  setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1);
  play("set headerSize 8; open; close");
  journal = &recorder;
  play("set readAccess 32; open");  // no hint that has a name
  EXPECT_NE(recorder.entries.find("Write Access"), std::string::npos) << recorder.entries;
  EXPECT_EQ(recorder.entries.find("Read Access"), std::string::npos);
  unsetenv("QZIOP_DISPLAY_IOP_TYPE");
}

TEST_F(UnusualTest, BufferCountsAtTheirLimits) {
  play(R"(
    open block 8; add -2147483648; set bufferCount -2147483648; remove 1
    is bufferCount -2147483648; close
    open block 8; set bufferCount 6; reopen block; lists -> blocks 0 0 0 0 0 0 write 0-0)");
}

TEST_F(UnusualTest, AddressesNearTheEndOfABlock) {
  play("open block 8; read 4 a; write 4 a+8 -> !814; give a");
}

// A replaced qzpclose may leave the file open after a short read. The short block must not stay in
// the cache, unless the caller holds it.
TEST_F(UnusualTest, AShortPageWhoseCloseIsReplaced) {
  static auto original = module->operations.qzpclose;
  const auto puttingOff = [](qz::FileHandle*, std::uint32_t, qz::Journal*) { return Status::ok; };
  const auto openingAgain = [](qz::FileHandle* file, std::uint32_t flags, qz::Journal* log) {
    original(file, flags, log);
    return file->ops->operations.qzpopen(file, log);
  };
  const std::string shortRead = "read 2 -> 818 pread 16384@4096=4196 {!818}; fail";
  const std::string again = "read 2:0 -> ok pread 16384@4096; close";
  const struct {
    decltype(original) close;
    std::string first, second;
  } rows[] = {{puttingOff, shortRead, again},
              {openingAgain, shortRead, again},
              {puttingOff, "read 1; read 2 -> !818; fail", "read 2 -> !818"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    play("open block 8; fail pread=4196");
    module->operations.qzpclose = row.close;
    play(row.first);
    module->operations.qzpclose = original;
    play(row.second);
  }
}

// Blocks that the caller still holds fix the block size, also where a change of shape stops.
TEST_F(UnusualTest, AChangeOfShapeThatStopsWithBlocksHeld) {
  play(R"(
    open block 8; read 1 a; reopen direct; fail memFree!80FFE101
    reopen block -> 808 {4:80FFE101}; fail; is blockBytes 16384 pagesPerBlock 4
    lists -> heldBlocks 1-4; give a)");
}

// A page that was handed out before goes back without a tree to enter it in.
TEST_F(UnusualTest, AWriteWithoutAPageTree) {
  play(R"(
    open direct 8; read 1 a; reopen block; fail treeCreate; reopen direct -> 002 {4:002}; fail
    write 1:1 a -> ok pwrite 4096@4096; read 1 -> !80D; disk 1:1)");
}

// The four operations that the module calls itself go through the table, where a host may have
// put another entry.

qz::OperationTable originals;
std::string replaced;  // the calls of replaced entries

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

TEST_F(InternalCallTest, GoThroughTheTable) {
  const std::pair<const char*, std::string> rows[] = {
      {"set hostPageSize 0; psize 0 0 0", "info "},
      {"file 2; settle buffered; set hostPageSize 0; open", "info "},
      {"fail pread=half; read 2 -> 818 pread 4096@8192=2048 {!818}", "close 0 "},
      {"settle block; fail memAlloc; open -> 002 {4:002}", "close 0 "},
      {"settle block; set openMode 0; fail memAlloc; open -> 002 {4:002}", "close 1 "},
      {"file 2 1; settle block; open -> !818", "close 0 "},
      {"set openMode 2; fail ftruncate; open -> 81C ftruncate 0!5 {!81C}", "close 1 "},
      {"open buffered 4; fail pwrite!28; own 5 -> "
       "80F pwrite 4096@20480!28 lseek 20480 ftruncate 20480 {!80F}",
       "truncate 4 "},
      {"fail pwrite!122; header 1 -> 80F pwrite 4096@0!122 lseek 4096 ftruncate 4096 {!80F}",
       "truncate 0 "},
      {"close", "close 0 "},
      {"open block 4; own 5 6; fail pwrite; read 5 -> "
       "808 pwrite 8192@20480!5 lseek 20480 ftruncate 20480 {!808 !808}",
       "truncate 4 "},
      {"set openOptions 0x300; close -> ok fsync", "close 0 flush "}};
  setName(path);
  EXPECT_EQ(replaced, "info ");
  for (const auto& [script, wanted] : rows) {
    replaced.clear();
    play(script);
    EXPECT_EQ(replaced, wanted) << script;
  }
}

}  // namespace
}  // namespace qztest
