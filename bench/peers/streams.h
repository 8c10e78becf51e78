// C streams with their usual buffer. They copy each page once more than the others.
#pragma once

#include <cstdio>

#include "../core/memory.h"
#include "../core/passes.h"

namespace qzbench {

class StdioPages {
 public:
  static constexpr bool kRawPages = true;

  explicit StdioPages(const Task& task)
      : file_(std::fopen(task.path.c_str(), modeFor(task.access))),
        pageBytes_(static_cast<std::size_t>(task.geometry.pageSize)),
        page_(1, pageBytes_) {
    if (!file_) failWithErrno(task.path);
  }

  const char* read(std::int64_t page) { return readToChange(page); }
  void returnPage() {}
  char* readToChange(std::int64_t page) {
    seek(page);
    if (std::fread(page_.at(0), pageBytes_, 1, file_.get()) != 1) failWithErrno("fread");
    nextPage_ = page + 1;
    return page_.at(0);
  }
  char* fresh(std::int64_t) { return page_.at(0); }
  void write(std::int64_t page) {
    seek(page);
    if (std::fwrite(page_.at(0), pageBytes_, 1, file_.get()) != 1) failWithErrno("fwrite");
    nextPage_ = page + 1;
  }
  void finish() {
    if (std::fflush(file_.get()) != 0) failWithErrno("fflush");
  }

 private:
  static const char* modeFor(Access access) {
    if (access == Access::read) return "rbe";
    return access == Access::append ? "wbe" : "r+be";
  }
  void seek(std::int64_t page) {
    if (page == nextPage_) return;
    const auto offset = static_cast<off_t>((page - 1) * static_cast<std::int64_t>(pageBytes_));
    if (fseeko(file_.get(), offset, SEEK_SET) != 0) failWithErrno("fseeko");
  }

  struct Close {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
  };

  std::unique_ptr<std::FILE, Close> file_;
  std::size_t pageBytes_;
  Ring page_;
  std::int64_t nextPage_ = 1;
};

}  // namespace qzbench
