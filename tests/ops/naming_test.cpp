// Handles, file names, pre-open, and what is known of a file before it is open.
#include <cstring>
#include <filesystem>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;
using Table = qz::OperationTable;

class NamingTest : public FileTest {
 protected:
  // A handle without a name in place of the first one.
  void renew() {
    EXPECT_EQ(module->operations.qzpfreememhandle(h, journal), Status::ok);
    h = module->operations.qzpgetmemhandle(module, journal);
  }
  Status name(std::u32string_view text) {
    return call(&Table::qzpsetfilename, text.data(), static_cast<std::int32_t>(text.size()));
  }
};

TEST_F(NamingTest, FreshHandle) {
  renew();
  qz::StatusReport report;
  std::memset(&report, 0xFF, sizeof report);
  EXPECT_EQ(module->operations.qzpgetstatus(h, &report), Status::ok);
  const qz::StatusReport zeros{};
  EXPECT_EQ(std::memcmp(&report, &zeros, sizeof report), 0);
  EXPECT_EQ(h->objectName, h->nameText);
  qz::FileHandle expected{};
  std::memcpy(expected.eyecatcher, "nevo", 4);
  std::memcpy(expected.nameText, "QZ Member Handle", 16);
  expected.objectName = h->objectName;
  expected.pool = module->modulePool;
  expected.ops = expected.module = module;
  expected.fd = -1;
  EXPECT_EQ(std::memcmp(h, &expected, sizeof expected), 0);
  h->status = Status::busy;
  h->lastErrno = 2;
  h->hostErrorDetail1 = 3;
  h->hostErrorDetail2 = 4;
  h->directIoMode = 5;
  module->operations.qzpgetstatus(h, &report);
  const qz::StatusReport wanted{Status::busy, 2, 3, 4, 5};
  EXPECT_EQ(std::memcmp(&report, &wanted, sizeof report), 0);
}

TEST_F(NamingTest, HandlesAreMadeAndFreed) {
  calls().plan({{Call::memAlloc}});
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpgetmemhandle(module, journal), nullptr);
  EXPECT_EQ(recorder.entries, "4:002");
  recorder.entries.clear();
  EXPECT_EQ(module->operations.qzpfreememhandle(nullptr, journal), Status::badArgument);
  EXPECT_EQ(recorder.entries, "");
  makeFile(1);
  settle(Shape::buffered);
  char header[16];
  for (const bool opened : {false, true}) {
    ASSERT_EQ(did(opened ? open() : preopen(header, 16)), opened ? "ok" : "ok read 16");
    EXPECT_EQ(did(call(&Table::qzpfreememhandle)), "ok {!81F}");
  }
  EXPECT_EQ(did(close()), "ok");
  for (const int failing : {1, 2}) {  // the name's release, the handle's
    qz::FileHandle* second = module->operations.qzpgetmemhandle(module, journal);
    module->operations.qzpsetfilename(second, U"x", 1, journal);
    calls().plan({{Call::memFree, failing, 1, -1, 0x80FFE101}});
    calls().clear();
    recorder.entries.clear();
    EXPECT_EQ(module->operations.qzpfreememhandle(second, journal), Status::badArgument);
    EXPECT_EQ(recorder.entries, "4:80FFE101");
    EXPECT_EQ(calls().count(Call::memFree), 2);
  }
}

TEST_F(NamingTest, NamesGrowTheirBufferAndNeverShrinkIt) {
  renew();
  recorder.fileName = U"";
  EXPECT_EQ(did(name(U"")), "ok statfs");
  EXPECT_EQ(calls().hostCalls(), "memAlloc:m4 memAlloc:m4 memFree:m");
  EXPECT_EQ(h->fileName[0], U'\0');
  EXPECT_EQ(did(name(U"abcd")), "ok statfs");
  EXPECT_EQ(calls().hostCalls(), "memFree:m memAlloc:m20 memAlloc:m20 memFree:m");
  EXPECT_EQ(did(name(U"xyz")), "ok");
  EXPECT_EQ(calls().hostCalls(), "");
  EXPECT_TRUE(h->fileNameCapacity == 4 && h->fileNameLength == 3 &&
              std::u32string_view(h->fileName) == U"xyz");
  EXPECT_EQ(did(name(U"efgh")), "ok statfs") << "as long as the buffer: a new one";
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  recorder.fileName = U"efgh";
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "009 {!009}");
  EXPECT_EQ(std::u32string_view(h->fileName), U"efgh");
  calls().plan({{Call::memFree, 1, 1, kNotDone, 0x80FFE101}});
  EXPECT_EQ(did(name(U"longer")), "009 {4:80FFE101}");
  EXPECT_TRUE(std::u32string_view(h->fileName) == U"efgh" && h->status == Status::badArgument);
  calls().plan({{Call::memAlloc}});
  EXPECT_EQ(did(name(U"longer")), "002 {4:002}");
  EXPECT_TRUE(h->fileName == nullptr && h->fileNameLength == 0 && h->fileNameCapacity == 0);
}

TEST_F(NamingTest, NothingIsNamedOrPreopenedTwice) {
  makeFile(1);
  settle(Shape::buffered);
  h->openMode = qz::createOrReplace;
  char header[16];
  EXPECT_EQ(did(preopen(header, 16)), "804 {!804}");
  EXPECT_EQ(calls().count(Call::fileOpen), 0);
  h->openMode = qz::openOrKeep;
  EXPECT_EQ(did(preopen(header, -1)), "009 {!009}");
  EXPECT_EQ(calls().count(Call::fileOpen), 0);
  EXPECT_EQ(did(preopen(header, 16)), "ok read 16");
  EXPECT_EQ(h->stateFlags, qz::statePreopened);
  h->openMode = qz::createOrReplace;
  EXPECT_EQ(did(preopen(header, -1)), "81F {!81F}");
  EXPECT_EQ(did(call(&Table::qzpsetfilename, U"q", -1)), "81F {!81F}");
  h->openMode = qz::openOrKeep;
  EXPECT_EQ(did(open()), "ok");
  EXPECT_EQ(calls().count(Call::fileOpen), 0);
  EXPECT_EQ(did(read(1)), "ok pread 4096@4096");
}

TEST_F(NamingTest, PreopenReadsTheHeader) {
  const struct {
    Shape shape;
    std::int32_t wanted, misalignment;
    std::string hostCalls;
  } rows[] = {
      {Shape::buffered, 4096, 8, "fileOpen"},
      {Shape::direct, 4096, 0, "fileOpen"},
      {Shape::direct, 512, 8, "fileOpen memAlloc:b4096z memFree:b"},
      {Shape::block, 4096, 8, "fileOpen memAlloc:b8192z memFree:b"},
      {Shape::buffered, 0, 0, "fileOpen"},
  };
  makeFile(1);
  const CallerMemory memory = callerMemory(3 * 4096);
  for (const auto& row : rows) {
    settle(row.shape);
    h->writeAccess = qz::noWrite;  // closing an empty file to be written removes it
    std::memset(memory.get(), 0, 3 * 4096);
    char* header = memory.get() + row.misalignment;
    EXPECT_EQ(did(preopen(header, row.wanted)), "ok read " + std::to_string(row.wanted));
    EXPECT_EQ(calls().hostCalls(), row.hostCalls);
    EXPECT_TRUE(header[row.wanted] == 0 && length == row.wanted &&
                std::string(header, static_cast<std::size_t>(row.wanted)) ==
                    std::string(static_cast<std::size_t>(row.wanted), 'H'));
    EXPECT_EQ(did(close()), "ok");
  }
}

TEST_F(NamingTest, PreopenOfAShortHeaderClosesAgain) {
  makeFile(0, 100);
  const CallerMemory memory = callerMemory(2 * 4096);
  const struct {
    Shape shape;
    Fault fault;
    const char* io;
    std::int32_t length, lastErrno;
  } rows[] = {
      {Shape::buffered, {Call::fsync}, "816 read 512=100 {4:824(~) !816}", 100, 0},
      {Shape::direct, {Call::fsync}, "816 read 512=100 {4:824(~) !816}", 100, 0},
      {Shape::buffered, {Call::read}, "816 read 512!5 {4:824(~) !816}", -1, 5},
      {Shape::direct, {Call::memAlloc}, "816 {4:824(~) !816}", -1, -1},
  };
  for (const auto& row : rows) {
    settle(row.shape);
    h->lastErrno = 0;
    calls().plan({row.fault});
    EXPECT_EQ(did(preopen(memory.get() + 1, 512)), row.io);
    EXPECT_EQ(length, row.length);
    EXPECT_TRUE(row.lastErrno == -1 || h->lastErrno == row.lastErrno) << h->lastErrno;
    EXPECT_TRUE(h->hostFile == nullptr && h->fd == -1 && h->stateFlags == 0);
    EXPECT_EQ(calls().count(Call::fileClose), 1);
  }
  EXPECT_EQ(memory.get()[1], 'H');
  std::filesystem::remove(path);
  EXPECT_EQ(did(preopen(memory.get(), 512)), "801");
  EXPECT_EQ(h->lastErrno, ENOENT);
}

TEST_F(NamingTest, FileSystemIsTestedInTheFilesFolder) {
  const std::string folder = std::filesystem::path(path).parent_path();
  std::filesystem::create_directory(folder + "/größe");
  const struct {
    std::string file, folder;
  } rows[] = {{path, folder},
              {folder + "/größe/日本.qzp", folder + "/größe"},
              {"plain", "."},
              {"/top", "/"}};
  for (const auto& row : rows) {
    renew();
    setName(row.file);
    EXPECT_EQ(calls().statfsPath, row.folder);
    EXPECT_EQ(h->directIoSupport, qz::directIoFit);
    EXPECT_STREQ(h->fsTypeName, "linux");
  }
  calls().fileSystemType = 0x6969;
  EXPECT_EQ(did(call(&Table::qzpinfo)), "ok statfs");
  EXPECT_EQ(h->directIoSupport, qz::directIoNfs);
  EXPECT_STREQ(h->fsTypeName, "nfs");
  h->hostPageSize = 0;
  calls().plan({{Call::statfs}});
  EXPECT_EQ(did(call(&Table::qzpinfo)), "ok statfs!5");
  EXPECT_EQ(h->directIoSupport, qz::directIoTestFailed);
  EXPECT_STREQ(h->fsTypeName, "");
  EXPECT_EQ(h->hostPageSize, 4096);
  h->hostPageSize = 0;
  calls().plan({{Call::memAlloc}});
  EXPECT_EQ(did(call(&Table::qzpinfo)), "ok");
  EXPECT_EQ(h->directIoSupport, qz::directIoNoMemory);
  EXPECT_EQ(h->hostPageSize, 4096);
}

TEST_F(NamingTest, HostPageSizeSetsTheLimits) {
  const struct {
    std::int32_t option, host, automatic;
  } rows[] = {{4096, 4096, 0x10000},    {6144, 12288, 0x10000}, {1000, 512000, 0x40000},
              {65536, 65536, 0x40000},  {0, 4096, 0x10000},     {-4096, 4096, 0x10000},
              {1000001, 4096, 0x10000}, {512, 4096, 0x10000},   {61440, 61440, 0x10000}};
  for (const auto& row : rows) {
    host.setHostPageSize(row.option);
    h->status = Status::busy;
    EXPECT_EQ(did(call(&Table::qzpinfo)), "ok statfs");
    EXPECT_EQ(h->hostPageSize, row.host) << row.option;
    EXPECT_EQ(h->defaultPageSize, row.host);
    EXPECT_EQ(h->autoPageSizeLimit, row.automatic);
    EXPECT_TRUE(h->minPageSize == 512 && h->maxPageSize == 0x40000000);
    EXPECT_EQ(h->status, Status::busy);
  }
  Library::get().qzextent(nullptr);
  call(&Table::qzpinfo);
  Library::get().qzextent(host.handle());
  EXPECT_EQ(h->hostPageSize, 4096);
}

TEST_F(NamingTest, PageSizesAreChosen) {
  constexpr std::int32_t kMax = 0x40000000;
  const struct {
    std::int32_t option, minimum, maximum, multiple, chosen;
    const char* status;
  } rows[] = {
      {4096, 0, 0, 0, 4096, "ok"},
      {4096, 0, 2048, 0, 2048, "ok"},
      {4096, 0, 512, 0, 512, "ok"},
      {4096, 0, 512, 1024, 1024, "80A"},  // g 1024 exceeds the maximum
      {4096, 8192, 0, 0, 65536, "ok"},
      {4096, 70000, 0, 0, 73728, "ok"},
      {4096, 0, 1000000, 0, 4096, "ok"},
      {4096, 3000, 3000, 0, 2560, "80A"},
      {4096, 100000, 50000, 0, 4096, "80A"},
      {4096, 0, 0, 8192, 65536, "ok"},
      {4096, 0, 0, 3000, 1536000, "80A"},
      {4096, 0, 8192, 0, 8192, "ok"},
      {4096, 5000, 8000, 0, 4096, "80A"},
      {4096, 100000, 100001, 0, 102400, "80A"},
      {4096, kMax + 1, 0, 0, 4096, "80A"},
      {4096, kMax + 1, kMax + 2, 0, 4096, "80A"},
      {4096, kMax, kMax + 1, 0, kMax, "ok"},
      {4096, 0, 0, -1, 4096, "80A"},
      {4096, 0, 0, 0x7FFFFFFF, 4096, "80A"},
      {65536, 8192, 0, 0, 262144, "ok"},
      {65536, 0, 8192, 0, 8192, "ok"},
  };
  for (const auto& row : rows) {
    host.setHostPageSize(row.option);
    h->hostPageSize = 0;
    const qz::PageSizeRequest wanted{row.minimum, row.maximum, row.multiple};
    EXPECT_EQ(did(call(&Table::qzppsize, &wanted)), std::string(row.status) + " statfs");
    EXPECT_EQ(h->pageSize, row.chosen)
        << row.option << " (" << row.minimum << ", " << row.maximum << ", " << row.multiple << ")";
    EXPECT_EQ(shortCode(static_cast<std::uint32_t>(h->status)), row.status);
  }
  renew();
  h->pageSize = 7;
  const qz::PageSizeRequest wanted{};
  EXPECT_EQ(did(call(&Table::qzppsize, &wanted)), "805 {4:805}");
  EXPECT_EQ(h->status, Status::noFileName);
  h->status = Status::ok;
  EXPECT_EQ(did(call(&Table::qzpinfo)), "805");
  EXPECT_EQ(did(call(&Table::qzpdelete)), "805");
  EXPECT_TRUE(h->pageSize == 7 && h->status == Status::ok);
}

}  // namespace
}  // namespace qztest
