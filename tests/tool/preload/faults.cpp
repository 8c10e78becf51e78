// Loaded before the C library (LD_PRELOAD): makes system calls of the program fail in ways that a
// test cannot bring about otherwise. QZPFILE_FAULT says which.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool faultIs(const char* name) {
  const char* const wanted = std::getenv("QZPFILE_FAULT");  // NOLINT(concurrency-mt-unsafe)
  return wanted != nullptr && std::strcmp(wanted, name) == 0;
}

mode_t kindOf(int fd) {
  struct stat info = {};
  return fstat(fd, &info) == 0 ? info.st_mode & S_IFMT : 0;
}

int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace

// "folder-fsync": a folder cannot be flushed. "fsync": no file can, after the first ones that
// QZPFILE_FLUSHES says.
extern "C" int fsync(int fd) {
  static int flushes = 0;
  if (faultIs("folder-fsync") && kindOf(fd) == S_IFDIR) return failWith(EIO);
  if (faultIs("fsync") && kindOf(fd) == S_IFREG) {
    const char* const most = std::getenv("QZPFILE_FLUSHES");  // NOLINT(concurrency-mt-unsafe)
    if (++flushes > (most == nullptr ? 0 : std::atoi(most))) return failWith(EIO);
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

// "nameless": the file system has no files without a name.
extern "C" int openat64(int folder, const char* name, int flags, ...) {
  if (faultIs("nameless") && (flags & O_TMPFILE) == O_TMPFILE) return failWith(EOPNOTSUPP);
  std::va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);  // callers pass it where `flags` need it
  va_end(arguments);
  return static_cast<int>(syscall(SYS_openat, folder, name, flags | O_LARGEFILE, mode));
}

// "read": no file can be read. "shrink": a file shrinks to 8192 bytes once 4096 were read.
extern "C" ssize_t read(int fd, void* data, size_t bytes) {
  if (faultIs("read") && kindOf(fd) == S_IFREG) return failWith(EIO);
  if (faultIs("shrink") && kindOf(fd) == S_IFREG) {
    const ssize_t got = syscall(SYS_read, fd, data, bytes < 4096 ? bytes : 4096);
    if (truncate(("/proc/self/fd/" + std::to_string(fd)).c_str(), 8192) != 0) return -1;
    return got;
  }
  return syscall(SYS_read, fd, data, bytes);
}

// "page": byte 20000 of a file cannot be read. "header": byte 0 cannot.
extern "C" ssize_t pread64(int fd, void* data, size_t bytes, off64_t offset) {
  if (faultIs("page") && offset <= 20000 && offset + static_cast<off64_t>(bytes) > 20000) {
    return failWith(EIO);
  }
  if (faultIs("header") && offset == 0) return failWith(EIO);
#ifdef __i386__
  const auto wide = static_cast<std::uint64_t>(offset);
  return syscall(SYS_pread64, fd, data, bytes, static_cast<std::uint32_t>(wide),
                 static_cast<std::uint32_t>(wide >> 32));
#else
  return syscall(SYS_pread64, fd, data, bytes, offset);
#endif
}
