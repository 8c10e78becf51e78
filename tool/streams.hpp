// Ordinary files and pipes, from which pages are read and to which they are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "progress.hpp"

namespace qzpfile {

// Memory that is aligned for direct I/O.
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

// Bytes to transfer in one batch: whole pages, about 128 KiB, at least one page.
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
  // Bytes still to come; known only for a regular file.
  std::optional<std::int64_t> size() const;
  // Copies a pipe to an unnamed file (in `folder` if possible) and continues from that file.
  void makeSizeKnown(const std::string& folder, Progress& progress);
  // Fills `area` unless the input ends first; returns the number of bytes. Throws if a regular file
  // became shorter since it was opened.
  std::size_t read(std::span<std::byte> area, Progress& progress);

 private:
  void waitForData(Progress& progress) const;
  void requireUncut(std::size_t got) const;

  std::string name_;
  int fd_;
  bool isRegular_ = false;
  std::int64_t expected_ = 0;  // bytes, for a regular file
  std::int64_t taken_ = 0;
};

bool isSameFile(int fd, int other);

// Throws if standard output is the file `fd`, which would grow while it is read.
void refuseAsOutput(int fd, const std::string& name);

bool isZeros(std::span<const std::byte> bytes);

// Makes the system start writing a new file to disk while the rest is produced, so that the final
// flush is short. All failures are left to that flush.
class EarlyWrites {
 public:
  // fd: not owned; -1: leaves everything to the flush.
  explicit EarlyWrites(int fd) : fd_(fd) {}

  // The file is complete up to `end`.
  void wroteUpTo(std::int64_t end);

 private:
  int fd_;
  std::int64_t started_ = 0;  // bytes whose writing was asked for
};

// Collects output into larger writes. Writes nothing after a failure.
class Output {
 public:
  // fd: not owned. name: for messages. sparse: if `fd` is a regular file, 64 KiB or more of zeros
  // become a hole; the caller must then call finish(). toBeFlushed: the caller flushes the file at
  // the end.
  Output(int fd, std::string name, bool sparse = false, bool toBeFlushed = false);

  void write(std::span<const std::byte> bytes);
  // Passes everything written so far to the system, except zeros at the end.
  void flush();
  // The same, including zeros at the end.
  void finish();

 private:
  void writeThrough(std::span<const std::byte> bytes);
  void writeAll(std::span<const std::byte> bytes);
  void endZeros();

  int fd_;
  std::string name_;
  bool sparse_;
  EarlyWrites early_;
  std::int64_t position_ = 0;  // file offset after what was written or skipped
  std::int64_t skipped_ = 0;   // zeros directly before that
  std::vector<std::byte> pending_;
};

// Turns runs of at least 64 KiB of zeros into holes, in a file that is written in order elsewhere.
class HolePuncher {
 public:
  // fd: not owned; -1: does nothing. lag: how many bytes that were reported as written may not be
  // in the file yet.
  HolePuncher(int fd, std::int64_t lag) : fd_(fd), lag_(lag) {}

  void wrote(std::int64_t offset, std::span<const std::byte> bytes);
  // Call this when everything is in the file.
  void finish();

 private:
  struct Run {
    std::int64_t begin;  // file offset
    std::int64_t end;
  };

  void forgetShortRun();
  void punchBefore(std::int64_t limit);

  int fd_;
  std::int64_t lag_;
  std::deque<Run> runs_;  // the last one may still grow
};

}  // namespace qzpfile
