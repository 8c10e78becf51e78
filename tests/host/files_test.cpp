// The stand-in host's file service: reasons of failures, locks, reopen, removal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
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

class FilesTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(folder);
    make("data", 5);
  }
  void TearDown() override {
    fs::remove_all(folder);
    EXPECT_EQ(host.liveObjects(), 0U);
  }

  std::string path(const std::string& name) { return (folder / name).string(); }
  void make(const std::string& name, std::uintmax_t bytes) {
    std::ofstream(path(name), std::ios::app).close();
    fs::resize_file(path(name), bytes);
  }
  HostFile* openName(const std::u32string& name, std::uint32_t flags, std::uint32_t mode) {
    parameters = OpenParameters{};
    parameters.fileName = name.data();
    parameters.fileNameLength = static_cast<std::uint32_t>(name.size());
    parameters.openFlags = flags;
    parameters.permissions = 0600;
    parameters.systemErrno = -5;
    qz::FileService* service = host.handle()->fileService;
    return service->fileOpen(service, &parameters, 1, mode, &journal, &status);
  }
  HostFile* open(const std::string& name, std::uint32_t flags, std::uint32_t mode) {
    return openName(qz::toUtf32(path(name)), flags, mode);
  }
  HostStatus reopen(HostFile* file, std::uint32_t flags, std::uint32_t mode) {
    parameters = OpenParameters{};
    parameters.openFlags = flags;
    return file->fileMethods->fileReopen(file, &parameters, mode, &journal);
  }
  HostStatus close_(HostFile* file, bool remove = false) {
    parameters = OpenParameters{};
    parameters.removeAtClose = remove ? 1 : 0;
    return file->fileMethods->fileClose(file, &parameters, &journal);
  }
  // The status of another open of "data", which is closed again.
  HostStatus otherOpen(std::uint32_t flags, std::uint32_t mode) {
    if (HostFile* file = open("data", flags, mode)) close_(file);
    return status;
  }

  qz::StandInHost host;
  qz::StandInJournal journal;
  const fs::path folder = fs::temp_directory_path() / ("qzhost" + std::to_string(getpid()));
  OpenParameters parameters = {};
  HostStatus status = 0;
};

// The module translates the host's statuses, so each cause of a failed open must have the right
// one, with its error number and the step that failed.
TEST_F(FilesTest, EveryFailedOpenHasTheStatusOfItsCause) {
  fs::create_directory(folder / "dir");
  fs::create_symlink("loop", folder / "loop");
  ASSERT_EQ(mkfifo(path("pipe").c_str(), 0666), 0);
  const auto here = [&](const char* name) { return qz::toUtf32(path(name)); };
  // The steps of an open, as the host's first detail word numbers them.
  enum : std::uint32_t { naming = 1, opening = 2, inspecting = 3, locking = 4 };
  struct Case {
    std::u32string name;
    std::uint32_t flags;
    HostStatus status;
    int errorNumber;
    std::uint32_t step;
    std::uint32_t mode = kUnlocked;
  };
  const std::vector<Case> cases = {
      {here("none"), both, qz::hostFileNotFound, ENOENT, opening},
      {here("none/data"), both | O_CREAT, qz::hostFileNotFound, ENOENT, opening},
      {here("data/x"), read, qz::hostFileNotFound, ENOTDIR, opening},
      {here("dir"), both, qz::hostIsDirectory, EISDIR, opening},
      {here("dir"), read, qz::hostIsDirectory, EISDIR, inspecting},
      {here("loop"), read, qz::hostBadName, ELOOP, opening},
      {here("pipe"), read, qz::hostUnsupportedFile, EOPNOTSUPP, inspecting},
      {here("pipe"), write, qz::hostUnsupportedFile, ENXIO, opening},
      {here("data"), read, qz::hostBadParameters, EBADF, locking, qz::accessExclusive},
      {here("data"), write, qz::hostBadParameters, EBADF, locking, qz::accessShared},
      {U"/dev/null", both, qz::hostUnsupportedFile, EOPNOTSUPP, inspecting},
      {U"/proc/version", read | O_DIRECT, qz::hostBadParameters, EINVAL, opening},
      {U"", read, qz::hostBadName, ENOENT, naming},
      {std::u32string(U"a\0b", 3), read, qz::hostBadName, EILSEQ, naming},
      {{U'a', 0xD800}, read, qz::hostBadName, EILSEQ, naming},
      {std::u32string(300, U'n'), read, qz::hostBadName, ENAMETOOLONG, opening},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(qz::toUtf8(c.name));
    EXPECT_EQ(openName(c.name, c.flags, c.mode), nullptr);
    EXPECT_EQ(status, c.status);
    EXPECT_EQ(parameters.systemErrno, c.errorNumber);
    EXPECT_EQ(parameters.errorDetail1, c.step);
    EXPECT_EQ(parameters.errorDetail2 & (O_ACCMODE | O_DIRECT | O_CREAT), c.flags);
  }
  const auto entries = journal.entries();
  ASSERT_EQ(entries.size(), cases.size() - 1);  // direct I/O that is refused is not reported
  EXPECT_EQ(entries[0].level, qz::JournalLevel::error);
  EXPECT_EQ(entries[0].text, qz::statusText(qz::hostFileNotFound) + " [file " + path("none") +
                                 "]: No such file or directory");
}

// The number that the next open file gets.
int unusedDescriptor() {
  const int fd = dup(STDIN_FILENO);
  close(fd);
  return fd;
}

// A lock must refuse other opens of the file. A reopen must change the lock to the one wanted or,
// if it fails, leave file and lock as they were.
TEST_F(FilesTest, LocksHoldAndChangeWithAReopen) {
  struct Case {
    std::uint32_t flags, held, newFlags, wanted;
    HostStatus status;
    bool sharedElsewhere = false;
  };
  constexpr Case kCases[] = {
      {both, kExclusive, both, kExclusive, qz::hostOk},
      {both, kExclusive, read, kShared, qz::hostOk},
      {both, kExclusive, read, kUnlocked, qz::hostOk},
      {both, kExclusive, read, kExclusive, qz::hostBadParameters},
      {both, kExclusive, write, kShared, qz::hostBadParameters},
      {read, kShared, both, kExclusive, qz::hostOk},
      {read, kShared, both, kExclusive, qz::hostLocked, true},
      {read, kShared, read, kExclusive, qz::hostBadParameters},
      {read, kShared, both, kShared, qz::hostOk, true},
      {read, kUnlocked, both, kExclusive, qz::hostLocked, true},
      {read, kUnlocked, both, kExclusive, qz::hostOk},
      {read, kUnlocked, write, kShared, qz::hostBadParameters},
      {write, qz::accessWrite, both, kUnlocked, qz::hostOk},
  };
  const auto expectLock = [&](std::uint32_t mode, bool sharedElsewhere) {
    const bool isFree = mode != kExclusive && mode != kShared && !sharedElsewhere;
    EXPECT_EQ(otherOpen(both, kExclusive), isFree ? qz::hostOk : qz::hostLocked);
    EXPECT_EQ(otherOpen(read, kShared), mode == kExclusive ? qz::hostLocked : qz::hostOk);
    EXPECT_EQ(otherOpen(both, kUnlocked), qz::hostOk);
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(testing::Message() << c.held << " to " << c.wanted << ": " << c.status);
    HostFile* file = open("data", c.flags, c.held);
    ASSERT_NE(file, nullptr);
    HostFile* other = c.sharedElsewhere ? open("data", read, kShared) : nullptr;
    expectLock(c.held, c.sharedElsewhere);
    const qz::FileInfo* info = file->fileInfo;
    const int fd = info->fd;
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    make("data", 6);
    const bool good = c.status == 0;
    const int unused = unusedDescriptor();
    for (int attempt = 0; attempt < 2; ++attempt) {  // the second reopen must find the same state
      ASSERT_EQ(reopen(file, c.newFlags, c.wanted), c.status);
      EXPECT_EQ(parameters.systemErrno == 0, good);
      EXPECT_EQ(file->fileInfo, info);
      EXPECT_EQ(info->fd, fd);
      EXPECT_EQ(info->size, good ? 6 : 5);
      EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, static_cast<int>(good ? c.newFlags : c.flags));
      EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
      expectLock(good ? c.wanted : c.held, c.sharedElsewhere);
      EXPECT_EQ(unusedDescriptor(), unused) << "a descriptor was left open";
    }
    EXPECT_EQ(close_(file), qz::hostOk);
    if (other != nullptr) close_(other);
    expectLock(0, false);
    make("data", 5);
  }
}

// A reopen that gets no descriptor must leave the file open as it was.
TEST_F(FilesTest, WithoutDescriptorsAReopenKeepsTheOldOne) {
  HostFile* file = open("data", read, kShared);
  ASSERT_NE(file, nullptr);
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none = {0, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(otherOpen(read, kUnlocked), qz::hostNoDescriptor);
  EXPECT_EQ(reopen(file, both, kExclusive), qz::hostNoDescriptor);
  EXPECT_EQ(parameters.systemErrno, EMFILE);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(fcntl(file->fileInfo->fd, F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(close_(file), qz::hostOk);
}

// A reopen must reach, and a close remove, the open file itself, never another one that has its
// name by now.
TEST_F(FilesTest, AnotherFileUnderTheNameIsNeitherReopenedNorRemoved) {
  fs::remove(path("data"));
  HostFile* file = open("data", both | O_CREAT, kExclusive);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(fs::status(path("data")).permissions(), fs::perms{0600});
  fs::rename(path("data"), path("moved"));
  EXPECT_EQ(close_(file, true), qz::hostNotRemoved);
  make("moved", 5);
  make("data", 1);
  EXPECT_EQ(reopen(file, both | O_CREAT | O_TRUNC, kExclusive), qz::hostOk);
  EXPECT_EQ(file->fileInfo->size, 5);
  EXPECT_EQ(close_(file, true), qz::hostNotRemoved);
  EXPECT_EQ(fs::file_size(path("data")), 1);
  ASSERT_EQ(journal.entries().size(), 2U);
  EXPECT_NE(journal.entries()[1].text.find("[file " + path("data") + "]"), std::string::npos);
  EXPECT_NE(fcntl(file->fileInfo->fd, F_GETFD), -1) << "still open";
  fs::rename(path("moved"), path("data"));
  EXPECT_EQ(close_(file, true), qz::hostOk);
  EXPECT_FALSE(fs::exists(path("data")));
  make("data", 1);
  file = open("data", both, kExclusive);
  fs::remove(path("data"));
  EXPECT_EQ(close_(file, true), qz::hostOk) << "gone already";
}

}  // namespace
