// The file service: open(2) with a lock, a reopen that keeps the lock, a close that can remove the
// file.
//
// Locks are locks of open file descriptions (F_OFD_SETLK): they exclude two open files of one
// process as well as those of two processes, and end with the descriptor. An exclusive lock needs a
// descriptor open for writing, a shared lock one open for reading.
//
// The whole file is locked in two parts: the last possible byte is the gate, all bytes before it
// are the body. An open locks both in one call. A reopen has two descriptors, whose locks exclude
// each other, so it unlocks the body on the old one and locks it on the new one. Meanwhile the gate
// stays locked exclusively: no other open gets the body, and a failed reopen can lock it again.
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "objects.h"
#include "utf.h"

namespace qz {
namespace {

static_assert(sizeof(off_t) == 8, "files beyond 2 GiB need 64-bit offsets");

// The first detail word: the step that failed. The second has the open flags that the system got.
enum Step : std::uint32_t { stepName = 1, stepOpen, stepInspect, stepLock };

struct Failure {
  HostStatus status;
  int errorNumber;
  Step step;
};
constexpr Failure kNoFailure = {hostOk, 0, stepOpen};

struct Cause {
  int errorNumber;
  HostStatus status;
};

constexpr Cause kCauses[] = {
    {ENOENT, hostFileNotFound},
    {ENOTDIR, hostFileNotFound},
    {EACCES, hostAccessRefused},
    {EPERM, hostAccessRefused},
    {EISDIR, hostIsDirectory},
    {ENAMETOOLONG, hostBadName},
    {ELOOP, hostBadName},
    {EILSEQ, hostBadName},
    {EMFILE, hostNoDescriptor},
    {ENFILE, hostNoDescriptor},
    {ENOMEM, hostNoMemory},
    {ENOBUFS, hostNoMemory},
    {EROFS, hostReadOnlyFileSystem},
    {ETXTBSY, hostProgramRunning},
    {EBUSY, hostDeviceBusy},
    {EAGAIN, hostTryAgain},
    {EINVAL, hostBadParameters},
    {EBADF, hostBadParameters},
    {EIO, hostDeviceError},
    {ENODEV, hostNoDevice},
    {ESTALE, hostStaleFile},
    {ENOTCONN, hostStaleFile},
    {ETIMEDOUT, hostStaleFile},
    {ENOSPC, hostNoSpace},
    {EDQUOT, hostNoSpace},
    {EFBIG, hostUnsupportedFile},
    {EOVERFLOW, hostUnsupportedFile},
    {ENXIO, hostUnsupportedFile},
    {EOPNOTSUPP, hostUnsupportedFile},
};

HostStatus statusOf(int errorNumber) {
  for (const Cause& cause : kCauses) {
    if (cause.errorNumber == errorNumber) return cause.status;
  }
  return hostOtherFailure;
}

Failure failed(Step step, int errorNumber) { return {statusOf(errorNumber), errorNumber, step}; }

// The file does not become a controlling terminal and is closed in child programs. With O_NONBLOCK
// the open of a pipe, which is refused afterwards, does not wait; on files and block devices the
// flag has no effect.
int systemFlags(const OpenParameters& parameters) {
  return static_cast<int>(parameters.openFlags) | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
}

int openRetrying(const std::string& path, int flags, std::uint32_t permissions) {
  for (;;) {
    const int fd = open(path.c_str(), flags, static_cast<mode_t>(permissions));
    if (fd != -1 || errno != EINTR) return fd;
  }
}

std::u32string_view nameOf(const OpenParameters& parameters) {
  if (parameters.fileName == nullptr) return {};
  return {parameters.fileName, parameters.fileNameLength};
}

// Converts the file's name for the system.
Failure narrowName(std::u32string_view name, std::string* path) {
  if (name.empty()) return {hostBadName, ENOENT, stepName};
  if (!appendUtf8(name, path) || path->find('\0') != std::string::npos) {
    return {hostBadName, EILSEQ, stepName};
  }
  return kNoFailure;
}

// Accepts only files in which pages can be read at any offset.
Failure inspect(int fd, std::int64_t* size) {
  struct stat about = {};
  if (fstat(fd, &about) != 0) return failed(stepInspect, errno);
  *size = about.st_size;
  if (S_ISREG(about.st_mode)) return kNoFailure;
  if (S_ISDIR(about.st_mode)) return failed(stepInspect, EISDIR);
  std::uint64_t deviceBytes = 0;
  if (!S_ISBLK(about.st_mode)) return failed(stepInspect, EOPNOTSUPP);
  if (ioctl(fd, BLKGETSIZE64, &deviceBytes) != 0) return failed(stepInspect, errno);
  *size = static_cast<std::int64_t>(deviceBytes);
  return kNoFailure;
}

Lock lockFor(std::uint32_t accessMode) {
  if ((accessMode & accessNoLock) != 0) return Lock::none;
  if ((accessMode & accessExclusive) != 0) return Lock::exclusive;
  return (accessMode & accessShared) != 0 ? Lock::shared : Lock::none;
}

struct Range {
  off_t start;
  off_t length;  // 0: to the last possible offset
};
constexpr off_t kGateByte = std::numeric_limits<off_t>::max();
constexpr Range kGate = {kGateByte, 1};
constexpr Range kBody = {0, kGateByte};
constexpr Range kBodyAndGate = {0, 0};

bool setLock(int fd, Lock lock, Range range) {
  struct flock request = {};
  request.l_type = static_cast<short>(lock == Lock::exclusive ? F_WRLCK
                                      : lock == Lock::shared  ? F_RDLCK
                                                              : F_UNLCK);
  request.l_whence = SEEK_SET;
  request.l_start = range.start;
  request.l_len = range.length;
  return fcntl(fd, F_OFD_SETLK, &request) == 0;
}

Failure lockFailure(int errorNumber) {
  if (errorNumber == EAGAIN || errorNumber == EACCES) return {hostLocked, errorNumber, stepLock};
  const bool wrongMode = errorNumber == EBADF;
  return {wrongMode ? hostBadParameters : hostNoLocks, errorNumber, stepLock};
}

Failure takeLock(int fd, Lock lock) {
  if (lock == Lock::none || setLock(fd, lock, kBodyAndGate)) return kNoFailure;
  return lockFailure(errno);
}

// Another client of a network file system may have changed the file while it had the lock. FUSE
// keeps cached pages from one open to the next and would show their old contents; NFS drops cached
// pages itself when a lock is taken.
void dropCached(int fd) {
  struct statfs system = {};
  if (fstatfs(fd, &system) == 0 && system.f_type == FUSE_SUPER_MAGIC) {
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  }
}

// Moves a file's lock from `oldFd`, which holds it as `held`, to `newFd`, which gets it as
// `wanted`. After a failure `oldFd` has its lock as before, and closing `newFd` has no effect.
Failure passLock(int oldFd, Lock held, int newFd, Lock wanted) {
  if (wanted == Lock::none) return kNoFailure;
  if (held == Lock::none) return takeLock(newFd, wanted);
  if (held == Lock::shared && wanted == Lock::shared) {
    return setLock(newFd, wanted, kBody) ? kNoFailure : lockFailure(errno);
  }
  // The gate is locked exclusively all the time: by the old descriptor if its lock is exclusive,
  // else by the new one.
  if (held == Lock::shared) {
    setLock(oldFd, Lock::none, kGate);
    if (!setLock(newFd, Lock::exclusive, kGate)) {
      const Failure failure = lockFailure(errno);
      setLock(oldFd, Lock::shared, kGate);  // if this fails, the body's lock is enough
      return failure;
    }
  }
  setLock(oldFd, Lock::none, kBody);
  if (setLock(newFd, wanted, kBody)) return kNoFailure;
  const Failure failure = lockFailure(errno);
  setLock(oldFd, held, kBody);
  return failure;
}

// Stores the outcome of an open for the module and journals a failure, which the module does not
// do. Direct I/O that the file system refuses is not journalled: the module tries again without it.
HostStatus report(OpenParameters* parameters, const Failure& failure, Journal* journal) noexcept {
  const bool good = failure.status == hostOk;
  const bool asksAgain = failure.errorNumber == EINVAL && (parameters->openFlags & O_DIRECT) != 0;
  if (!good && !asksAgain) {
    journalFileFailure(journal, failure.status, nameOf(*parameters), failure.errorNumber);
  }
  parameters->systemErrno = failure.errorNumber;
  parameters->errorDetail1 = good ? 0 : static_cast<std::uint32_t>(failure.step);
  parameters->errorDetail2 = good ? 0 : static_cast<std::uint32_t>(systemFlags(*parameters));
  return failure.status;
}

Failure openFile(const OpenParameters& parameters, std::uint32_t accessMode, OpenFile* file) {
  file->name = nameOf(parameters);
  const Failure nameFailure = narrowName(file->name, &file->path);
  if (nameFailure.status != hostOk) return nameFailure;
  file->info.fd = openRetrying(file->path, systemFlags(parameters), parameters.permissions);
  if (file->info.fd == -1) return failed(stepOpen, errno);
  const Failure kindFailure = inspect(file->info.fd, &file->info.size);
  if (kindFailure.status != hostOk) return kindFailure;
  file->lock = lockFor(accessMode);
  if (file->lock == Lock::none) return kNoFailure;
  const Failure lockFailure = takeLock(file->info.fd, file->lock);
  if (lockFailure.status != hostOk) return lockFailure;
  dropCached(file->info.fd);
  return inspect(file->info.fd, &file->info.size);  // it may have grown before it was locked
}

HostFile* fileOpen(FileService* self, OpenParameters* parameters, Word /*one*/,
                   std::uint32_t accessMode, Journal* journal, HostStatus* status) noexcept try {
  HostRecords* host = static_cast<Files*>(self)->host;
  auto file = std::make_unique<OpenFile>(host);
  *status = report(parameters, openFile(*parameters, accessMode, file.get()), journal);
  return *status == hostOk ? host->openFiles.add(std::move(file)) : nullptr;
} catch (const std::bad_alloc&) {
  *status = report(parameters, {hostNoMemory, ENOMEM, stepOpen}, journal);
  return nullptr;
}

// Opens the same file again, even if its name now stands for another file. The new descriptor gets
// the number of the old one.
Failure reopenFile(const OpenParameters& parameters, std::uint32_t accessMode, OpenFile* file) {
  const std::string self = "/proc/self/fd/" + std::to_string(file->info.fd);
  const int fd = openRetrying(self, systemFlags(parameters) & ~(O_CREAT | O_EXCL | O_TRUNC), 0);
  if (fd == -1) return failed(stepOpen, errno);
  std::int64_t size = 0;
  const Lock lock = lockFor(accessMode);
  Failure failure = inspect(fd, &size);
  if (failure.status == hostOk) failure = passLock(file->info.fd, file->lock, fd, lock);
  if (failure.status == hostOk) {
    dup3(fd, file->info.fd, O_CLOEXEC);  // of two open descriptors: cannot fail
    if (lock != Lock::none) setLock(file->info.fd, lock, kBodyAndGate);
    file->info.size = size;
    file->lock = lock;
  }
  close(fd);
  return failure;
}

HostStatus fileReopen(HostFile* self, OpenParameters* parameters, std::uint32_t accessMode,
                      Journal* journal) noexcept try {
  return report(parameters, reopenFile(*parameters, accessMode, static_cast<OpenFile*>(self)),
                journal);
} catch (const std::bad_alloc&) {
  return report(parameters, {hostNoMemory, ENOMEM, stepOpen}, journal);
}

// Returns 0 or an error number. A file that has no name left counts as removed. If the name now
// stands for another file, nothing is removed.
int removeName(const OpenFile& file) {
  struct stat named = {};
  struct stat opened = {};
  if (fstat(file.info.fd, &opened) != 0) return errno;
  if (opened.st_nlink == 0) return 0;
  if (stat(file.path.c_str(), &named) != 0) return errno;
  if (named.st_dev != opened.st_dev || named.st_ino != opened.st_ino) return ESTALE;
  return unlink(file.path.c_str()) == 0 ? 0 : errno;
}

HostStatus fileClose(HostFile* self, OpenParameters* parameters, Journal* journal) noexcept {
  auto* file = static_cast<OpenFile*>(self);
  if (file->info.fd != -1) {
    const int removal = parameters->removeAtClose == 1 ? removeName(*file) : 0;
    if (removal != 0) {
      journalFileFailure(journal, hostNotRemoved, file->name, removal);
      return hostNotRemoved;
    }
    // FUSE ends such a lock some time after close returns; until then an open of the same file on a
    // network file system would be refused. An unlock is complete when it returns.
    if (file->lock != Lock::none) setLock(file->info.fd, Lock::none, kBodyAndGate);
    // The descriptor is closed even if close fails; the record stays until a close succeeds.
    if (close(std::exchange(file->info.fd, -1)) != 0 && errno != EINTR) {
      journalFileFailure(journal, hostCloseFailed, file->name, errno);
      return hostCloseFailed;
    }
  }
  file->host->openFiles.remove(file);
  return hostOk;
}

}  // namespace

OpenFile::OpenFile(HostRecords* owner) : HostFile{}, host(owner) {
  fileInfo = &info;
  fileMethods = &owner->files.methods;
}

OpenFile::~OpenFile() {
  if (info.fd != -1) close(info.fd);
}

Files::Files(HostRecords* owner) : FileService{}, host(owner) {
  FileService::fileOpen = qz::fileOpen;
  methods.fileClose = qz::fileClose;
  methods.fileReopen = qz::fileReopen;
}

}  // namespace qz
