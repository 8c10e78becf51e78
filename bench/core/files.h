// The files that contests work on, in folders that are removed at the end of the run.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace qzbench {

// A file descriptor that closes itself.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  // Opens, or throws Failure; the mode of new files is 0600.
  Descriptor(const std::string& path, int flags);
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { reset(); }

  int get() const { return fd_; }
  void reset();

 private:
  int fd_ = -1;
};

struct Geometry {
  std::int32_t pageSize;
  std::int64_t pages;

  std::int64_t bytes() const { return pageSize * pages; }
};

// A new folder below `parent`, removed with its contents at the end of its scope.
class Folder {
 public:
  explicit Folder(const std::string& parent);
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder();

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

  // The path of a file of stamped pages, created at the first request and shared by participants
  // that only read it. The file is on disk and, unless `direct`, in the page cache.
  const std::string& stamped(const Geometry& geometry, bool direct = false);
  // A separate copy for a participant that writes to it.
  std::string stampedCopy(const Geometry& geometry, const std::string& name);
  void drop(const Geometry& geometry);

 private:
  std::string path_;
  std::map<std::pair<std::int32_t, std::int64_t>, std::string> stamped_;
};

}  // namespace qzbench
