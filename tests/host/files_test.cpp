// The stand-in host's file service: causes, locks, reopen, removal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "qzstandin.h"

namespace {

namespace fs = std::filesystem;
using qz::HostFile;
using qz::HostStatus;
using qz::OpenParameters;

enum : std::uint32_t { read = O_RDONLY, write = O_WRONLY, both = O_RDWR };
constexpr std::uint32_t kExclusive = qz::accessExclusive | qz::accessWrite;
constexpr std::uint32_t kShared = qz::accessShared | qz::accessRead;
constexpr std::uint32_t kUnlocked = qz::accessNoLock | kExclusive;

// Runs `work` in a child process; its exit status.
template <class Work>
int inChild(Work work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// No descriptor is free while it lives.
class DescriptorLimit {
 public:
  DescriptorLimit() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit none = {static_cast<rlim_t>(lowest()), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  static int lowest() {
    const int fd = dup(0);
    close(fd);
    return fd;
  }
  rlimit before_ = {};
};

struct FilesTest : testing::Test {
  void SetUp() override {
    std::string name = (fs::temp_directory_path() / "qzhostXXXXXX").string();
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    folder = name;
    make("data", 5);
  }
  void TearDown() override {
    fs::remove_all(folder);
    EXPECT_EQ(host.liveObjects(), 0U);
  }

  std::string path(const std::string& name) { return (folder / name).string(); }
  void make(const std::string& name, off64_t bytes) {
    const int fd = ::open(path(name).c_str(), O_WRONLY | O_CREAT | O_LARGEFILE, 0666);
    ASSERT_EQ(ftruncate64(fd, bytes), 0);
    close(fd);
  }

  HostFile* open(const std::u32string& name, std::uint32_t flags, std::uint32_t mode) {
    parameters = OpenParameters{};
    parameters.fileName = name.data();
    parameters.fileNameLength = static_cast<std::uint32_t>(name.size());
    parameters.openFlags = flags;
    parameters.permissions = 0666;
    parameters.systemErrno = -5;
    qz::FileService* service = host.handle()->fileService;
    return service->fileOpen(service, &parameters, 1, mode, &journal, &status);
  }
  HostFile* open(const std::string& name, std::uint32_t flags, std::uint32_t mode) {
    return open(qz::toUtf32(path(name)), flags, mode);
  }
  HostStatus reopen(HostFile* file, std::uint32_t flags, std::uint32_t mode) {
    parameters = OpenParameters{};
    parameters.openFlags = flags;
    return status = file->fileMethods->fileReopen(file, &parameters, mode, &journal);
  }
  HostStatus close_(HostFile* file, bool remove = false) {
    parameters = OpenParameters{};
    parameters.removeAtClose = remove ? 1 : 0;
    return file->fileMethods->fileClose(file, &parameters, &journal);
  }
  // What another open of "data" would meet, here and in another process.
  HostStatus otherOpen(std::uint32_t flags, std::uint32_t mode) {
    const auto attempt = [&] {
      HostFile* file = open("data", flags, mode);
      if (file != nullptr) close_(file);
      return status;
    };
    const HostStatus here = attempt();
    EXPECT_EQ(inChild([&] { return static_cast<int>(attempt() & 0xFFU); }),
              static_cast<int>(here & 0xFFU));
    return here;
  }

  qz::StandInHost host;
  qz::StandInJournal journal;
  fs::path folder;
  OpenParameters parameters = {};
  HostStatus status = 0;
};

TEST_F(FilesTest, StatusesByCause) {
  fs::create_directory(folder / "dir");
  fs::create_symlink("loop", folder / "loop");
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0666), 0);
  const auto here = [&](const char* name) { return qz::toUtf32(path(name)); };
  struct Case {
    std::u32string name;
    std::uint32_t flags;
    HostStatus status;
    int errorNumber;
    std::uint32_t step;
  };
  const std::vector<Case> cases = {
      {here("none"), both, qz::hostFileNotFound, ENOENT, 2},
      {here("none/data"), both | O_CREAT, qz::hostFileNotFound, ENOENT, 2},
      {here("data/x"), read, qz::hostFileNotFound, ENOTDIR, 2},
      {here("dir"), both, qz::hostIsDirectory, EISDIR, 2},
      {here("dir"), read, qz::hostIsDirectory, EISDIR, 3},
      {here("loop"), read, qz::hostBadName, ELOOP, 2},
      {here("pipe"), read, qz::hostUnsupportedFile, EOPNOTSUPP, 3},
      {here("pipe"), write, qz::hostUnsupportedFile, ENXIO, 2},
      {U"/dev/null", both, qz::hostUnsupportedFile, EOPNOTSUPP, 3},
      {U"/proc/version", read | O_DIRECT, qz::hostBadParameters, EINVAL, 2},
      {U"", read, qz::hostBadName, ENOENT, 1},
      {std::u32string(U"a\0b", 3), read, qz::hostBadName, EILSEQ, 1},
      {{U'a', 0xD800}, read, qz::hostBadName, EILSEQ, 1},
      {std::u32string(300, U'n'), read, qz::hostBadName, ENAMETOOLONG, 2},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(open(c.name, c.flags, kUnlocked), nullptr) << qz::toUtf8(c.name);
    EXPECT_EQ(status, c.status) << qz::toUtf8(c.name);
    EXPECT_EQ(parameters.systemErrno, c.errorNumber) << qz::toUtf8(c.name);
    EXPECT_EQ(parameters.errorDetail1, c.step) << qz::toUtf8(c.name);
    EXPECT_EQ(parameters.errorDetail2 & (O_ACCMODE | O_DIRECT | O_CREAT), c.flags);
  }
  {
    const DescriptorLimit limit;
    EXPECT_EQ(open("data", read, kUnlocked), nullptr);
    EXPECT_EQ(status, qz::hostNoDescriptor);
  }
  const auto entries = journal.entries();
  ASSERT_EQ(entries.size(), cases.size());  // direct I/O that is refused is not reported
  EXPECT_EQ(entries[0].text, qz::statusText(qz::hostFileNotFound) + " [file " + path("none") +
                                 "]: No such file or directory");
  chmod(path("data").c_str(), 0600);
  chmod(folder.c_str(), 0755);
  if (geteuid() == 0) {
    EXPECT_EQ(inChild([&] {
                if (seteuid(65534) != 0) return 1;
                const bool refused = open("data", read, kUnlocked) == nullptr;
                return refused && status == qz::hostAccessRefused ? 0 : 2;
              }),
              0);
  }
}

TEST_F(FilesTest, OpensCreatesAndMeasures) {
  make("large", off64_t{5} << 30);
  HostFile* large = open("large", read, kShared);
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(large->fileInfo->size, std::int64_t{5} << 30);
  EXPECT_NE(fcntl(large->fileInfo->fd, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(parameters.systemErrno, 0);
  EXPECT_EQ(close_(large), 0U);
  const mode_t mask = umask(027);
  HostFile* fresh = open("\u00E9\xFF", both | O_CREAT, kExclusive);
  umask(mask);
  ASSERT_NE(fresh, nullptr);
  struct stat about = {};
  ASSERT_EQ(stat(path("\u00E9\xFF").c_str(), &about), 0);
  EXPECT_EQ(about.st_mode & 0777U, 0640U);
  EXPECT_EQ(close_(fresh), 0U);
  HostFile* again = open("data", write | O_CREAT, kExclusive);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(again->fileInfo->size, 5) << "nothing is cut";
  EXPECT_EQ(close_(again), 0U);
}

TEST_F(FilesTest, LocksHoldBetweenOpenFilesAndProcesses) {
  struct Case {
    std::uint32_t heldFlags, held, flags, wanted;
    HostStatus status;
  };
  constexpr Case kCases[] = {
      {both, kExclusive, both, kExclusive, qz::hostLocked},
      {both, kExclusive, read, kShared, qz::hostLocked},
      {read, kShared, both, kExclusive, qz::hostLocked},
      {read, kShared, read, kShared, 0},
      {read, kShared, both, kShared, 0},
      {both, kExclusive, both, kUnlocked, 0},
      {both, kUnlocked, both, kExclusive, 0},
      {both, kUnlocked, write, qz::accessWrite, 0},
      {both, kUnlocked, read, qz::accessExclusive, qz::hostBadParameters},
      {both, kUnlocked, write, qz::accessShared, qz::hostBadParameters},
  };
  for (const Case& c : kCases) {
    HostFile* file = open("data", c.heldFlags, c.held);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(otherOpen(c.flags, c.wanted), c.status) << c.held << " against " << c.wanted;
    EXPECT_EQ(close_(file), 0U);
    EXPECT_EQ(otherOpen(both, kExclusive), 0U) << "free again";
  }
}

TEST_F(FilesTest, ReopenPassesTheLockOnOrChangesNothing) {
  struct Case {
    std::uint32_t flags, held, newFlags, wanted;
    bool sharedElsewhere;
    HostStatus status;
    HostStatus exclusiveElsewhere, sharedThen;  // what others meet afterwards
  };
  constexpr HostStatus kNo = qz::hostLocked;
  constexpr Case kCases[] = {
      {both, kExclusive, both, kExclusive, false, 0, kNo, kNo},
      {both, kExclusive, read, kShared, false, 0, kNo, 0},
      {both, kExclusive, read, kUnlocked, false, 0, 0, 0},
      {both, kExclusive, read, kExclusive, false, qz::hostBadParameters, kNo, kNo},
      {both, kExclusive, write, kShared, false, qz::hostBadParameters, kNo, kNo},
      {read, kShared, both, kExclusive, false, 0, kNo, kNo},
      {read, kShared, both, kExclusive, true, kNo, kNo, 0},
      {read, kShared, read, kExclusive, false, qz::hostBadParameters, kNo, 0},
      {read, kShared, both, kShared, true, 0, kNo, 0},
      {read, kUnlocked, both, kExclusive, true, kNo, kNo, 0},
      {read, kUnlocked, both, kExclusive, false, 0, kNo, kNo},
      {read, kUnlocked, write, kShared, false, qz::hostBadParameters, 0, 0},
  };
  for (const Case& c : kCases) {
    HostFile* file = open("data", c.flags, c.held);
    ASSERT_NE(file, nullptr);
    HostFile* other = c.sharedElsewhere ? open("data", read, kShared) : nullptr;
    const qz::FileInfo* info = file->fileInfo;
    const int fd = info->fd;
    make("data", 6);
    const auto label = testing::Message() << c.held << " to " << c.wanted;
    for (int attempt = 0; attempt < 2; ++attempt) {  // locks do not wear out
      ASSERT_EQ(reopen(file, c.newFlags, c.wanted), c.status) << label;
      EXPECT_EQ(parameters.systemErrno == 0, c.status == 0) << label;
      EXPECT_EQ(file->fileInfo, info);
      EXPECT_EQ(info->fd, fd);
      EXPECT_EQ(info->size, c.status == 0 ? 6 : 5);
      const bool reopened = c.status == 0;
      EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, static_cast<int>(reopened ? c.newFlags : c.flags));
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      EXPECT_EQ(otherOpen(both, kExclusive), c.exclusiveElsewhere) << label;
      EXPECT_EQ(otherOpen(read, kShared), c.sharedThen) << label;
    }
    EXPECT_EQ(close_(file), 0U);
    if (other != nullptr) {
      EXPECT_EQ(close_(other), 0U);
    }
    EXPECT_EQ(otherOpen(both, kExclusive), 0U);
    make("data", 5);
  }
}

TEST_F(FilesTest, AReopenThatFailsKeepsTheOldDescriptor) {
  HostFile* file = open("data", read, kShared);
  ASSERT_NE(file, nullptr);
  const int fd = file->fileInfo->fd;
  {
    const DescriptorLimit limit;
    EXPECT_EQ(reopen(file, both, kExclusive), qz::hostNoDescriptor);
    EXPECT_EQ(parameters.systemErrno, EMFILE);
  }
  EXPECT_EQ(file->fileInfo->fd, fd);
  EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  fs::rename(folder / "data", folder / "moved");  // the same file, whatever it is called
  make("data", 77);
  EXPECT_EQ(reopen(file, both | O_CREAT | O_TRUNC, kExclusive), 0U);
  EXPECT_EQ(file->fileInfo->size, 5);
  EXPECT_EQ(close_(file), 0U);
}

TEST_F(FilesTest, RemovalAtClose) {
  HostFile* file = open("data", both, kExclusive);
  ASSERT_NE(file, nullptr);
  fs::rename(folder / "data", folder / "moved");
  EXPECT_EQ(close_(file, true), qz::hostNotRemoved);
  make("data", 1);
  EXPECT_EQ(close_(file, true), qz::hostNotRemoved) << "another file by now";
  EXPECT_TRUE(fs::exists(folder / "data"));
  ASSERT_EQ(journal.entries().size(), 2U);
  EXPECT_NE(journal.entries()[1].text.find("[file " + path("data") + "]"), std::string::npos);
  EXPECT_NE(fcntl(file->fileInfo->fd, F_GETFD), -1) << "still open";
  fs::rename(folder / "moved", folder / "data");
  EXPECT_EQ(close_(file, true), 0U);
  EXPECT_FALSE(fs::exists(folder / "data"));
  make("data", 1);
  file = open("data", both, kExclusive);
  fs::remove(folder / "data");
  EXPECT_EQ(close_(file, true), 0U) << "gone already";
}

TEST(HostTest, FreesWhatWasLeftOver) {
  qz::StandInHost host;
  qz::QZHandle* handle = host.handle();
  qz::MemoryPool* pool = handle->poolCreate(handle, nullptr, nullptr, nullptr);
  EXPECT_NE(pool->memAlloc(pool, 5000, 0), nullptr);
  EXPECT_NE(handle->extensionLoad(handle, U"qzeavl", 6, nullptr), nullptr);
  qz::OpenParameters parameters = {};
  parameters.fileName = U"/proc/version";
  parameters.fileNameLength = 13;
  HostStatus status = 0;
  EXPECT_NE(handle->fileService->fileOpen(handle->fileService, &parameters, 1, kUnlocked, nullptr,
                                          &status),
            nullptr);
  EXPECT_EQ(host.liveObjects(), 3U);
}

}  // namespace
