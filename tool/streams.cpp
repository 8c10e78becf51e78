#include "streams.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "failure.hpp"
#include "geometry.hpp"
#include "signals.hpp"
#include "sizes.hpp"

namespace qzpfile {
namespace {

// Collects small pages; larger ones get a call each, without a copy.
constexpr std::size_t kPendingBytes = 64U << 10;

// Zeros are looked for in units of this many bytes; file systems have no smaller holes.
constexpr std::int64_t kZeroUnit = 4096;
// The least that is found of a 64 KiB run, wherever it begins and ends.
constexpr std::int64_t kLeastHole = (64 << 10) - 2 * kZeroUnit;

// The length of the run of zeros, or of other bytes, at the front, in units aligned to the file.
// position: the file offset of the first byte.
std::size_t lengthOfRun(std::span<const std::byte> bytes, std::int64_t position, bool zeros) {
  std::size_t length = 0;
  while (length < bytes.size()) {
    const auto at = position + static_cast<std::int64_t>(length);
    const auto unit = bytes.subspan(
        length,
        std::min(bytes.size() - length, static_cast<std::size_t>(kZeroUnit - at % kZeroUnit)));
    if (isZeros(unit) != zeros) break;
    length += unit.size();
  }
  return length;
}

// Only after the end of a regular file: a hole does not overwrite existing bytes.
bool takesHoles(int fd) {
  struct stat info = {};
  const int flags = fcntl(fd, F_GETFL);
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && flags >= 0 && (flags & O_APPEND) == 0 &&
         lseek(fd, 0, SEEK_CUR) >= info.st_size;
}

}  // namespace

bool isSameFile(int fd, int other) {
  struct stat one = {};
  struct stat two = {};
  return fstat(fd, &one) == 0 && fstat(other, &two) == 0 && one.st_dev == two.st_dev &&
         one.st_ino == two.st_ino;
}

void refuseAsOutput(int fd, const std::string& name) {
  if (isSameFile(fd, STDOUT_FILENO)) {
    throw Failure(Exit::usage, "standard output is the file itself", name)
        .tryThis("write to another file");
  }
}

bool isZeros(std::span<const std::byte> bytes) {
  return bytes.empty() || (bytes.front() == std::byte{0} &&
                           std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

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
  expected_ = size().value_or(0);
  // Files of /proc have no size, and a log may get its first bytes later: the end is not known.
  if (expected_ == 0) isRegular_ = false;
}

Input::~Input() {
  if (fd_ > STDIN_FILENO) close(fd_);
}

std::optional<std::int64_t> Input::size() const {
  struct stat info = {};
  if (!isRegular_) return std::nullopt;
  if (fstat(fd_, &info) != 0) {
    throw systemFailure(Purpose::input, "cannot find the size", name_, errno);
  }
  const off_t position = std::max<off_t>(lseek(fd_, 0, SEEK_CUR), 0);
  return std::max<off_t>(info.st_size - position, 0);
}

void Input::makeSizeKnown(const std::string& folder, Progress& progress) {
  if (isRegular_) return;
  int spool = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (spool < 0) spool = open("/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (spool < 0)
    throw systemFailure(Purpose::output, "cannot create a temporary file", name_, errno);
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
    if (n == 0) {
      requireUncut(got);
      break;
    }
    if (n < 0) {
      const int error = errno;
      progress.answerSignals();
      if (error == EINTR || error == EAGAIN) continue;
      throw systemFailure(Purpose::input, "cannot read", name_, error);
    }
    got += static_cast<std::size_t>(n);
  }
  taken_ += static_cast<std::int64_t>(got);
  return got;
}

void Input::requireUncut(std::size_t got) const {
  const std::int64_t taken = taken_ + static_cast<std::int64_t>(got);
  // System files, as in /sys, may have fewer bytes than their size, but their size stays.
  if (taken < expected_ && size() == 0) {
    throw Failure(Exit::badData,
                  fmt::format("became shorter while it was read: it had {}, and {} could be read",
                              counted(expected_, "byte"), taken),
                  name_)
        .tryThis("wait until nobody changes the file, and try again");
  }
}

// poll returns at every signal, even where a read would be restarted.
void Input::waitForData(Progress& progress) const {
  pollfd waited = {.fd = fd_, .events = POLLIN, .revents = 0};
  while (poll(&waited, 1, -1) < 0 && errno == EINTR) progress.answerSignals();
}

void EarlyWrites::wroteUpTo(std::int64_t end) {
  constexpr std::int64_t kAtATime = 8 << 20;  // few calls, and no small requests to the disk
  if (fd_ < 0 || end - started_ < kAtATime) return;
  // A system without the call writes everything at the flush.
  if (sync_file_range(fd_, started_, end - started_, SYNC_FILE_RANGE_WRITE) != 0) fd_ = -1;
  started_ = end;
}

Output::Output(int fd, std::string name, bool sparse, bool toBeFlushed)
    : fd_(fd),
      name_(std::move(name)),
      sparse_(sparse && takesHoles(fd)),
      early_(toBeFlushed ? fd : -1) {
  if (sparse_) position_ = lseek(fd_, 0, SEEK_CUR);
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

void Output::finish() {
  flush();
  if (skipped_ >= kLeastHole && ftruncate(fd_, position_) != 0) {
    throw systemFailure(Purpose::output, "cannot write", name_, errno);
  }
  endZeros();
}

void Output::writeThrough(std::span<const std::byte> bytes) {
  if (!sparse_) {
    writeAll(bytes);
    position_ += static_cast<std::int64_t>(bytes.size());
    bytes = {};
  }
  while (!bytes.empty()) {
    if (const std::size_t data = lengthOfRun(bytes, position_, false); data > 0) {
      endZeros();
      writeAll(bytes.first(data));
      position_ += static_cast<std::int64_t>(data);
      bytes = bytes.subspan(data);
    }
    const std::size_t zeros = lengthOfRun(bytes, position_, true);
    skipped_ += static_cast<std::int64_t>(zeros);
    position_ += static_cast<std::int64_t>(zeros);
    bytes = bytes.subspan(zeros);
  }
  early_.wroteUpTo(position_ - skipped_);
}

// A long run of zeros before the next byte becomes a hole; a short one is written.
void Output::endZeros() {
  if (skipped_ >= kLeastHole) {
    if (lseek(fd_, position_, SEEK_SET) < 0) {
      throw systemFailure(Purpose::output, "cannot write", name_, errno);
    }
  } else {
    const std::vector<std::byte> zeros(static_cast<std::size_t>(skipped_));
    writeAll(zeros);
  }
  skipped_ = 0;
}

void Output::writeAll(std::span<const std::byte> bytes) {
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

void HolePuncher::wrote(std::int64_t offset, std::span<const std::byte> bytes) {
  while (!bytes.empty() && fd_ >= 0) {
    const std::size_t data = lengthOfRun(bytes, offset, false);
    offset += static_cast<std::int64_t>(data);
    bytes = bytes.subspan(data);
    const auto zeros = static_cast<std::int64_t>(lengthOfRun(bytes, offset, true));
    if (zeros > 0) {
      if (runs_.empty() || runs_.back().end != offset) {
        forgetShortRun();
        runs_.push_back({.begin = offset, .end = offset});
      }
      runs_.back().end += zeros;
      offset += zeros;
      bytes = bytes.subspan(static_cast<std::size_t>(zeros));
    }
  }
  punchBefore(offset - lag_);
}

void HolePuncher::finish() {
  forgetShortRun();
  punchBefore(std::numeric_limits<std::int64_t>::max());
}

void HolePuncher::forgetShortRun() {
  if (!runs_.empty() && runs_.back().end - runs_.back().begin < kLeastHole) runs_.pop_back();
}

// Punches a long run while it still grows, so that the disk need not hold it.
void HolePuncher::punchBefore(std::int64_t limit) {
  constexpr std::int64_t kLong = 64 << 20;
  while (fd_ >= 0 && !runs_.empty()) {
    Run& run = runs_.front();
    if (run.end > limit && limit - run.begin < kLong) return;
    const std::int64_t end = std::min(run.end, limit);
    if (fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, run.begin, end - run.begin) !=
        0) {
      fd_ = -1;  // the file system has no holes; zeros are as good
    }
    run.begin = end;
    if (run.begin < run.end) return;
    runs_.pop_front();
  }
}

}  // namespace qzpfile
