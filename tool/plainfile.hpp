// Bytes of an open file past the module: what a change of one of the tool's own files writes
// besides whole pages. Every transfer is complete or throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "failure.hpp"

namespace qzpfile {

class PlainFile {
 public:
  // A view of `fd`, which stays the caller's. name: for messages.
  PlainFile(int fd, std::string name, Purpose purpose);
  // Opens what `fd` has open a second time, for reading and writing through the system's cache.
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
  // Everything written so far is on disk.
  void sync() const;

 private:
  int fd_;
  bool owned_ = false;
  std::string name_;
  Purpose purpose_;
};

}  // namespace qzpfile
