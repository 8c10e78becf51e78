#include "output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>

namespace qz::trace {
namespace {

constexpr std::int64_t kWindowBytes = 0x40000;

// Returns 0 for an empty file and for a trace.
int judgeContents(int fd) {
  char first[kFirstBytes.size()];
  const ssize_t got = pread64(fd, first, sizeof first, 0);
  if (got < 0) return errno;
  const std::string_view found(first, static_cast<std::size_t>(got));
  return found.empty() || found == kFirstBytes ? 0 : EEXIST;
}

}  // namespace

// Opens the file and locks it against other recording processes. Then no process has it mapped, so
// it can be emptied safely.
int Output::openFor(const char* path) {
  const int fd = open64(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
  if (fd == -1) return errno;
  struct stat64 about {};
  int error = fstat64(fd, &about) != 0 ? errno : S_ISREG(about.st_mode) ? 0 : EINVAL;
  if (error == 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) error = EWOULDBLOCK;
  if (error == 0) error = judgeContents(fd);
  if (error == 0 && ftruncate64(fd, 0) != 0) error = errno;
  if (error != 0) {
    close(fd);
  } else {
    fd_ = fd;
    failed_ = false;
    position_ = 0;
  }
  return error;
}

int Output::begin(const char* path) {
  const int error = openFor(path);
  if (error != EWOULDBLOCK) return error;
  char ownPath[PATH_MAX];
  const int length = std::snprintf(ownPath, sizeof ownPath, "%s.%d", path, getpid());
  return length < static_cast<int>(sizeof ownPath) ? openFor(ownPath) : ENAMETOOLONG;
}

int Output::mapNext() {
  windowBegin_ = position_ / kWindowBytes * kWindowBytes;
  if (const int error = posix_fallocate64(fd_, windowBegin_, kWindowBytes); error != 0)
    return error;
  void* window = mmap64(nullptr, kWindowBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE,
                        fd_, windowBegin_);
  if (window == MAP_FAILED) return errno;
  window_ = static_cast<char*>(window);
  return 0;
}

void Output::unmap() {
  if (window_ != nullptr) munmap(window_, kWindowBytes);
  window_ = nullptr;
}

int Output::append(const char* line, std::size_t bytes) {
  const std::lock_guard lock(mutex_);
  if (fd_ == -1 || failed_) return 0;
  const std::int64_t lineBegin = position_;
  while (bytes > 0) {
    if (window_ != nullptr && position_ == windowBegin_ + kWindowBytes) unmap();
    if (window_ == nullptr) {
      if (const int error = mapNext(); error != 0) {
        failed_ = true;
        position_ = lineBegin;
        return error;
      }
    }
    const std::int64_t room = windowBegin_ + kWindowBytes - position_;
    const std::size_t part = std::min(bytes, static_cast<std::size_t>(room));
    std::memcpy(window_ + (position_ - windowBegin_), line, part);
    position_ += static_cast<std::int64_t>(part);
    line += part;
    bytes -= part;
  }
  return 0;
}

void Output::settle() {
  const std::lock_guard lock(mutex_);
  if (fd_ == -1) return;
  unmap();
  // If this fails, the file keeps zero bytes after its last line, which readers skip.
  [[maybe_unused]] const int cut = ftruncate64(fd_, position_);
}

// Another thread of the parent may have held the lock; it does not exist here, so the lock would
// never be released.
void Output::abandon() {
  new (&mutex_) std::mutex;
  close(fd_);
  fd_ = -1;
  window_ = nullptr;
}

}  // namespace qz::trace
