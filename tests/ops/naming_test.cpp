// Handles, file names, pre-open, and what is known of a file before it is open.
#include <cstring>
#include <filesystem>

#include "script.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

class NamingTest : public ScriptTest {
 protected:
  // A handle without a name in place of the first one.
  void renew() {
    EXPECT_EQ(module->operations.qzpfreememhandle(h, journal), Status::ok);
    h = module->operations.qzpgetmemhandle(module, journal);
  }
};

// A handle starts with the fields that hosts expect, and reports its last outcome.
TEST_F(NamingTest, FreshHandle) {
  renew();
  qz::FileHandle expected{};
  std::memcpy(expected.eyecatcher, "nevo", 4);
  std::memcpy(expected.nameText, "QZ Member Handle", 16);
  expected.objectName = h->nameText;
  expected.pool = module->modulePool;
  expected.ops = expected.module = module;
  expected.fd = -1;
  // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison): gaps between fields are zero as well
  EXPECT_EQ(std::memcmp(h, &expected, sizeof expected), 0);
  h->status = Status::busy;
  play("set lastErrno 2 hostErrorDetail1 3 hostErrorDetail2 4 directIoMode 5");
  const qz::StatusReport wanted{Status::busy, 2, 3, 4, 5};
  qz::StatusReport report{};
  EXPECT_EQ(module->operations.qzpgetstatus(h, &report), Status::ok);
  EXPECT_EQ(std::memcmp(&report, &wanted, sizeof report), 0);
}

// A handle with a file attached must not be freed.
TEST_F(NamingTest, HandlesAreMadeAndFreed) {
  calls().plan({{Call::memAlloc}});
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpgetmemhandle(module, journal), nullptr);
  EXPECT_EQ(recorder.entries, "error noMemory");
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpfreememhandle(nullptr, journal), Status::badArgument);
  EXPECT_EQ(recorder.entries, "");
  play("settle buffered; file 1; preopen 16");
  EXPECT_EQ(did(call(&Table::qzpfreememhandle)), "ok {report alreadyOpen}");
  play("close");
  calls().plan({{Call::memFree, 1, 1, -1, qz::hostForeignBlock}});  // the name's
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpfreememhandle(h, journal), Status::badArgument);
  EXPECT_EQ(recorder.entries, "error hostForeignBlock");
  h = nullptr;
}

// A name that cannot be stored must not leave a freed one in the handle.
TEST_F(NamingTest, NamesGrowTheirBufferAndNeverShrinkIt) {
  renew();
  recorder.fileName = U"efgh";
  play("name -> ok statfs; host -> memAlloc:m4 memAlloc:m4 memFree:m");
  EXPECT_EQ(h->fileName[0], U'\0');
  play(R"(
    name abcd -> ok statfs; host -> memFree:m memAlloc:m20 memAlloc:m20 memFree:m
    name xyz -> ok; host ->; is fileNameCapacity 4 fileNameLength 3)");
  EXPECT_EQ(std::u32string_view(h->fileName), U"xyz");
  play("name efgh -> ok statfs");  // as long as the buffer: a new one
  EXPECT_EQ(did(call(&Table::qzpsetfilename, h->fileName, 4)), "ok statfs");  // its own buffer
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "badArgument");
  play(R"(
    fail memFree with hostForeignBlock undone
    name longer -> badArgument {error hostForeignBlock})");
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  play(R"(
    fail memAlloc; name longer -> noMemory {error noMemory}
    is fileNameCapacity 0 fileNameLength 0)");
  EXPECT_EQ(h->fileName, nullptr);
}

// A second name or pre-open would lose the file that is attached.
TEST_F(NamingTest, NothingIsNamedOrPreopenedTwice) {
  play(R"(
    settle buffered; file 1; set openMode createOrReplace; preopen 16 -> noHeaderYet
    count fileOpen 0
    set openMode openOrKeep; preopen -1 -> badArgument; count fileOpen 0
    preopen 16 -> ok read 16; is stateFlags statePreopened
    set openMode createOrReplace; preopen -1 -> alreadyOpen)");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "alreadyOpen");
  play("set openMode openOrKeep; open; count fileOpen 0; read 1 -> ok pread 4096@4096");
}

// Unaligned memory needs a copy under direct I/O, and only there.
TEST_F(NamingTest, PreopenReadsTheHeader) {
  // Closing a file that is taken for empty removes it.
  playRows(R"(
    file 1; settle <shape>; preopen <bytes> <shift> -> ok read <bytes>; is length <bytes>
    host -> fileOpen:<flags>@write+exclusive<staging>
    set fileSize 1; close)",
           R"(
shape | bytes | shift | staging | flags
buffered | 4096 | 8 |  | O_RDWR
direct | 4096 | 0 |  | O_RDWR+O_DIRECT
direct | 512 | 8 |  memAlloc:b4096z memFree:b | O_RDWR+O_DIRECT
block | 4096 | 8 |  memAlloc:b8192z memFree:b | O_RDWR+O_DIRECT
buffered | 0 | 0 |  | O_RDWR)");
}

// The caller learns how much of the header there is, and the file does not stay open.
TEST_F(NamingTest, PreopenOfAShortHeaderClosesAgain) {
  makeFile(0, 100);
  playRows(R"(
    settle <shape>; set lastErrno 0; fail <fault>
    preopen 512 -> shorterThanHeader<call> {error shortHeaderReport(file), report shorterThanHeader}
    is <length and error> fd -1 stateFlags 0; count fileClose 1)",
           R"(
shape | fault | call | length and error
buffered | nothing |  read 512=100 | length 100 lastErrno 0
direct | nothing |  read 512=100 | length 100 lastErrno 0
buffered | read |  read 512!EIO | length -1 lastErrno EIO
direct | memAlloc |  | length -1)");
  std::filesystem::remove(path);
  play("preopen 512 -> fileNotFound unreported; is lastErrno ENOENT");
}

// Direct I/O is judged by the file system of the file, not of the process.
TEST_F(NamingTest, FileSystemIsTestedInTheFilesFolder) {
  const std::string folder = std::filesystem::path(path).parent_path();
  std::filesystem::create_directory(folder + "/größe");
  const std::pair<std::string, std::string> rows[] = {
      {folder + "/größe/日本.qzp", folder + "/größe"}, {"plain", "."}, {"/top", "/"}};
  for (const auto& [file, tested] : rows) {
    renew();
    setName(file);
    EXPECT_EQ(calls().statfsPath, tested);
    EXPECT_EQ(h->directIoSupport, qz::directIoFit);
    EXPECT_STREQ(h->fsTypeName, "linux");
  }
  calls().fileSystemType = 0x6969;
  play("info -> ok statfs; is directIoSupport directIoNfs");
  EXPECT_STREQ(h->fsTypeName, "nfs");
  play(R"(
    set hostPageSize 0; fail statfs; info -> ok statfs!EIO
    is directIoSupport directIoTestFailed hostPageSize 4096
    set hostPageSize 0; fail memAlloc; info -> ok
    is directIoSupport directIoNoMemory hostPageSize 4096)");
  EXPECT_STREQ(h->fsTypeName, "");
}

// A host's page size that makes no sense must not lead to sizes that no file can have.
TEST_F(NamingTest, HostPageSizeSetsTheLimits) {
  h->status = Status::busy;
  playRows(R"(
    hostOption <option>; info -> ok statfs; is hostPageSize <size> defaultPageSize <size>
    is autoPageSizeLimit <limit> minPageSize 512 maxPageSize 1073741824)",
           R"(
option | size | limit
6144 | 12288 | 65536
1000 | 512000 | 262144
65536 | 65536 | 262144
0 | 4096 | 65536
-4096 | 4096 | 65536
1000001 | 4096 | 65536)");
  EXPECT_EQ(h->status, Status::busy);
  Library::get().qzextent(nullptr);
  play("info; is hostPageSize 4096");
  Library::get().qzextent(host.handle());
}

// The size chosen fits the bounds, or the caller is told that it does not.
TEST_F(NamingTest, PageSizesAreChosen) {
  playRows(R"(
    hostOption <option>; set hostPageSize 0
    choosePageSize <minimum> <maximum> <multiple> -> <outcome>; is pageSize <size>)",
           R"(
option | minimum | maximum | multiple | size | outcome
4096 | 0 | 0 | 0 | 4096 | ok statfs
4096 | 0 | 512 | 0 | 512 | ok statfs
4096 | 0 | 512 | 1024 | 1024 | inexactPageSize statfs unreported
4096 | 70000 | 0 | 0 | 73728 | ok statfs
4096 | 0 | 1000000 | 0 | 4096 | ok statfs
4096 | 3000 | 3000 | 0 | 2560 | inexactPageSize statfs unreported
4096 | 100000 | 50000 | 0 | 4096 | inexactPageSize statfs unreported
4096 | 0 | 0 | 3000 | 1536000 | inexactPageSize statfs unreported
4096 | 5000 | 8000 | 0 | 4096 | inexactPageSize statfs unreported
4096 | 1073741825 | 1073741826 | 0 | 4096 | inexactPageSize statfs unreported
4096 | 1073741824 | 1073741825 | 0 | 1073741824 | ok statfs
4096 | 0 | 0 | -1 | 4096 | inexactPageSize statfs unreported
4096 | 0 | 0 | 0x7FFFFFFF | 4096 | inexactPageSize statfs unreported
65536 | 8192 | 0 | 0 | 262144 | ok statfs
65536 | 0 | 8192 | 0 | 8192 | ok statfs
0x60000000 | 0x40000001 | 0x40000002 | 0 | 0x60000000 | inexactPageSize statfs unreported
0x60000000 | 1000 | 600 | 0x50000000 | 0x60000000 | inexactPageSize statfs unreported)");
  play("hostOption 8192; set hostPageSize 4096; choosePageSize 0 0 0 -> ok");
  renew();
  play("set pageSize 7; choosePageSize 0 0 0 -> noFileName {error noFileName}; is pageSize 7");
  h->status = Status::ok;
  play("info -> noFileName unreported; delete -> noFileName unreported");
  EXPECT_EQ(h->status, Status::ok);
}

}  // namespace
}  // namespace qztest
