// Preloaded into qzpfile: records every call that changes files or folders, in order and with its
// data, and fails one call by its number. power/commands.cpp reads the records.
//
// QZR_TRACE: the file to append the records to. QZR_FAIL: number of the call to fail, from 1.
// QZR_ERROR: the errno to fail it with; 0: a transfer moves half of its bytes, any other call is
// interrupted (EINTR). QZR_STOP: number of the call before which the program stops itself
// (SIGSTOP).
#undef _FORTIFY_SOURCE  // its inline wrappers stand where this file defines the calls themselves
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "power/trace.h"

namespace {

using qztest::TraceRecord;
using qztest::What;

std::int64_t numberFrom(const char* variable, std::int64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoll(text, nullptr, 10);
}

int traceFile() {
  static const int fd = [] {
    const char* const path = std::getenv("QZR_TRACE");
    if (path == nullptr) return -1;
    return static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  }();
  return fd;
}

std::uint64_t inodeOf(int fd) {
  struct stat info = {};
  return syscall(SYS_fstat, fd, &info) == 0 ? info.st_ino : 0;
}

std::uint64_t inodeOf(int folder, const char* name) {
  struct stat info = {};
  return syscall(SYS_newfstatat, folder, name, &info, 0) == 0 ? info.st_ino : 0;
}

void record(What what, std::uint64_t inode, std::int64_t offset, const void* data,
            std::int64_t length) {
  const int saved = errno;
  const TraceRecord made = {what, inode, offset, data == nullptr ? 0 : length};
  iovec parts[] = {{const_cast<TraceRecord*>(&made), sizeof made},
                   {const_cast<void*>(data), static_cast<std::size_t>(made.length)}};
  if (traceFile() >= 0) syscall(SYS_writev, traceFile(), parts, 2);
  errno = saved;
}

void recordName(What what, std::uint64_t inode, const char* name) {
  record(what, inode, 0, name, static_cast<std::int64_t>(std::strlen(name)));
}

enum class Fate { goes, fails, isShort };

// Counts a call; `fails` has set errno.
Fate next(bool transfers) {
  static const std::int64_t toFail = numberFrom("QZR_FAIL", 0);
  static const std::int64_t error = numberFrom("QZR_ERROR", EIO);
  static const std::int64_t toStop = numberFrom("QZR_STOP", 0);
  static std::int64_t made = 0;
  record(What::call, 0, 0, nullptr, 0);
  if (++made == toStop) kill(getpid(), SIGSTOP);
  if (made != toFail) return Fate::goes;
  if (error == 0 && transfers) return Fate::isShort;
  errno = error == 0 ? EINTR : static_cast<int>(error);
  return Fate::fails;
}

// A call that moves no bytes.
template <class... Arguments>
long plain(long number, Arguments... arguments) {
  return next(false) == Fate::fails ? -1 : syscall(number, arguments...);
}

std::size_t partOf(Fate fate, std::size_t bytes) {
  return fate == Fate::isShort ? (bytes + 1) / 2 : bytes;
}

long openAny(int folder, const char* name, int flags, mode_t mode) {
  const bool isNew = (flags & O_CREAT) != 0 && inodeOf(folder, name) == 0;
  const long fd = plain(SYS_openat, folder, name, flags, mode);
  if (fd < 0) return fd;
  const std::uint64_t inode = inodeOf(static_cast<int>(fd));
  if (isNew) recordName(What::nameAdded, inode, name);
  if ((flags & O_TRUNC) != 0) record(What::resized, inode, 0, nullptr, 0);
  return fd;
}

long writeAt(int fd, const void* data, std::size_t bytes, off64_t offset) {
  const Fate fate = next(true);
  if (fate == Fate::fails) return -1;
  const long done = syscall(SYS_pwrite64, fd, data, partOf(fate, bytes), offset);
  if (done > 0) record(What::written, inodeOf(fd), offset, data, done);
  return done;
}

int truncateTo(int fd, off64_t bytes) {
  const long done = plain(SYS_ftruncate, fd, bytes);
  if (done == 0) record(What::resized, inodeOf(fd), bytes, nullptr, 0);
  return static_cast<int>(done);
}

mode_t modeFrom(int flags, va_list list) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(list, mode_t) : 0;
}

}  // namespace

extern "C" {

int open(const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = modeFrom(flags, list);
  va_end(list);
  return static_cast<int>(openAny(AT_FDCWD, name, flags, mode));
}

int open64(const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = modeFrom(flags, list);
  va_end(list);
  return static_cast<int>(openAny(AT_FDCWD, name, flags, mode));
}

// The name of open64 in hardened programs, where the compiler does not know the flags.
int __open64_2(const char* name, int flags) {  // NOLINT(bugprone-reserved-identifier)
  return static_cast<int>(openAny(AT_FDCWD, name, flags, 0));
}

int openat64(int folder, const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = modeFrom(flags, list);
  va_end(list);
  return static_cast<int>(openAny(folder, name, flags, mode));
}

int openat(int folder, const char* name, int flags, ...) {
  va_list list;
  va_start(list, flags);
  const mode_t mode = modeFrom(flags, list);
  va_end(list);
  return static_cast<int>(openAny(folder, name, flags, mode));
}

// Closes the descriptor also when the call fails, as Linux does.
int close(int fd) {
  if (fd == traceFile()) return 0;
  const Fate fate = next(false);
  const int error = errno;
  const long done = syscall(SYS_close, fd);
  errno = fate == Fate::fails ? error : errno;
  return fate == Fate::fails ? -1 : static_cast<int>(done);
}

ssize_t read(int fd, void* data, std::size_t bytes) {
  const Fate fate = next(true);
  return fate == Fate::fails ? -1 : syscall(SYS_read, fd, data, partOf(fate, bytes));
}

ssize_t pread64(int fd, void* data, std::size_t bytes, off64_t offset) {
  const Fate fate = next(true);
  return fate == Fate::fails ? -1 : syscall(SYS_pread64, fd, data, partOf(fate, bytes), offset);
}

ssize_t readv(int fd, const iovec* parts, int count) { return plain(SYS_readv, fd, parts, count); }

ssize_t pwrite64(int fd, const void* data, std::size_t bytes, off64_t offset) {
  return writeAt(fd, data, bytes, offset);
}

ssize_t write(int fd, const void* data, std::size_t bytes) {
  const Fate fate = next(true);
  if (fate == Fate::fails) return -1;
  const long offset = syscall(SYS_lseek, fd, 0, SEEK_CUR);
  const long done = syscall(SYS_write, fd, data, partOf(fate, bytes));
  if (done > 0 && offset >= 0) record(What::written, inodeOf(fd), offset, data, done);
  return done;
}

int ftruncate64(int fd, off64_t bytes) noexcept { return truncateTo(fd, bytes); }

int fsync(int fd) {
  const long done = plain(SYS_fsync, fd);
  if (done == 0) record(What::flushed, inodeOf(fd), 0, nullptr, 0);
  return static_cast<int>(done);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  return plain(SYS_lseek, fd, offset, whence);
}

int fstat64(int fd, struct stat64* info) noexcept {
  return static_cast<int>(plain(SYS_fstat, fd, info));
}

int stat64(const char* name, struct stat64* info) noexcept {
  return static_cast<int>(plain(SYS_newfstatat, AT_FDCWD, name, info, 0));
}

int fcntl64(int fd, int command, ...) {
  va_list list;
  va_start(list, command);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return static_cast<int>(plain(SYS_fcntl, fd, command, argument));
}

int fchmod(int fd, mode_t mode) noexcept { return static_cast<int>(plain(SYS_fchmod, fd, mode)); }

int fchown(int fd, uid_t owner, gid_t group) noexcept {
  return static_cast<int>(plain(SYS_fchown, fd, owner, group));
}

int renameat2(int from, const char* oldName, int to, const char* newName, unsigned flags) noexcept {
  const std::uint64_t inode = inodeOf(from, oldName);
  const long done = plain(SYS_renameat2, from, oldName, to, newName, flags);
  if (done == 0) {
    recordName(What::nameAdded, inode, newName);
    recordName(What::nameRemoved, inode, oldName);
  }
  return static_cast<int>(done);
}

int renameat(int from, const char* oldName, int to, const char* newName) noexcept {
  return renameat2(from, oldName, to, newName, 0);
}

int linkat(int from, const char* oldName, int to, const char* newName, int flags) noexcept {
  const std::uint64_t inode = (flags & AT_EMPTY_PATH) != 0 ? inodeOf(from) : inodeOf(from, oldName);
  const long done = plain(SYS_linkat, from, oldName, to, newName, flags);
  if (done == 0) recordName(What::nameAdded, inode, newName);
  return static_cast<int>(done);
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  const long done = plain(SYS_unlinkat, folder, name, flags);
  if (done == 0) recordName(What::nameRemoved, 0, name);
  return static_cast<int>(done);
}

int unlink(const char* name) noexcept { return unlinkat(AT_FDCWD, name, 0); }
}
