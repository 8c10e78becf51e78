// What only unusual hosts, sizes and orders of calls lead to.
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
  using Table = qz::OperationTable;
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
  playRows(R"(
    settle buffered; file 1; set readAccess 1 sequentialStartPage %1 pageSize 1 headerSize 0
    set pageCount %1 fileSize %1; open; fail pread=1 pwrite=1
    read %1 -> ok pread 1@9223372036854775806; read %1 -> ok
    write %1 -> ok pwrite 1@9223372036854775806; is nextPage %1)",
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

// Where a host puts something in the place of the close, nothing of a block that came short stays
// cached, unless it is held.
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

}  // namespace
}  // namespace qztest
