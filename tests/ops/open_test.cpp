// Open: the physical open, the geometry, the buffers.
#include <fmt/format.h>

#include <filesystem>

#include "script.h"

namespace qztest {
namespace {

class OpenTest : public ScriptTest {};

TEST_F(OpenTest, HintsBecomeFlagsAndAccessMode) {
  playRows(R"(
    set readAccess %1 writeAccess %2 openOptions %3 openMode %4 directIoSupport %5
    set pageCount 9 fileSize 9; fail fileOpen!80FFE006=2; open -> 801; host -> fileOpen:%6!
    is directIoMode %7 pageCount %8 fileSize %8)",
           R"(
0 | 0 | 0 | 1 | 65536 | 0@10 | 0 | 9
0 | 1 | 0 | 1 | 65536 | 1@5 | 0 | 9
4 | 9 | 0 | 2 | 65536 | 42@5 | 0 | 0
1 | 1 | 0x2 | 1 | 65536 | 2@33 | 0 | 9
1 | 0 | 0x80210002 | 1 | 65536 | 0@32801 | 0 | 9
1 | 0 | 0x04000000 | 1 | 65536 | 0@10 | 0 | 9
2 | 2 | 0x100 | 1 | 65536 | 4002@5 | 1 | 9
8 | 0 | 0x100 | 1 | 1 | 4000@10 | 1 | 9
0 | 1 | 0x100 | 2 | 65536 | 4041@5 | 3 | 0
2 | 2 | 0x100 | 1 | -2 | 2@5 | 0 | 9)");
  EXPECT_TRUE(calls().at(Call::fileOpen).target == 0666 && calls().at(Call::fileOpen).length == 1);
}

TEST_F(OpenTest, HostStatusesAreMapped) {
  // A status of another kind; no file, yet no reason given.
  play("settle buffered; fail fileOpen!1=0; open -> 808; fail fileOpen!0=0; open -> 808; fail");
  std::filesystem::create_directory(path);
  play("open -> 803; delete -> 809 {4:FD4(~)}");
  setName(path + "/none/file");
  play("open -> 801");
}

TEST_F(OpenTest, RefusedDirectIoAndBusyFilesAreTriedAgain) {
  play(R"(
    settle block; file 2; fail fileOpen*2!80FFE002=22; open -> 808
    host -> fileOpen:4002@5! fileOpen:2@5!)");
  Library::get().qzextent(nullptr);  // nobody to wait with
  play("settle direct; set openRetryCount 5; fail fileOpen*2!80FFE011=0; open -> 807");
  Library::get().qzextent(host.handle());
}

TEST_F(OpenTest, NotesTellTheIoType) {
  setenv("QZIOP_DISPLAY_IOP_TYPE", "", 1);
  const std::string open = R"(
    file 2; settle buffered; set readAccess %1 writeAccess %2 openOptions %3 directIoSupport %4
    open -> ok {)";
  const std::string reason = "2:Direct IO not being performed because %5: ~ ";
  const std::string read = "2:821(Read Access: %6|~) ";
  const std::string write = "2:821(Write Access: %7|~) ";
  const std::string large =
      "2:821(LARGE DIRECT IO|~) "
      "2:Page Size: 4096  Requested Transfer Size: 16384  Actual Transfer Size: 16384}; close";
  const auto playAll = [&] {
    playRows(open + reason + read + write + "2:821(VANILLA|~)}; close", R"(
2 | 2 | 0 | 1 | the application did not tell us to use Direct IO | Read Random | Rewrite Pages
2 | 2 | 256 | -2 | the filesystem type is not appropriate | Read Random | Rewrite Pages
2 | 2 | 0 | 0 | we were not told to use Direct IO | Read Random | Rewrite Pages)");
    playRows(open +
                 "2:Trying Direct IO with small buffers since read access is random or is "
                 "many-at-a-time: ~ " +
                 read + write + "2:821(DIRECT IO|~)}; close",
             "8 | 0 | 256 | 1 |  | Read Many | No Write");
    playRows(open + read + write + large, R"(
1 | 1 | 256 | 1 |  | Read Sequential | Write New Pages
0 | 1 | 256 | 1 |  | No Read | Write New Pages)");
    playRows(open + read + large, "16 | 7 | 256 | 1 |  | Read Hint");
    playRows(
        "fail fileOpen!80FFE002=22" + open + reason + read + write + "2:821(VANILLA|~)}; close",
        "4 | 2 | 256 | 1 | the open failed for Direct IO | Read Ordered | Rewrite Pages");
  };
  playAll();
  journal = nullptr;  // the host's default journal
  playAll();
  unsetenv("QZIOP_DISPLAY_IOP_TYPE");
}

TEST_F(OpenTest, BufferCountIsChosenWhereNotGiven) {
  const std::string script = R"(
    file 2; set bufferCount %1 readAccess %2 writeAccess %3 openOptions %4 sequentialStartPage 0
    open; is bufferCount %5 sequentialStartPage 1; lists -> )";
  settle(Shape::buffered);
  playRows(script + "%6; end", R"(
0 | 1 | 0 | 0 | 1 | free 0 0
-5 | 16 | 0 | 0x10 | 1 | free 0 0
0 | 0 | 2 | 0x10 | 1 | free 0 0
0 | 0 | 1 | 0 | 1 | free 0 0
0 | 0 | 1 | 0x10 | 0 | free 0
0 | 0 | 0 | 0 | 0 | free 0
0 | 1 | 0 | 0x100 | 1 | blocks 0 write 0-0
0 | 0 | 1 | 0x110 | 0 | write 0-0)");
  playRows(script + "; read 1 -> !80D; acquire -> !80D; end",
           "-5 | 0 | 0 | 0 | -5\n-5 | 0 | 0 | 0x100 | -5");
}

TEST_F(OpenTest, GeometryIsSettledOrRefused) {
  settle(Shape::buffered);
  playRows(R"(
    file 0 %1; set bufferCount 3 headerSize %2 pageSize %3 pageCount %4 fileSize %5
    open -> %6; is pageSize %7 pageCount %8; bytes -> %1; end)",
           R"(
10000 | 0 | 0 | 0 | 0 | !818 | 4096 | 3
4096 | 0 | 0 | 0 | 0 | ok | 512 | 8
4097 | 1 | 0 | 0 | 0 | ok | 4096 | 1
0 | 100 | 0 | 0 | 0 | !818 | 512 | 1
88 | 600 | 512 | 0 | 0 | !818 | 512 | 1
8192 | 4096 | 4096 | 2 | 0 | !818 | 4096 | 3
8192 | 4096 | 4096 | 2 | 12288 | ok | 4096 | 2
8192 | 0 | 4096 | 9223372036854775807 | 0 | !818 | 4096 | 9223372036854775807)");
}

TEST_F(OpenTest, RefusesWhatIsOpenAttachedOrNegative) {
  play(R"(
    open direct 2; set pageSize -1; open -> !81F; set pageSize 4096
    read 1 -> ok pread 4096@4096; fail fileClose!80FFE00C; close -> 808
    set pageSize -1; open -> !81F; set pageSize 4096; close)");
  playRows(R"(
    settle direct; file 2; set %1 -1; open -> !818; count fileOpen 0; preopen 8 -> ok read 8
    open -> !818; is stateFlags 1; close)",
           "pageCount\nfileSize\nheaderSize\npageSize");
}

TEST_F(OpenTest, CreatesOrReplaces) {
  host.setHostPageSize(8192);
  play(R"(
    settle direct; set openMode 2 pageCount 9 fileSize 9 pageSize 0 hostPageSize 0
    open -> ok ftruncate 0 statfs; is pageCount 0 fileSize 0 headerSize 0 pageSize 8192; close
    fail ftruncate; open -> 81C ftruncate 0!5 {!81C}; is lastErrno 5; bytes -> -1)");
}

TEST_F(OpenTest, BuffersAreMadeInOrder) {
  const std::string page = fmt::format(" memAlloc:m{} memAlloc:b4096", sizeof(qz::PageBuffer));
  const std::string block =
      fmt::format(" memAlloc:m{}z memAlloc:b16384 memAlloc:m1z", sizeof(qz::BlockRecord));
  play("open buffered 1 1; host -> fileOpen:2@5 treeCreate:t" + page + page);
  EXPECT_EQ(calls().at(Call::treeCreate).length, offsetof(qz::PageBuffer, pageNumber));
  play("is nextPage 1 lastPageRead 0; close");
  play("open block 1 1; host -> fileOpen:4002@5" + block + block);
  play("lists -> blocks 0 write 0-0; close");
}

TEST_F(OpenTest, BlocksAreWholePagesAndWholeTransfers) {
  const std::string script = R"(
    settle block; file 0 100; set headerSize 100 bufferCount 0 readAccess 0 writeAccess 1
    set openOptions 0x110 pageSize %1 requestedBlockBytes %2; open -> )";
  playRows(script + "ok; is blockBytes %3 pagesPerBlock %4 bitmapBytes %5; close", R"(
4096 | 0 | 262144 | 64 | 8
3000 | 0 | 98304000 | 32768 | 4096
524288 | 0 | 524288 | 1 | 1
4096 | 6144 | 12288 | 3 | 1
4096 | -5 | 262144 | 64 | 8)");
  playRows(script + "002 {4:002}; is fd -1; count memAlloc 0",
           "4096 | 2147483648\n4096 | 1099511631872\n1073741824 | 805306368");
}

// Releases that fail on the way are journalled first, the missing memory after them.
TEST_F(OpenTest, FailedCleanUpIsJournalled) {
  play(R"(
    settle block; file 2; fail memAlloc#3 memFree*2!80FFE101
    open -> 002 {4:80FFE101 4:80FFE101 4:002})");
}

}  // namespace
}  // namespace qztest
