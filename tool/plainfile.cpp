#include "plainfile.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace qzpfile {
namespace {

// Repeats a call that a signal interrupted.
template <class Call>
auto retrying(Call call) {
  for (;;) {
    const auto result = call();
    if (result >= 0 || errno != EINTR) return result;
  }
}

}  // namespace

PlainFile::PlainFile(int fd, std::string name, Purpose purpose)
    : fd_(fd), name_(std::move(name)), purpose_(purpose) {}

PlainFile PlainFile::openAgain(int fd, const std::string& name) {
  const std::string self = fmt::format("/proc/self/fd/{}", fd);
  const int again = retrying([&] { return open(self.c_str(), O_RDWR | O_CLOEXEC); });
  if (again < 0) throw systemFailure(Purpose::output, "cannot open for writing", name, errno);
  PlainFile file(again, name, Purpose::output);
  file.owned_ = true;
  return file;
}

PlainFile::PlainFile(PlainFile&& other) noexcept
    : fd_(other.fd_),
      owned_(std::exchange(other.owned_, false)),
      name_(std::move(other.name_)),
      purpose_(other.purpose_) {}

PlainFile::~PlainFile() {
  if (owned_) close(fd_);
}

std::int64_t PlainFile::size() const {
  // Unlike fstat, lseek also tells the size of a block device.
  const off_t end = lseek(fd_, 0, SEEK_END);
  if (end < 0) throw systemFailure(purpose_, "cannot examine", name_, errno);
  return end;
}

bool PlainFile::read(std::span<std::byte> bytes, std::int64_t offset) const {
  while (!bytes.empty()) {
    const ssize_t n = retrying([&] { return pread(fd_, bytes.data(), bytes.size(), offset); });
    if (n < 0) throw systemFailure(purpose_, "cannot read", name_, errno);
    if (n == 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(n));
    offset += n;
  }
  return true;
}

void PlainFile::write(std::span<const std::byte> bytes, std::int64_t offset) const {
  while (!bytes.empty()) {
    const ssize_t n = retrying([&] { return pwrite(fd_, bytes.data(), bytes.size(), offset); });
    if (n <= 0) throw systemFailure(purpose_, "cannot write", name_, n < 0 ? errno : ENOSPC);
    bytes = bytes.subspan(static_cast<std::size_t>(n));
    offset += n;
  }
}

void PlainFile::truncate(std::int64_t size) const {
  if (retrying([&] { return ftruncate(fd_, size); }) != 0) {
    throw systemFailure(purpose_, "cannot truncate", name_, errno);
  }
}

void PlainFile::sync() const {
  if (retrying([&] { return fsync(fd_); }) != 0) {
    throw systemFailure(purpose_, "cannot write", name_, errno);
  }
}

}  // namespace qzpfile
