// Faults that the system itself makes: limits, seals, a full file system, another process.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
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

// A file that may neither grow nor shrink: what is there can be read and rewritten.
TEST_F(RealFaults, SealedFile) {
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    const int fd = memfd_create("qziop", MFD_ALLOW_SEALING);
    const std::string file = fmt::format("/proc/self/fd/{}", fd);
    setName(file);
    settle(shape);
    makeFile(4);
    if (fd < 0 || fcntl(fd, F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
      fmt::print("no sealed memory files: {}\n", std::strerror(errno));
      GTEST_SKIP();
    }
    ASSERT_EQ(did(open()), "ok");
    Status status = writeOwn(5, 1);
    if (status == Status::ok) status = flush();
    EXPECT_EQ(status, Status::ioFailed);
    EXPECT_EQ(h->lastErrno, EPERM);
    EXPECT_EQ(h->pageCount, 4);
    EXPECT_EQ(truncate(2), Status::notTruncated);
    EXPECT_EQ(h->pageCount, 4);
    EXPECT_EQ(rewrite(4, 3), Status::ok);
    EXPECT_EQ(close(), Status::ok);
    EXPECT_EQ(bytesOnDisk(), bytesFor(4));
    EXPECT_TRUE(onDisk(3, 0) && onDisk(4, 3));
    ::close(fd);
  }
}

TEST(RealFaultsMounted, FullFileSystem) {
  std::string folder = std::filesystem::temp_directory_path().string() + "/qziop-full-XXXXXX";
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  if (mount("none", folder.c_str(), "tmpfs", 0, "size=64k") != 0) {
    fmt::print("no small file system: {}\n", std::strerror(errno));
    rmdir(folder.c_str());
    GTEST_SKIP();
  }
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    World world(folder);
    world.openWith(shape, 4);
    std::ofstream(folder + "/filler") << std::string(8 * 4096, 'x');
    Status status = Status::ok;
    while (status == Status::ok && world.h->pageCount < 32)
      status = world.writeOwn(world.h->pageCount + 1, 1);
    EXPECT_EQ(status, Status::noSpace);
    EXPECT_NE(world.recorder.entries, "");
    const std::int64_t stored = world.h->pageCount;
    EXPECT_EQ(world.bytesOnDisk(), bytesFor(stored));
    for (std::int64_t page = 1; page <= stored; ++page)
      EXPECT_TRUE(world.onDisk(page, page <= 4 ? 0 : 1)) << page;
    std::filesystem::remove(folder + "/filler");
    EXPECT_EQ(world.writeOwn(stored + 1, 2), Status::ok);
    EXPECT_EQ(world.close(), Status::ok);
    EXPECT_TRUE(world.onDisk(stored + 1, 2));
    world.finish();
  }
  umount(folder.c_str());
  rmdir(folder.c_str());
}

TEST_F(RealFaults, NoDescriptorLeft) {
  for (const Shape shape : kShapes) {
    settle(shape);
    makeFile(2);
    const int next = dup(0);
    ::close(next);
    {
      const Limit limit(RLIMIT_NOFILE, next);
      EXPECT_EQ(open(), Status::noDescriptor);
    }
    EXPECT_EQ(h->lastErrno, EMFILE);
    ASSERT_EQ(did(open()), "ok");
    EXPECT_EQ(read(2), Status::ok);
    {
      const Limit limit(RLIMIT_NOFILE, next);
      EXPECT_EQ(reopen(shape, qz::noWrite), Status::reopenFailed);
    }
    EXPECT_EQ(writeOwn(1, 1), Status::ok);  // goes on as before
    EXPECT_EQ(giveBack(at), Status::ok);
    EXPECT_EQ(close(), Status::ok);
    EXPECT_TRUE(onDisk(1, 1));
  }
}

// The pages that are gone are never handed out, and a file with a part of a page is refused until
// it is cut.
TEST_F(RealFaults, CutShortByAnotherProcess) {
  for (const Shape shape : kShapes) {
    SCOPED_TRACE(nameOf(shape));
    openWith(shape, 8);
    const pid_t child = fork();
    if (child == 0) _exit(truncate64(path.c_str(), bytesFor(6) + 100) == 0 ? 0 : 1);
    int result = -1;
    waitpid(child, &result, 0);
    ASSERT_EQ(result, 0);
    EXPECT_EQ(read(6), Status::ok);
    EXPECT_TRUE(holdsPage(6, 0));
    EXPECT_EQ(giveBack(at), Status::ok);
    EXPECT_TRUE(shape == Shape::block || did(read(8)) == "80B pread 4096@32768=0");
    EXPECT_EQ(read(7), Status::misfit);
    EXPECT_EQ(at, nullptr);
    EXPECT_EQ(recorder.entries, "!818");
    EXPECT_EQ(read(1), Status::notOpen);
    settle(shape);
    EXPECT_EQ(open(), Status::misfit);
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(bytesFor(6)));
    settle(shape);
    ASSERT_EQ(did(open()), "ok");
    EXPECT_EQ(h->pageCount, 6);
    EXPECT_EQ(rewrite(6, 1), Status::ok);
    EXPECT_EQ(close(), Status::ok);
  }
}

}  // namespace
}  // namespace qztest
