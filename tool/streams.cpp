#include "streams.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "failure.hpp"
#include "geometry.hpp"
#include "signals.hpp"

namespace qzpfile {
namespace {

// Gathers small pages; larger ones are worth a call each, and no copy.
constexpr std::size_t kPendingBytes = 64U << 10;

}  // namespace

AlignedBuffer::AlignedBuffer(std::size_t bytes)
    : data_(static_cast<std::byte*>(
          ::operator new (bytes, std::align_val_t{std::size_t{kDirectAlignment}}))),
      size_(bytes) {}

void AlignedBuffer::Free::operator()(std::byte* data) const {
  ::operator delete (data, std::align_val_t{std::size_t{kDirectAlignment}});
}

std::size_t batchBytes(std::int32_t pageSize) {
  constexpr std::size_t kAbout = 128U << 10;  // stays in the processor's caches until written
  const auto page = static_cast<std::size_t>(pageSize);
  return std::max<std::size_t>(kAbout / page, 1) * page;
}

Input::Input(const std::string& name)
    : name_(name == "-" ? "standard input" : name),
      fd_(name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC)) {
  checkInterrupt();
  struct stat info = {};
  if (fd_ < 0 || fstat(fd_, &info) != 0) {
    throw systemFailure(Purpose::input, "cannot open", name_, errno);
  }
  isRegular_ = S_ISREG(info.st_mode);
}

Input::~Input() {
  if (fd_ > STDIN_FILENO) close(fd_);
}

std::optional<std::int64_t> Input::size() const {
  struct stat info = {};
  if (!isRegular_) return std::nullopt;
  if (fstat(fd_, &info) != 0) {
    throw systemFailure(Purpose::input, "cannot tell the size of", name_, errno);
  }
  const off_t position = std::max<off_t>(lseek(fd_, 0, SEEK_CUR), 0);
  return std::max<off_t>(info.st_size - position, 0);
}

bool Input::isSameFile(int fd) const {
  struct stat mine = {};
  struct stat other = {};
  return fstat(fd_, &mine) == 0 && fstat(fd, &other) == 0 && mine.st_dev == other.st_dev &&
         mine.st_ino == other.st_ino;
}

void Input::makeSizeKnown(const std::string& folder, Progress& progress) {
  if (isRegular_) return;
  int spool = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (spool < 0) spool = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (spool < 0) throw systemFailure(Purpose::output, "cannot make a file for", name_, errno);
  const AlignedBuffer batch(kPendingBytes);
  try {
    Output output(spool, "a temporary file");
    while (const std::size_t bytes = read(batch.bytes(), progress)) {
      output.write(batch.bytes().first(bytes));
    }
    output.flush();
  } catch (...) {
    close(spool);
    throw;
  }
  if (fd_ > STDIN_FILENO) close(fd_);
  fd_ = spool;
  isRegular_ = true;
  lseek(fd_, 0, SEEK_SET);
}

std::size_t Input::read(std::span<std::byte> area, Progress& progress) {
  std::size_t got = 0;
  while (got < area.size()) {
    if (!isRegular_) waitForData(progress);
    const ssize_t n = ::read(fd_, area.data() + got, area.size() - got);
    if (n == 0) break;
    if (n < 0) {
      const int error = errno;
      progress.answerSignals();
      if (error == EINTR || error == EAGAIN) continue;
      throw systemFailure(Purpose::input, "cannot read", name_, error);
    }
    got += static_cast<std::size_t>(n);
  }
  return got;
}

// poll ends at every signal, also where a read would be taken up again.
void Input::waitForData(Progress& progress) const {
  pollfd waited = {.fd = fd_, .events = POLLIN, .revents = 0};
  while (poll(&waited, 1, -1) < 0 && errno == EINTR) progress.answerSignals();
}

Output::Output(int fd, std::string name) : fd_(fd), name_(std::move(name)) {
  pending_.reserve(kPendingBytes);
}

void Output::write(std::span<const std::byte> bytes) {
  if (pending_.size() + bytes.size() > kPendingBytes) flush();
  if (bytes.size() >= kPendingBytes) {
    writeThrough(bytes);
  } else {
    pending_.insert(pending_.end(), bytes.begin(), bytes.end());
  }
}

void Output::flush() {
  writeThrough(pending_);
  pending_.clear();
}

void Output::writeThrough(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd_, bytes.data(), bytes.size());
    if (n < 0) {
      const int error = errno;
      checkInterrupt();
      if (error == EINTR) continue;
      throw systemFailure(Purpose::output, "cannot write", name_, error);
    }
    bytes = bytes.subspan(static_cast<std::size_t>(n));
  }
}

}  // namespace qzpfile
