// Ordinary files and pipes: where pages' bytes come from and go to.
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
  // Reads all of a pipe into an unnamed file, in `folder` where that can be, and goes on with it.
  void makeSizeKnown(const std::string& folder, Progress& progress);
  // Fills `area` unless the input ends first; the bytes read. Fails when a regular file ends before
  // the end that it had when it was opened.
  std::size_t read(std::span<std::byte> area, Progress& progress);

 private:
  void waitForData(Progress& progress) const;
  void requireUncut(std::size_t got) const;

  std::string name_;
  int fd_;
  bool isRegular_ = false;
  std::int64_t expected_ = 0;  // bytes, of a regular file
  std::int64_t taken_ = 0;
};

bool isSameFile(int fd, int other);

// Fails when standard output is the file `fd`, which would grow while it is read.
void refuseAsOutput(int fd, const std::string& name);

bool isZeros(std::span<const std::byte> bytes);

// Has the system write a new file to the disk while the rest of it is being made, so that the flush
// at the end has little left to wait for. It decides nothing: the flush tells of every failure.
class EarlyWrites {
 public:
  // fd: stays the caller's; -1: leaves everything to the flush.
  explicit EarlyWrites(int fd) : fd_(fd) {}

  // The file has everything up to here.
  void wroteUpTo(std::int64_t end);

 private:
  int fd_;
  std::int64_t started_ = 0;  // bytes whose writing was asked for
};

// Collects what is written into larger pieces. Nothing is written after a failure.
class Output {
 public:
  // fd: stays the caller's. name: for messages. sparse: runs of zeros of at least 64 KiB become
  // holes where `fd` is a regular file, which then must be ended by finish(). toBeFlushed: the
  // caller flushes the file at the end.
  Output(int fd, std::string name, bool sparse = false, bool toBeFlushed = false);

  void write(std::span<const std::byte> bytes);
  // Everything written so far is with the system, zeros at the end excepted.
  void flush();
  // Everything is.
  void finish();

 private:
  void writeThrough(std::span<const std::byte> bytes);
  void writeAll(std::span<const std::byte> bytes);
  void endZeros();

  int fd_;
  std::string name_;
  bool sparse_;
  EarlyWrites early_;
  std::int64_t position_ = 0;  // in the file, behind what was written or skipped
  std::int64_t skipped_ = 0;   // zeros before that
  std::vector<std::byte> pending_;
};

// Turns runs of zeros of at least 64 KiB into holes of a file that something else writes in order.
class HolePuncher {
 public:
  // fd: stays the caller's; -1: leaves everything as it is. lag: bytes that may not be in the file
  // yet when they count as written.
  HolePuncher(int fd, std::int64_t lag) : fd_(fd), lag_(lag) {}

  void wrote(std::int64_t offset, std::span<const std::byte> bytes);
  // Everything is in the file.
  void finish();

 private:
  struct Run {
    std::int64_t begin;  // bytes into the file
    std::int64_t end;
  };

  void forgetShortRun();
  void punchBefore(std::int64_t limit);

  int fd_;
  std::int64_t lag_;
  std::deque<Run> runs_;  // the last one may still grow
};

}  // namespace qzpfile
