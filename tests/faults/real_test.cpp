// Faults that the system itself makes: limits, full file systems, large sectors.
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/fixture.h"

namespace qztest {
namespace {

using qz::Status;

constexpr std::int64_t bytesFor(std::int64_t pages) { return kHeader + pages * kPage; }

// A limit of this process, for as long as it lives.
class Limit {
 public:
  Limit(int resource, std::int64_t value) : resource_(resource) {
    getrlimit64(static_cast<__rlimit_resource>(resource_), &before_);
    rlimit64 now = before_;
    now.rlim_cur = static_cast<rlim64_t>(value);
    setrlimit64(static_cast<__rlimit_resource>(resource_), &now);
  }
  ~Limit() { setrlimit64(static_cast<__rlimit_resource>(resource_), &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  int resource_;
  rlimit64 before_{};
};

using RealFaults = FileTest;

// No page of the append stays, whether the limit lets a part of it through or nothing.
TEST_F(RealFaults, FileSizeLimit) {
  auto* const before = std::signal(SIGXFSZ, SIG_IGN);
  for (const Shape shape : kShapes) {
    for (const std::int64_t part : {0, 512}) {
      SCOPED_TRACE(fmt::format("{} {}", nameOf(shape), part));
      openWith(shape, 4);
      Status status = Status::ok;
      {
        const Limit limit(RLIMIT_FSIZE, bytesFor(4) + part);
        status = writeOwn(5, 1);
        if (status == Status::ok) status = flush();
      }
      EXPECT_EQ(status, Status::noSpace);
      EXPECT_EQ(h->lastErrno, part == 0 ? EFBIG : 0);
      EXPECT_NE(recorder.entries, "");
      EXPECT_EQ(h->pageCount, 4);
      EXPECT_EQ(bytesOnDisk(), bytesFor(4));
      EXPECT_EQ(writeOwn(5, 2), Status::ok);
      EXPECT_EQ(close(), Status::ok);
      EXPECT_TRUE(onDisk(4, 0) && onDisk(5, 2));
    }
  }
  std::signal(SIGXFSZ, before);
}

// A folder in which a shell line has mounted file systems, at $F and perhaps at $F/fs. Both go with
// the object.
class Mounted {
 public:
  explicit Mounted(const std::string& line)
      : folder(std::filesystem::temp_directory_path().string() + "/qziop-mount-XXXXXX") {
    if (mkdtemp(folder.data()) != nullptr) told = run("set -e; " + line + "; echo mounted");
  }
  ~Mounted() { run("umount $F/fs; umount $F; rmdir $F"); }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  // Runs the line; returns all that it said.
  std::string run(const std::string& line) const {
    std::string said;
    FILE* const shell = popen(("F=" + folder + "; exec 2>&1; " + line).c_str(), "r");
    for (int c = 0; shell != nullptr && (c = getc(shell)) != EOF;) said += static_cast<char>(c);
    if (shell != nullptr) pclose(shell);
    return said;
  }
  bool works() const { return told == "mounted\n"; }

  std::string folder;
  std::string told;  // by the line that mounts
};

// A line that makes an ext4 of 32 MiB on a loop device over a tmpfs.
std::string ext4(int tmpfsMiB, int sectorBytes) {
  return fmt::format(
      "mount -t tmpfs -o size={}m none $F; mkdir $F/fs; truncate -s 32m $F/image; "
      "mkfs.ext4 -q -b 4096 -O ^has_journal $F/image; D=$(losetup -f --show -b {} $F/image); "
      "mount $D $F/fs || {{ losetup -d $D; false; }}; losetup -d $D",
      tmpfsMiB, sectorBytes);
}

// A file system that fills up refuses an append; every page stored before stays, and the file goes
// on when there is room again.
TEST(RealFaultsMounted, FullFileSystem) {
  const Mounted mounted("mount -t tmpfs -o size=64k none $F");
  if (!mounted.works()) GTEST_SKIP() << "no small file system: " << mounted.told;
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    World world(mounted.folder);
    world.openWith(shape, 4);
    std::ofstream(mounted.folder + "/filler") << std::string(std::size_t{8} * 4096, 'x');
    Status status = Status::ok;
    while (status == Status::ok && world.h->pageCount < 32)
      status = world.writeOwn(world.h->pageCount + 1, 1);
    EXPECT_EQ(status, Status::noSpace);
    EXPECT_NE(world.recorder.entries, "");
    const std::int64_t stored = world.h->pageCount;
    EXPECT_EQ(world.bytesOnDisk(), bytesFor(stored));
    for (std::int64_t page = 1; page <= stored; ++page)
      EXPECT_TRUE(world.onDisk(page, page <= 4 ? 0 : 1)) << page;
    std::filesystem::remove(mounted.folder + "/filler");
    EXPECT_EQ(world.writeOwn(stored + 1, 2), Status::ok);
    EXPECT_EQ(world.close(), Status::ok);
    EXPECT_TRUE(world.onDisk(stored + 1, 2));
    world.finish();
  }
}

// The system takes the pages and cannot store them: the flush tells. What was written since the
// flush before is cut off and written again: ext4 loses pages that are only written again.
TEST(RealFaultsMounted, FullDevice) {
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    const Mounted mounted(ext4(4, 512));
    if (!mounted.works()) GTEST_SKIP() << "no ext4 on a loop device: " << mounted.told;
    World world(mounted.folder + "/fs");
    world.openWith(shape, 4);
    EXPECT_EQ(world.flush(), Status::ok);
    mounted.run("cat /dev/zero >$F/filler");
    for (std::int64_t page = 5; page <= 300; ++page) EXPECT_EQ(world.writeOwn(page, 1), Status::ok);
    const Status flushed = world.flush();
    EXPECT_TRUE(flushed == Status::ioFailed || flushed == Status::noSpace);
    EXPECT_TRUE(world.h->lastErrno == EIO || world.h->lastErrno == ENOSPC);
    EXPECT_NE(world.recorder.entries, "");
    mounted.run("rm $F/filler");
    EXPECT_EQ(world.truncate(4), Status::ok);
    for (std::int64_t page = 5; page <= 300; ++page) EXPECT_EQ(world.writeOwn(page, 2), Status::ok);
    EXPECT_EQ(world.flush(), Status::ok);
    EXPECT_EQ(world.close(), Status::ok);
    mounted.run("sync; echo 3 >/proc/sys/vm/drop_caches");
    EXPECT_TRUE(world.onDisk(4, 0) && world.onDisk(5, 2) && world.onDisk(300, 2));
    world.finish();
  }
}

// The open succeeds, pages smaller than a sector cannot be moved. Whole blocks can, and so can
// everything once the file is reopened without O_DIRECT.
TEST(RealFaultsMounted, SectorsLargerThanPages) {
  const Mounted mounted(ext4(16, 4096));
  if (!mounted.works()) GTEST_SKIP() << "no large sectors: " << mounted.told;
  for (const Shape shape : {Shape::direct, Shape::block}) {
    SCOPED_TRACE(nameOf(shape));
    World world(mounted.folder + "/fs");
    setDirectIo(DirectIo::real);
    world.settle(shape);
    world.h->pageSize = 512;
    world.makeFile(32);
    ASSERT_EQ(world.open(), Status::ok);
    EXPECT_EQ(world.read(2), shape == Shape::block ? Status::ok : Status::ioFailed);
    EXPECT_EQ(world.h->lastErrno, shape == Shape::block ? 0 : EINVAL);
    Status status = world.writeOwn(33, 1);
    if (status == Status::ok) status = world.flush();
    EXPECT_EQ(status, Status::ioFailed);
    EXPECT_EQ(world.h->lastErrno, EINVAL);
    EXPECT_EQ(world.bytesOnDisk(), kHeader + std::int64_t{32} * 512);
    EXPECT_TRUE(world.at == nullptr || world.returnBuffer(world.at) == Status::ok);
    EXPECT_EQ(world.reopen(Shape::buffered), Status::ok);
    EXPECT_EQ(world.rewrite(3, 1), Status::ok);
    EXPECT_EQ(world.writeOwn(33, 1), Status::ok);
    EXPECT_EQ(world.close(), Status::ok);
    EXPECT_TRUE(world.onDisk(3, 1) && world.onDisk(33, 1));
    world.finish();
  }
}

// There is room for one buffer and not for two. A failed open leaves the file as it was.
TEST_F(RealFaults, NoMemory) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer ends programs that run out of memory";
#endif
  constexpr std::int64_t kLarge = 64 << 20;
  constexpr auto kProbe = static_cast<std::size_t>(2 * kLarge);
  const auto limited = [] {
    std::int64_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return Limit(RLIMIT_AS, pages * sysconf(_SC_PAGESIZE) + kLarge + kLarge / 2);
  };
  const auto settleLarge = [this](Shape shape) {
    settle(shape, 1);
    h->pageSize = static_cast<std::int32_t>(kLarge);
    h->requestedBlockBytes = kLarge;
  };
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    makeFile(0);
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(kHeader + kLarge));
    settleLarge(shape);
    {
      const Limit limit = limited();
      void* const probe = mmap(nullptr, kProbe, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (probe != MAP_FAILED) {
        munmap(probe, kProbe);
        GTEST_SKIP() << "no limit of memory holds here";
      }
      EXPECT_EQ(did(open()), "noMemory {error noMemory}");
    }
    EXPECT_EQ(bytesOnDisk(), kHeader + kLarge);
    settleLarge(shape);
    ASSERT_EQ(open(), Status::ok);
    EXPECT_EQ(read(1), Status::ok);
    EXPECT_EQ(close(), Status::ok);
  }
}

}  // namespace
}  // namespace qztest
