#include "files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "measure.h"
#include "memory.h"
#include "stamp.h"

namespace qzbench {
namespace {

constexpr std::int64_t kWriteBytes = std::int64_t{4} << 20U;

void writeStamped(const std::string& path, const Geometry& geometry, bool direct) {
  const Descriptor file(path, O_WRONLY | O_CREAT | O_TRUNC | (direct ? O_DIRECT : 0));
  const std::int64_t pagesPerWrite = kWriteBytes / geometry.pageSize;
  const Ring ring(1, static_cast<std::size_t>(kWriteBytes), MemoryKind::huge);
  for (std::int64_t first = 1; first <= geometry.pages; first += pagesPerWrite) {
    const std::int64_t pages = std::min(pagesPerWrite, geometry.pages - first + 1);
    for (std::int64_t i = 0; i < pages; ++i) {
      stamp(ring.at(0) + i * geometry.pageSize, geometry.pageSize, first + i);
    }
    const auto bytes = static_cast<std::size_t>(pages * geometry.pageSize);
    const std::int64_t offset = (first - 1) * geometry.pageSize;
    if (pwrite(file.get(), ring.at(0), bytes, offset) != static_cast<ssize_t>(bytes)) {
      failWithErrno(path);
    }
  }
  if (fsync(file.get()) != 0) failWithErrno(path);
}

}  // namespace

Descriptor::Descriptor(const std::string& path, int flags)
    : fd_(open(path.c_str(), flags | O_CLOEXEC, 0600)) {
  if (fd_ == -1) failWithErrno(path);
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  reset();
  fd_ = std::exchange(other.fd_, -1);
  return *this;
}

void Descriptor::reset() {
  if (fd_ != -1) close(std::exchange(fd_, -1));
}

Folder::Folder(const std::string& parent) : path_(parent + "/qzpbench.XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) failWithErrno(path_);
}

Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

const std::string& Folder::stamped(const Geometry& geometry, bool direct) {
  const auto [entry, isNew] = stamped_.try_emplace({geometry.pageSize, geometry.pages});
  if (isNew) {
    entry->second =
        file("stamped-" + std::to_string(geometry.pageSize) + "-" + std::to_string(geometry.pages));
    writeStamped(entry->second, geometry, direct);
  }
  return entry->second;
}

std::string Folder::stampedCopy(const Geometry& geometry, const std::string& name) {
  std::string path = file(name);
  writeStamped(path, geometry, false);
  return path;
}

void Folder::drop(const Geometry& geometry) {
  const auto entry = stamped_.find({geometry.pageSize, geometry.pages});
  if (entry == stamped_.end()) return;
  unlink(entry->second.c_str());
  stamped_.erase(entry);
}

}  // namespace qzbench
