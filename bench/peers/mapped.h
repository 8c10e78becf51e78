// The file mapped into memory, again for every pass: the page faults count.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "../core/memory.h"
#include "../core/passes.h"
#include "bare.h"

namespace qzbench {

class MappedPages {
 public:
  static constexpr bool kRawPages = true;

  explicit MappedPages(const Task& task)
      : file_(task.path,
              task.access == Access::append ? O_RDWR | O_CREAT | O_TRUNC : openFlags(task)),
        pageSize_(task.geometry.pageSize) {
    const auto bytes = static_cast<std::size_t>(task.geometry.bytes());
    // A mapping cannot grow a file page by page: the file gets its length first.
    if (task.access == Access::append && ftruncate(file_.get(), task.geometry.bytes()) != 0) {
      failWithErrno(task.path);
    }
    const int rights = task.access == Access::read ? PROT_READ : PROT_READ | PROT_WRITE;
    void* area = mmap(nullptr, bytes, rights, MAP_SHARED, file_.get(), 0);
    if (area == MAP_FAILED) failWithErrno(task.path);
    area_ = std::unique_ptr<char[], Unmap>(static_cast<char*>(area), Unmap{bytes});
  }

  const char* read(std::int64_t page) { return readToChange(page); }
  void returnPage() {}
  char* readToChange(std::int64_t page) { return area_.get() + (page - 1) * pageSize_; }
  char* fresh(std::int64_t page) { return readToChange(page); }
  void write(std::int64_t) {}
  void finish() {}

 private:
  Descriptor file_;
  std::int64_t pageSize_;
  std::unique_ptr<char[], Unmap> area_;
};

}  // namespace qzbench
