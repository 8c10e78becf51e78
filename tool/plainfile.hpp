// Reads and writes bytes of an open file past the module: a change of a packed file writes more
// than whole pages. Every transfer completes or throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "failure.hpp"

namespace qzpfile {

class PlainFile {
 public:
  // A view of `fd`, which is not owned. name: for messages.
  PlainFile(int fd, std::string name, Purpose purpose);
  // Opens the file behind `fd` again, for reading and writing through the system's cache.
  static PlainFile openAgain(int fd, const std::string& name);
  PlainFile(PlainFile&& other) noexcept;
  PlainFile& operator=(PlainFile&&) = delete;
  ~PlainFile();

  const std::string& name() const { return name_; }
  std::int64_t size() const;
  // False when the file ends before `bytes` is full.
  bool read(std::span<std::byte> bytes, std::int64_t offset) const;
  void write(std::span<const std::byte> bytes, std::int64_t offset) const;
  void truncate(std::int64_t size) const;
  // Flushes everything written so far to disk.
  void sync() const;

 private:
  int fd_;
  bool owned_ = false;
  std::string name_;
  Purpose purpose_;
};

}  // namespace qzpfile
