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

// A resource limit of this process, which ends with the object.
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

// An append that meets the file size limit must leave no part of the page in the file, and the file
// usable.
TEST_F(RealFaults, AnAppendBeyondTheFileSizeLimitLeavesNoPart) {
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

// A folder in which a shell line has mounted file systems, at $F and perhaps at $F/fs. The
// destructor unmounts both.
class Mounted {
 public:
  explicit Mounted(const std::string& line)
      : folder(std::filesystem::temp_directory_path().string() + "/qziop-mount-XXXXXX") {
    if (mkdtemp(folder.data()) != nullptr) told = run("set -e; " + line + "; echo mounted");
  }
  ~Mounted() { run("umount $F/fs; umount $F; rmdir $F"); }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  // Runs the line; all that it printed.
  std::string run(const std::string& line) const {
    std::string said;
    FILE* const shell = popen(("F=" + folder + "; exec 2>&1; " + line).c_str(), "r");
    for (int c = 0; shell != nullptr && (c = getc(shell)) != EOF;) said += static_cast<char>(c);
    if (shell != nullptr) pclose(shell);
    return said;
  }
  bool works() const { return told == "mounted\n"; }

  std::string folder;
  std::string told;  // what the line printed that mounts
};

// A line that mounts an ext4 of 32 MiB, on a loop device over a file in a tmpfs of the given size.
std::string ext4(int tmpfsMiB, int sectorBytes) {
  return fmt::format(
      "mount -t tmpfs -o size={}m none $F; mkdir $F/fs; truncate -s 32m $F/image; "
      "mkfs.ext4 -q -b 4096 -O ^has_journal $F/image; D=$(losetup -f --show -b {} $F/image); "
      "mount $D $F/fs || {{ losetup -d $D; false; }}; losetup -d $D",
      tmpfsMiB, sectorBytes);
}

// An append to a full file system must fail; every page stored before must stay, and appends
// succeed once there is room again.
TEST(RealFaultsMounted, AFullFileSystemLosesNoStoredPage) {
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

// Where the system takes pages and then cannot store them, the flush must fail. After a truncate to
// the last flushed page and new appends the pages must be on disk; without the truncate ext4 would
// lose them.
TEST(RealFaultsMounted, AFullDeviceFailsTheFlush) {
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

// On a device with sectors larger than a page the open succeeds, but direct transfers of single
// pages must fail and leave the file as it is. Whole blocks are read, and after a reopen without
// O_DIRECT everything works.
TEST(RealFaultsMounted, PagesSmallerThanASectorFailCleanly) {
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

// An open that lacks memory for one of its two buffers must fail and leave the file as it was.
TEST_F(RealFaults, AnOpenWithoutMemoryLeavesTheFileAsItWas) {
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
        GTEST_SKIP() << "this machine does not enforce limits of memory (RLIMIT_AS)";
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
