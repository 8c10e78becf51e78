// Files of the C++ header, opened by settings, and what the header adds to the operations.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "qziop.hpp"

namespace {

using qz::Io;
using qz::Opening;
using qz::Reading;
using qz::Settings;
using qz::Status;
using qz::Writing;

constexpr std::int32_t kPage = 4096;
constexpr std::size_t kPageBytes = kPage;

struct PagedTest : testing::Test {
  void SetUp() override { ASSERT_TRUE(module) << module.error().message(); }
  void TearDown() override {
    std::filesystem::remove(name);
    EXPECT_EQ(module->dispose(), 0U);
    EXPECT_EQ(host.liveObjects(), 0U);
  }
  qz::PagedFile newFile() const { return std::move(*module->newFile()); }
  std::string contents() const {
    std::ifstream file(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::int64_t sizeOnDisk() const { return static_cast<std::int64_t>(contents().size()); }
  // Appends as another program would, behind the module's back.
  void appendOutside(int pages, char byte) const {
    std::ofstream(name, std::ios::binary | std::ios::app)
        << std::string(static_cast<std::size_t>(pages) * kPageBytes, byte);
  }
  void fill(int pages) const {
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    for (int page = 1; page <= pages; ++page) {
      file << std::string(kPage, static_cast<char>('a' + page - 1));
    }
  }
  static Settings blocks() {
    return {.opening = Opening::existingOrNew,
            .writing = Writing::anyPage,
            .io = Io::block,
            .blockBytes = std::int64_t{4} * kPage,
            .locking = qz::Locking::none};
  }

  qz::StandInHost host{{.hostPageSize = {}, .defaultJournal = qz::JournalSink::function}};
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), nullptr, QZIOP_MODULE);
  // Beside the test program: memory file systems may not take direct I/O.
  const std::string name = QZIOP_PROGRAMS "/qzpaged" + std::to_string(getpid());
};

#define SKIP_WITHOUT_BLOCKS(file)                                 \
  if ((file).io().obtained != Io::block) {                        \
    GTEST_SKIP() << "no direct I/O here: " << (file).io().reason; \
  }

// A wrong setting must not create, truncate or open a file, and the error must name the setting.
TEST_F(PagedTest, WrongSettingsAreNamedBeforeAnythingIsTouched) {
  const struct {
    Settings settings;
    const char* says;
  } cases[] = {
      {{.pageSize = -1}, "pageSize is -1"},
      {{.headerSize = -4}, "headerSize is -4"},
      {{.buffers = 0}, "buffers is 0"},
      {{.busyRetries = -1}, "busyRetries is -1"},
      {{.io = Io::block, .blockBytes = 5000}, "blockBytes is 5000; it must be a multiple"},
      {{.io = Io::block, .blockBytes = std::int64_t{1} << 31}, "blockBytes is 2147483648"},
      {{.reading = Reading::none}, "both none"},
      {{.opening = Opening::existingOrNew}, "must be written"},
      {{.reading = Reading::inOrder, .io = Io::direct}, "use Io::block"},
      {{.reading = Reading::manyAtATime, .io = Io::block}, "use Io::direct"},
  };
  for (const auto& one : cases) {
    const auto opened = newFile().open(name, one.settings);
    ASSERT_EQ(opened.status(), Status::badArgument);
    EXPECT_NE(opened.error().text.find(one.says), std::string::npos) << opened.error().text;
  }
  EXPECT_FALSE(std::filesystem::exists(name));
}

// A program that asked for direct I/O and got buffered I/O must be able to see that, and why.
TEST_F(PagedTest, TellsTheModeObtainedAndWhyItIsAnother) {
  fill(3);
  qz::PagedFile file = newFile();
  ASSERT_TRUE(file.open(name, {.reading = Reading::inOrder}));
  EXPECT_EQ(file.io().obtained, Io::buffered);
  EXPECT_EQ(file.io().reason, "");
  ASSERT_TRUE(file.close());
  ASSERT_TRUE(file.open(name, {.pageSize = 96, .io = Io::direct}));
  EXPECT_EQ(file.io().asked, Io::direct);
  EXPECT_EQ(file.io().obtained, Io::buffered);
  EXPECT_NE(file.io().reason.find("96 bytes"), std::string::npos);
  EXPECT_TRUE(file.read(128)) << "a page that direct I/O refuses is read all the same";
  ASSERT_TRUE(file.close());
  for (const Io io : {Io::direct, Io::block}) {
    ASSERT_TRUE(file.open(name, {.io = io}));
    const qz::IoReport report = file.io();
    EXPECT_EQ(report.asked, io);
    EXPECT_EQ(report.obtained == io, report.reason.empty()) << report.reason;
    ASSERT_TRUE(file.close());
  }
}

// Two programs may both open a file as "existing or new". The second must not truncate what the
// first wrote.
TEST_F(PagedTest, ANewFileIsMadeOnceAndNeverTruncated) {
  const Settings settings{.headerSize = 64,
                          .opening = Opening::existingOrNew,
                          .writing = Writing::anyPage,
                          .locking = qz::Locking::none};
  qz::PagedFile first = newFile();
  qz::PagedFile second = newFile();
  ASSERT_TRUE(first.open(name, settings));
  EXPECT_EQ(first.pageCount(), 0);
  EXPECT_EQ(first.headerSize(), 64);
  std::int32_t length = 5;
  ASSERT_TRUE(first.writeHeader("first", &length));
  const std::string page(kPage, 'p');
  ASSERT_TRUE(first.write(page.data(), 1));
  ASSERT_TRUE(second.open(name, settings));
  EXPECT_EQ(second.pageCount(), 1);
  EXPECT_EQ(contents(), "first" + std::string(59, '\0') + page);
  EXPECT_EQ(newFile().open("/nowhere/file", settings).error().errorNumber, ENOENT);
}

// The other program may write its header after the size was looked at, but before the open.
TEST_F(PagedTest, AHeaderThatIsWrittenDuringTheOpenCounts) {
  static decltype(qz::OperationTable::qzpopen) realOpen = nullptr;
  realOpen = module->table().qzpopen;
  module->table().qzpopen = [](qz::FileHandle* handle, qz::Journal* journal) noexcept {
    handle->ops->operations.qzpopen = realOpen;
    std::ofstream(qz::toUtf8(handle->fileName))
        << std::string(kPage, 'h') << std::string(kPage, 'p');
    return realOpen(handle, journal);
  };
  qz::PagedFile file = newFile();
  ASSERT_TRUE(file.open(
      name, {.headerSize = kPage, .opening = Opening::existingOrNew, .writing = Writing::anyPage}));
  EXPECT_EQ(file.pageCount(), 1);
  EXPECT_EQ(*file.read(1)->data(), 'p');
}

// True if the system has not yet chosen a place on disk for the file's last bytes.
bool waitsInMemory(const std::string& name) {
  const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  constexpr std::size_t kExtents = 8;
  alignas(fiemap) char memory[sizeof(fiemap) + kExtents * sizeof(fiemap_extent)] = {};
  auto* const map = reinterpret_cast<fiemap*>(memory);
  map->fm_length = FIEMAP_MAX_OFFSET;
  map->fm_extent_count = kExtents;
  const bool known = ioctl(fd, FS_IOC_FIEMAP, map) == 0 && map->fm_mapped_extents > 0;
  close(fd);
  return known &&
         (map->fm_extents[map->fm_mapped_extents - 1].fe_flags & FIEMAP_EXTENT_DELALLOC) != 0;
}

// ext4 writes a file to disk at its close if it was truncated to 0 bytes before. A new file must
// not be truncated, or every close of one would wait for the disk.
TEST_F(PagedTest, ClosingANewFileDoesNotWaitForTheDisk) {
  std::ofstream(name) << std::string(kPage, 'p');
  if (!waitsInMemory(name))
    GTEST_SKIP() << "the file system of " << name << " does not delay writes";
  const Settings settings{
      .pageSize = kPage, .opening = Opening::replace, .writing = Writing::anyPage};
  const std::string page(kPage, 'p');
  const auto rewritten = [&] {
    qz::PagedFile file = newFile();
    EXPECT_TRUE(file.open(name, settings));
    EXPECT_TRUE(file.write(page.data(), 1));
    EXPECT_TRUE(file.close());
    return !waitsInMemory(name);
  };
  EXPECT_TRUE(rewritten()) << "a file with old contents must be on disk after its close";
  std::filesystem::remove(name);
  EXPECT_FALSE(rewritten()) << "a new file need not";
}

// The module removes a file at its close if it is empty. It must not if another program has written
// to it since the open.
TEST_F(PagedTest, ClosingAnEmptyFileKeepsWhatOthersWrote) {
  for (const bool byScope : {false, true}) {
    qz::PagedFile file = newFile();
    ASSERT_TRUE(file.open(name, blocks()));
    appendOutside(1, 'x');
    if (!byScope) {
      ASSERT_TRUE(file.close());
    }
    file = newFile();
    EXPECT_EQ(sizeOnDisk(), kPage);
    std::filesystem::remove(name);
  }
  {
    qz::PagedFile file = newFile();
    ASSERT_TRUE(file.open(name, blocks()));
  }
  EXPECT_FALSE(std::filesystem::exists(name)) << "nobody wrote to it: removed";
}

// After a refresh no page may be served that was cached before it.
TEST_F(PagedTest, RefreshSeesWhatOthersChanged) {
  for (const Io io : {Io::buffered, Io::block}) {
    fill(2);
    Settings settings = blocks();
    settings.io = io;
    qz::PagedFile file = newFile();
    ASSERT_TRUE(file.open(name, settings));
    {
      auto hold = file.read(1);
      ASSERT_TRUE(hold);
      EXPECT_EQ(file.refresh().status(), Status::badArgument) << "a page is held";
    }
    fill(0);
    appendOutside(3, 'x');
    ASSERT_TRUE(file.refresh());
    EXPECT_EQ(file.pageCount(), 3);
    for (int page = 1; page <= 3; ++page) EXPECT_EQ(*file.read(page)->data(), 'x');
    fill(0);
    ASSERT_TRUE(file.refresh());
    ASSERT_TRUE(file.refresh()) << "of a file that is empty already";
    EXPECT_EQ(file.pageCount(), 0);
    EXPECT_TRUE(std::filesystem::exists(name));
  }
}

// A write-back must not overwrite or cut away pages that another program appended.
TEST_F(PagedTest, CollectedPagesAreWrittenBackUnlessOthersAppended) {
  qz::PagedFile file = newFile();
  ASSERT_TRUE(file.open(name, blocks()));
  SKIP_WITHOUT_BLOCKS(file);
  ASSERT_TRUE(file.extendTo(6));
  EXPECT_EQ(file.pageCount(), 6);
  EXPECT_TRUE(file.isCollecting());
  EXPECT_EQ(sizeOnDisk(), 4 * kPage) << "one block of four pages, two collected";
  ASSERT_TRUE(file.writeBack());
  EXPECT_FALSE(file.isCollecting());
  EXPECT_EQ(contents(), std::string(6 * kPageBytes, '\0'));
  ASSERT_TRUE(file.extendTo(8));
  ASSERT_TRUE(file.extendTo(9));
  appendOutside(2, 'x');
  const auto refused = file.writeBack();
  EXPECT_EQ(refused.status(), Status::misfit);
  EXPECT_FALSE(refused.error().closedFile);
  EXPECT_EQ(sizeOnDisk(), 10 * kPage) << "nothing of what others appended was cut";
  EXPECT_TRUE(file.isCollecting());
}

// run() tells how many bytes are valid from a held page on. It may count only pages that lie in the
// same block and are not stale.
TEST_F(PagedTest, ARunEndsWithItsBlockOrAtAStalePage) {
  fill(7);
  qz::PagedFile file = newFile();
  ASSERT_TRUE(file.open(name, blocks()));
  SKIP_WITHOUT_BLOCKS(file);
  std::vector<qz::PageHold> holds;
  for (const int page : {2, 4, 6}) holds.push_back(std::move(*file.read(page)));
  EXPECT_EQ(holds[0].run(), 3 * kPage);
  EXPECT_EQ(holds[0].data()[2 * kPageBytes], 'd') << "page 4, read by the block's one read";
  EXPECT_EQ(holds[1].run(), kPage);
  EXPECT_EQ(holds[2].run(), 2 * kPage) << "the block ends with the file";
  { const auto third = file.read(3); }  // its return makes page 3 stale
  EXPECT_EQ(holds[0].run(), kPage) << "page 3 is stale";
  ASSERT_TRUE(file.giveBack(holds));
  EXPECT_EQ(file.settings().heldCount, 0);
  EXPECT_EQ(holds[0].run(), 0);
  holds[1] = std::move(*file.acquire());
  EXPECT_EQ(holds[1].run(), 4 * kPage);
  ASSERT_TRUE(file.giveBack(holds));
  fill(8);
  ASSERT_TRUE(file.refresh());
  std::filesystem::resize_file(name, 7 * kPageBytes);
  holds[2] = std::move(*file.read(6));
  EXPECT_EQ(holds[2].run(), 2 * kPage) << "the file has lost page 8";
}

// A caller must learn how many pages a readMany read, and that a short read closed the file.
TEST_F(PagedTest, ReadManyCountsAndAShortReadSaysThatItClosed) {
  fill(5);
  qz::PagedFile file = newFile();
  ASSERT_TRUE(file.open(name, {.locking = qz::Locking::none}));
  std::vector<char> area(8 * kPageBytes);
  std::int32_t pages = -1;
  ASSERT_TRUE(file.readMany(3, 6, area.data(), &pages));
  EXPECT_EQ(pages, 3);
  std::filesystem::resize_file(name, 4 * kPageBytes - 1);
  ASSERT_TRUE(file.readMany(1, 5, area.data(), &pages));
  EXPECT_EQ(pages, 3) << "the fourth page has lost a byte";
  EXPECT_FALSE(file.readMany(9, 1, area.data(), &pages));
  EXPECT_EQ(pages, 0);
  const auto shortRead = file.read(4);
  EXPECT_EQ(shortRead.status(), Status::misfit);
  EXPECT_TRUE(shortRead.error().closedFile);
  EXPECT_NE(shortRead.error().message().find("; the file was closed"), std::string::npos);
  EXPECT_FALSE(file.read(4).error().closedFile) << "the read before closed it";
}

}  // namespace
