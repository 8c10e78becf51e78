// Handles, file names, pre-open, and what is known of a file before it is open.
#include <linux/magic.h>

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

// Hosts rely on the fields of a new handle.
TEST_F(NamingTest, ANewHandleHasItsNamesItsModuleAndNoFile) {
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
}

// A swapped field would send a host to the wrong cause.
TEST_F(NamingTest, TheStatusReportHasEachFieldOfTheHandle) {
  h->status = Status::busy;
  play("set lastErrno 2 hostErrorDetail1 3 hostErrorDetail2 4 directIoMode 5");
  const qz::StatusReport wanted{Status::busy, 2, 3, 4, 5};
  qz::StatusReport report{};
  EXPECT_EQ(module->operations.qzpgetstatus(h, &report), Status::ok);
  EXPECT_EQ(std::memcmp(&report, &wanted, sizeof report), 0);
}

// A handle with a file attached must not be freed, and failures to make or free one are journalled.
TEST_F(NamingTest, HandlesAreMadeAndFreed) {
  calls().plan({{Call::memAlloc}});
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpgetmemhandle(module, journal), nullptr);
  EXPECT_EQ(recorder.entries, "error noMemory");
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpfreememhandle(nullptr, journal), Status::badArgument);
  EXPECT_EQ(recorder.entries, "");
  play("settle buffered; makeFile 1; preopen 16");
  EXPECT_EQ(did(call(&Table::qzpfreememhandle)), "ok {report alreadyOpen}");
  play("close");
  calls().plan({{Call::memFree, 1, 1, -1, qz::hostForeignBlock}});  // of the name
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpfreememhandle(h, journal), Status::badArgument);
  EXPECT_EQ(recorder.entries, "error hostForeignBlock");
  h = nullptr;
}

// A longer name gets a new buffer, a shorter one the buffer that is there. The other allocation is
// of the path that is tested for direct I/O.
TEST_F(NamingTest, NamesGrowTheirBufferAndNeverShrinkIt) {
  renew();
  recorder.fileName = U"efgh";
  play(
      "setName -> ok: statfs; hostCalls -> memAlloc modulePool 4, memAlloc modulePool 4, memFree "
      "modulePool");
  EXPECT_EQ(h->fileName[0], U'\0');
  play(R"(
    setName abcd -> ok: statfs; hostCalls -> memFree modulePool, memAlloc modulePool 20, memAlloc modulePool 20, memFree modulePool
    setName xyz -> ok; hostCalls ->; is fileNameCapacity 4 fileNameLength 3)");
  EXPECT_EQ(std::u32string_view(h->fileName), U"xyz");
  play("setName efgh -> ok: statfs");  // as long as the buffer: a new one
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
}

// A name that is the handle's own buffer must survive the change of buffers. After a failure the
// handle must have its old name, or none, but no name that is freed.
TEST_F(NamingTest, AHandleNeverHasAFreedName) {
  renew();
  recorder.fileName = U"efgh";
  play("setName efgh");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, h->fileName, 4)), "ok: statfs");
  EXPECT_EQ(calls().hostCalls().find("memAlloc modulePool 20, memFree modulePool"), 0)
      << "the old buffer is freed after its copy";
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "badArgument");
  play(R"(
    fail memFree with hostForeignBlock undone
    setName longer -> badArgument {error hostForeignBlock}; count statfs 0)");
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  char32_t* const old = h->fileName;
  play("fail memFree with hostForeignBlock undone");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, old, 4)), "badArgument {error hostForeignBlock}");
  EXPECT_EQ(h->fileName, old);
  play(R"(
    fail memAlloc; setName longer -> noMemory {error noMemory}
    is fileNameCapacity 0 fileNameLength 0)");
  EXPECT_EQ(h->fileName, nullptr);
}

// A second name or pre-open would lose the file that is attached. An open after a pre-open uses
// that file.
TEST_F(NamingTest, AnAttachedFileIsNotNamedOrPreopenedAgain) {
  play(R"(
    settle buffered; makeFile 1; set openMode createOrReplace; preopen 16 -> noHeaderYet
    count fileOpen 0
    set openMode openOrKeep; preopen -1 -> badArgument; count fileOpen 0
    preopen 16 -> ok: read 16; is stateFlags statePreopened
    set openMode createOrReplace; preopen -1 -> alreadyOpen)");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "alreadyOpen");
  play("set openMode openOrKeep; open; count fileOpen 0; read 1 -> ok: pread 4096 at 4096");
}

// Direct I/O into memory that lies off its alignment goes through a staging buffer; all other reads
// must do without one.
TEST_F(NamingTest, PreopenReadsTheHeader) {
  playRows(R"(
    makeFile 1; settle <shape>; preopen <bytes> <shift> -> ok: read <bytes>; is length <bytes>
    hostCalls -> fileOpen <flags> for write+exclusive<staging>
    close)",
           R"(
shape | bytes | shift | staging | flags
buffered | 4096 | 8 |  | O_RDWR
direct | 4096 | 0 |  | O_RDWR+O_DIRECT
direct | 512 | 8 | , memAlloc bufferPool 4096 zeroed, memFree bufferPool | O_RDWR+O_DIRECT
block | 4096 | 8 | , memAlloc bufferPool 8192 zeroed, memFree bufferPool | O_RDWR+O_DIRECT
buffered | 0 | 0 |  | O_RDWR)");
}

// After a pre-open that found less header than asked for, the caller must learn how many bytes
// there are, and the file must be closed.
TEST_F(NamingTest, PreopenOfAShortHeaderClosesAgain) {
  makeFile(0, 100);
  playRows(R"(
    settle <shape>; set lastErrno 0; fail <fault>
    preopen 512 -> shorterThanHeader<read> {error shortHeaderReport(file), report shorterThanHeader}
    is <length and error> fd -1 stateFlags 0; count fileClose 1)",
           R"(
shape | fault | read | length and error
buffered | nothing | : read 512 moves 100 | length 100 lastErrno 0
direct | nothing | : read 512 moves 100 | length 100 lastErrno 0
buffered | read | : read 512 fails with EIO | length -1 lastErrno EIO
direct | memAlloc |  | length -1)");
  std::filesystem::remove(path);
  play("preopen 512 -> fileNotFound unreported; is lastErrno ENOENT");
}

// Whether direct I/O fits must be decided by the file system of the file's folder, not by that of
// the current folder.
TEST_F(NamingTest, DirectIoIsDecidedByTheFilesFolder) {
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
  calls().fileSystemType = NFS_SUPER_MAGIC;
  play("info -> ok: statfs; is directIoSupport directIoNfs");
  EXPECT_STREQ(h->fsTypeName, "nfs");
  play(R"(
    set hostPageSize 0; fail statfs; info -> ok: statfs fails with EIO
    is directIoSupport directIoTestFailed hostPageSize 4096
    set hostPageSize 0; fail memAlloc; info -> ok
    is directIoSupport directIoNoMemory hostPageSize 4096)");
  EXPECT_STREQ(h->fsTypeName, "");
}

// A host's page size that makes no sense must not lead to page sizes that no file can have.
TEST_F(NamingTest, TheHostsPageSizeSetsTheLimits) {
  h->status = Status::busy;
  playRows(R"(
    setHostPageSize <option>; info -> ok: statfs; is hostPageSize <size> defaultPageSize <size>
    is autoPageSizeLimit <limit> minPageSize 512 maxPageSize 1073741824)",
           R"(
option | size | limit | because
6144 | 12288 | 65536 | the least common multiple with 4096
1000 | 512000 | 262144 | the same; from 64 KiB on the limit is higher
65536 | 65536 | 262144 | a multiple of 4096 is taken as it is
0 | 4096 | 65536 | no size
-4096 | 4096 | 65536 | no size
1000001 | 4096 | 65536 | a common multiple with 4096 would be too large)");
  EXPECT_EQ(h->status, Status::busy) << "info does not store its status";
  Library::get().qzextent(nullptr);
  play("info; is hostPageSize 4096");  // without a host
  Library::get().qzextent(host.handle());
}

// The page size chosen must be a multiple of the host's page size, 4096 here, and lie within the
// caller's bounds, or the caller must learn that it does not. A bound or multiple of 0 is not
// given.
TEST_F(NamingTest, APageSizeWithinTheBoundsIsChosen) {
  playRows(R"(
    setHostPageSize 4096; set hostPageSize 0
    choosePageSize <minimum> <maximum> <multiple> -> ok: statfs; is pageSize <size>)",
           R"(
minimum | maximum | multiple | size | because
0 | 0 | 0 | 4096 | no wish: the default
0 | 512 | 0 | 512 | below the default a multiple of 512 will do
70000 | 0 | 0 | 73728 | beyond the automatic limit, 65536, the smallest that fits
0 | 1000000 | 0 | 4096 | the same
1073741824 | 1073741825 | 0 | 1073741824 | the largest page size there is)");
}

// Bounds that no page size meets must not fail the call: the caller gets a size and this status.
TEST_F(NamingTest, AnImpossiblePageSizeIsReplacedAndTheCallerTold) {
  playRows(R"(
    setHostPageSize 4096; set hostPageSize 0
    choosePageSize <minimum> <maximum> <multiple> -> inexactPageSize: statfs unreported
    is pageSize <size>)",
           R"(
minimum | maximum | multiple | size | because
0 | 512 | 1024 | 1024 | the multiple is beyond the maximum
3000 | 3000 | 0 | 2560 | 3000 is no multiple of 512
100000 | 50000 | 0 | 4096 | the minimum is beyond the maximum
0 | 0 | 3000 | 1536000 | the common multiple of 3000 and 4096 is beyond the automatic limit
5000 | 8000 | 0 | 4096 | no multiple of 4096 lies between
1073741825 | 1073741826 | 0 | 4096 | both bounds are beyond the largest page size
0 | 0 | -1 | 4096 | no multiple can be negative
0 | 0 | 0x7FFFFFFF | 4096 | the common multiple with 4096 would be too large)");
}

// Hosts with large pages: sizes must not overflow, nor exceed what a page may have.
TEST_F(NamingTest, PageSizesOnHostsWithLargePages) {
  playRows(R"(
    setHostPageSize <option>; set hostPageSize 0
    choosePageSize <minimum> <maximum> <multiple> -> <outcome>; is pageSize <size>)",
           R"(
option | minimum | maximum | multiple | size | outcome | because
65536 | 8192 | 0 | 0 | 262144 | ok: statfs | the largest up to the automatic limit
65536 | 0 | 8192 | 0 | 8192 | ok: statfs | below the default a multiple of 512 will do
0x60000000 | 0x40000001 | 0x40000002 | 0 | 0x60000000 | inexactPageSize: statfs unreported | the default, though beyond the largest page size
0x60000000 | 1000 | 600 | 0x50000000 | 0x60000000 | inexactPageSize: statfs unreported | the default, which cannot be rounded up within 31 bits)");
  play("setHostPageSize 8192; set hostPageSize 4096; choosePageSize 0 0 0 -> ok");
}

// Operations that need the file's name must refuse a handle without one and leave it as it is.
TEST_F(NamingTest, AHandleWithoutANameIsRefused) {
  renew();
  play("set pageSize 7; choosePageSize 0 0 0 -> noFileName {error noFileName}; is pageSize 7");
  h->status = Status::ok;
  play("info -> noFileName unreported; delete -> noFileName unreported");
  EXPECT_EQ(h->status, Status::ok);
}

}  // namespace
}  // namespace qztest
