// Ordinary files and pipes: where pages' bytes come from and go to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "progress.hpp"

namespace qzpfile {

// Memory that direct I/O can use as it is.
class AlignedBuffer {
 public:
  explicit AlignedBuffer(std::size_t bytes);

  std::span<std::byte> bytes() const { return {data_.get(), size_}; }
  std::byte* data() const { return data_.get(); }

 private:
  struct Free {
    void operator()(std::byte* data) const;
  };
  std::unique_ptr<std::byte, Free> data_;
  std::size_t size_;
};

// Bytes of memory for the pages that travel together: whole pages, about 128 KiB, at least one.
std::size_t batchBytes(std::int32_t pageSize);

// A file, or standard input under the name "-".
class Input {
 public:
  explicit Input(const std::string& name);
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  ~Input();

  const std::string& name() const { return name_; }
  int fd() const { return fd_; }
  // Bytes still to come; only a regular file knows.
  std::optional<std::int64_t> size() const;
  bool isSameFile(int fd) const;
  // Reads all of a pipe into an unnamed file, in `folder` where that can be, and goes on with it.
  void makeSizeKnown(const std::string& folder, Progress& progress);
  // Fills `area` unless the input ends first; the bytes read.
  std::size_t read(std::span<std::byte> area, Progress& progress);

 private:
  void waitForData(Progress& progress) const;

  std::string name_;
  int fd_;
  bool isRegular_ = false;
};

// Collects what is written into larger pieces. Nothing is written after a failure.
class Output {
 public:
  // fd: stays the caller's. name: for messages.
  Output(int fd, std::string name);

  void write(std::span<const std::byte> bytes);
  // Everything written so far is with the system.
  void flush();

 private:
  void writeThrough(std::span<const std::byte> bytes);

  int fd_;
  std::string name_;
  std::vector<std::byte> pending_;
};

}  // namespace qzpfile
