// The C++ header: modules, files, holds, errors.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "qziop.hpp"

namespace {

using qz::Status;

struct CppHeaderTest : testing::Test {
  void SetUp() override { ASSERT_TRUE(module) << module.error().message(); }
  void TearDown() override {
    std::filesystem::remove(name);
    EXPECT_EQ(module->dispose(), 0U);
    EXPECT_EQ(host.liveObjects(), 0U);
    EXPECT_EQ(host.poolCounts().leakedBlocks, 0U);
  }
  qz::PagedFile newFile(qz::OpenMode mode, std::uint32_t options = 0) {
    auto file = module->newFile(&journal);
    EXPECT_TRUE(file);
    qz::FileHandle& settings = file->settings();
    settings.pageSize = 512;
    settings.headerSize = 16;
    settings.bufferCount = 2;
    settings.openMode = mode;
    settings.openOptions = options;
    settings.readAccess = qz::readRandom;
    settings.writeAccess = qz::rewritePages;
    EXPECT_TRUE(file->setName(name.string()));
    return std::move(*file);
  }

  qz::StandInHost host;
  qz::StandInJournal journal;
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), nullptr, QZIOP_MODULE);
  const std::filesystem::path name =
      std::filesystem::temp_directory_path() / ("qzway\u00EF%s%d%n%%" + std::to_string(getpid()));
};

// A hold that is never ended would take a buffer out of use for good.
TEST_F(CppHeaderTest, HoldsAreReturnedAtTheEndOfTheirScope) {
  qz::PagedFile file = newFile(qz::createOrReplace);
  ASSERT_TRUE(file.open());
  for (int page = 1; page <= 4; ++page) {
    auto hold = file.acquire();
    ASSERT_TRUE(hold);
    ASSERT_EQ(hold->bytes(), 512);
    std::memset(hold->data(), page, 512);
    ASSERT_TRUE(file.write(*hold, page));
    EXPECT_FALSE(*hold);
  }
  {
    auto first = file.read(2);
    ASSERT_TRUE(first);
    EXPECT_EQ(first->data()[511], 2);
    EXPECT_EQ(file.settings().heldCount, 1);
    auto second = file.read(1);
    EXPECT_EQ(file.read(3).status(), Status::noBuffer);
    qz::PageHold moved = std::move(*second);
    moved = std::move(*first);  // ends the hold of page 1
    EXPECT_EQ(file.settings().heldCount, 1);
    EXPECT_EQ(file.write(moved, 17).status(), Status::writeOutOfSequence);
    EXPECT_TRUE(moved) << "the failed write kept the hold";
    EXPECT_EQ(moved.giveBack(), Status::ok);
    EXPECT_EQ(file.settings().heldCount, 0);
  }
  { const auto last = file.read(4); }
  EXPECT_EQ(file.settings().heldCount, 0);
  char data[512] = {0};
  qz::PageRequest request{};
  request.buffer = data;
  qz::PageRequest* const requests[] = {&request};
  ASSERT_TRUE(file.readMany(3, 1, requests));
  EXPECT_EQ(data[511], 3);
  file = newFile(qz::createOrReplace);  // closes the file that it was
  ASSERT_TRUE(file.open());
}

// The size of a file that was only pre-opened is not known. Its close must not remove it as empty.
TEST_F(CppHeaderTest, AFileThatWasOnlyPreOpenedStays) {
  std::ofstream(name) << "0123456789";
  char header[11];
  std::int32_t length = 11;
  qz::PagedFile file = newFile(qz::openOrKeep);
  file.settings().lastErrno = EIO;  // of an earlier failure
  EXPECT_EQ(file.preopen(header, &length).error().errorNumber, 0);
  EXPECT_EQ(length, 10);
  EXPECT_TRUE(newFile(qz::openOrKeep).preopen(header, &length));
  EXPECT_TRUE(std::filesystem::exists(name));
}

// A stale errno in a message would send its reader to the wrong cause.
TEST_F(CppHeaderTest, ErrorsCarryTheReasonOnlyWhereThereIsOne) {
  const auto number = [](Status status) { return fmt::format("0x{:08X}", std::uint32_t(status)); };
  qz::PagedFile file = newFile(qz::openOrKeep);
  const auto absent = file.open();
  EXPECT_EQ(absent.error().hostDetail1, 2U) << "the host's second step, the open itself, failed";
  EXPECT_EQ(absent.error().message(),
            "The file or a folder on the way to it does not exist [file " + name.string() +
                "]: No such file or directory (errno 2), status " + number(Status::fileNotFound));
  const qz::Error unopened = file.read(1).error();
  EXPECT_EQ(unopened.errorNumber, 0);
  const auto entries = journal.entries();
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[1].text, unopened.text + " [file " + name.string() + "]")
      << "the name has placeholders, which are text here";
  const qz::Error nameless{Status::notOpen, "No", 0, 0, 0, {}};
  EXPECT_EQ(nameless.message(), "No, status " + number(Status::notOpen));
}

// A close whose flush fails leaves the file attached. The end of the object's scope must close it
// all the same, or the host could not end.
TEST_F(CppHeaderTest, AFileThatDoesNotFlushIsClosedWithItsScope) {
  qz::PagedFile file = *module->newFile(&journal);
  ASSERT_TRUE(file.open(
      name.string(),
      {.opening = qz::Opening::replace, .writing = qz::Writing::anyPage, .flushAtClose = true}));
  const auto flush = module->table().qzpflush;
  module->table().qzpflush = [](qz::FileHandle*, qz::Journal*) { return Status::ioFailed; };
  EXPECT_EQ(file.close().status(), Status::ioFailed);
  { const qz::PagedFile ended = std::move(file); }
  module->table().qzpflush = flush;
  EXPECT_EQ(host.liveObjects(), 4U) << "two pools, the extension, the converter";
}

// Why direct I/O in the folder cannot show wrong alignment; empty if it can.
std::string whyAlignmentDoesNotShow(const std::string& folder) {
  const int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_DIRECT, 0600);
  if (fd == -1) return std::string("no direct I/O: ") + std::strerror(errno);
  alignas(4096) static std::array<char, 8192> memory;
  const bool takesSector = pwrite(fd, memory.data(), 512, 0) == 512;
  // Across a boundary of memory pages; some kernels look at such transfers only.
  const bool takesAnyAddress = pwrite(fd, memory.data() + 4096 - 16, 512, 0) == 512;
  close(fd);
  if (!takesSector) return "the disk has no sectors of 512 bytes";
  return takesAnyAddress ? "transfers from any address are taken" : "";
}

// Buffers of small pages must be aligned to the disk's sectors, or direct I/O is refused.
TEST_F(CppHeaderTest, SmallPagesAreReadAndWrittenDirectly) {
  const std::string folder = QZIOP_PROGRAMS;
  const std::string reason = whyAlignmentDoesNotShow(folder);
  if (!reason.empty()) GTEST_SKIP() << folder << ": " << reason;
  const std::string path = folder + "/qzsmall" + std::to_string(getpid());
  for (const std::int32_t bytes : {512, 1024, 1536, 2048}) {
    SCOPED_TRACE(bytes);
    constexpr int kPages = 64;
    qz::PagedFile file = newFile(qz::createOrReplace, qz::optionDirectIo);
    file.settings().pageSize = bytes;
    file.settings().bufferCount = kPages;
    ASSERT_TRUE(file.setName(path));
    ASSERT_TRUE(file.open());
    ASSERT_EQ(file.settings().directIoMode, std::uint32_t{qz::directIo});
    std::vector<qz::PageHold> holds;  // every buffer gets a page
    for (int page = 1; page <= kPages; ++page) {
      auto hold = file.acquire();
      ASSERT_TRUE(hold);
      std::memset(hold->data(), page, static_cast<std::size_t>(bytes));
      holds.push_back(std::move(*hold));
    }
    for (int page = 1; page <= kPages; ++page) {
      ASSERT_TRUE(file.write(holds[static_cast<std::size_t>(page - 1)], page)) << page;
    }
    ASSERT_TRUE(file.close());
    file.settings().openMode = qz::openOrKeep;
    file.settings().pageCount = 0;
    file.settings().fileSize = 0;
    ASSERT_TRUE(file.open());
    for (int page = 1; page <= kPages; ++page) {
      auto read = file.read(page);
      ASSERT_TRUE(read) << page;
      EXPECT_EQ(read->data()[bytes - 1], page);
      holds.push_back(std::move(*read));
    }
  }
  std::filesystem::remove(path);
}

// A module that is not loaded must be reported with its path and the reason, and leave nothing
// behind.
TEST(ModuleTest, AFailedLoadNamesItsFileAndReason) {
  qz::StandInHost host;
  const auto load = [&](const char* path) {
    return qz::Module::load(host.handle(), nullptr, path);
  };
  const auto absent = load("/nowhere/libqziop.so");
  EXPECT_EQ(absent.status(), Status::fileNotFound);
  EXPECT_NE(absent.error().text.find("/nowhere/libqziop.so"), std::string::npos);
  EXPECT_EQ(load("/proc/version").status(), Status::unsupportedFile);
  host.handle()->encodingServices->systemEncoding = 0;
  EXPECT_EQ(load(QZIOP_MODULE).status(), Status::noMemory);
  EXPECT_EQ(host.liveObjects(), 0U);
}

}  // namespace
