// The bare calls that do the module's work: the floor of the page contests.
#pragma once

#include <unistd.h>

#include <algorithm>

#include "../core/memory.h"
#include "../core/passes.h"

namespace qzbench {

int openFlags(const Task& task);

// One pread or pwrite per page.
class BarePages {
 public:
  static constexpr bool kRawPages = true;

  explicit BarePages(const Task& task)
      : file_(task.path, openFlags(task)),
        pageBytes_(static_cast<std::size_t>(task.geometry.pageSize)),
        ring_(task.ring, pageBytes_),
        at_(ring_.at(0)),
        flush_(task.flush) {}

  const char* read(std::int64_t page) { return readToChange(page); }
  void returnPage() {}
  char* readToChange(std::int64_t page) {
    at_ = ring_.next();
    const ssize_t got = pread(file_.get(), at_, pageBytes_, offsetOf(page));
    if (got != static_cast<ssize_t>(pageBytes_)) failWithErrno("pread");
    return at_;
  }
  char* fresh(std::int64_t) { return at_ = ring_.next(); }
  void write(std::int64_t page) {
    const ssize_t put = pwrite(file_.get(), at_, pageBytes_, offsetOf(page));
    if (put != static_cast<ssize_t>(pageBytes_)) failWithErrno("pwrite");
  }
  void finish() {
    if (flush_ && fsync(file_.get()) != 0) failWithErrno("fsync");
  }

 private:
  off_t offsetOf(std::int64_t page) const { return (page - 1) * static_cast<off_t>(pageBytes_); }

  Descriptor file_;
  std::size_t pageBytes_;
  Ring ring_;
  char* at_;
  bool flush_;
};

// One pread or pwrite per block. Pages are used in the block that they were read into, and new ones
// are collected from the caller's buffers. Only for work in page order.
class BareBlocks {
 public:
  explicit BareBlocks(const Task& task)
      : file_(task.path, openFlags(task)),
        pageSize_(task.geometry.pageSize),
        pagesPerBlock_(task.blockBytes / task.geometry.pageSize),
        blocks_(task.access == Access::append ? 1 : task.ring,
                static_cast<std::size_t>(task.blockBytes),
                task.hugeBlocks ? MemoryKind::huge : MemoryKind::ordinary),
        pages_(task.ring, static_cast<std::size_t>(pageSize_)),
        page_(pages_.at(0)),
        block_(blocks_.at(0)),
        flush_(task.flush) {}

  const char* read(std::int64_t page) {
    if (page < first_ || page >= end_) {
      block_ = blocks_.next();
      first_ = (page - 1) / pagesPerBlock_ * pagesPerBlock_ + 1;
      const ssize_t got = pread(file_.get(), block_, blockBytes(), offsetOf(first_));
      if (got < pageSize_) failWithErrno("pread");
      end_ = first_ + got / pageSize_;
    }
    return block_ + (page - first_) * pageSize_;
  }
  void returnPage() {}
  char* fresh(std::int64_t) { return page_ = pages_.next(); }
  void write(std::int64_t page) {
    if (end_ == 0) first_ = page;
    end_ = page + 1;
    std::copy_n(page_, pageSize_, block_ + (page - first_) * pageSize_);
    if (end_ - first_ == pagesPerBlock_) writeGathered();
  }
  void finish() {
    if (end_ != 0) writeGathered();
    if (flush_ && fsync(file_.get()) != 0) failWithErrno("fsync");
  }

 private:
  void writeGathered() {
    const auto bytes = static_cast<std::size_t>((end_ - first_) * pageSize_);
    const ssize_t put = pwrite(file_.get(), block_, bytes, offsetOf(first_));
    if (put != static_cast<ssize_t>(bytes)) failWithErrno("pwrite");
    end_ = 0;
  }
  std::size_t blockBytes() const { return static_cast<std::size_t>(pagesPerBlock_ * pageSize_); }
  off_t offsetOf(std::int64_t page) const { return (page - 1) * pageSize_; }

  Descriptor file_;
  std::int64_t pageSize_;
  std::int64_t pagesPerBlock_;
  Ring blocks_;
  Ring pages_;
  char* page_;
  char* block_;
  std::int64_t first_ = 0;
  std::int64_t end_ = 0;  // after the last page of the block; 0: the block is empty
  bool flush_;
};

}  // namespace qzbench
