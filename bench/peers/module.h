// The module as a store of pages, through the operation table of its extension object.
#pragma once

#include "../core/passes.h"
#include "../core/runner.h"

namespace qzbench {

class ModulePages {
 public:
  static constexpr bool kRawPages = true;

  explicit ModulePages(const Task& task);

  const char* read(std::int64_t page) { return readToChange(page); }
  void returnPage() { check(table_.qzpbufreturn(handle_, request_.buffer, nullptr)); }
  char* readToChange(std::int64_t page) {
    request_.pageNumber = page;
    check(table_.qzpread(handle_, &request_, nullptr));
    return request_.buffer;
  }
  char* fresh(std::int64_t) {
    void* buffer = nullptr;
    check(table_.qzpbufacquire(handle_, &buffer, nullptr));
    request_.buffer = static_cast<char*>(buffer);
    return request_.buffer;
  }
  void write(std::int64_t page) {
    request_.pageNumber = page;
    request_.length = pageSize_;
    check(table_.qzpwrite(handle_, &request_, nullptr));
  }
  void finish() {
    if (flush_) check(table_.qzpflush(handle_, nullptr));
  }

 private:
  void check(qz::Status status) {
    if (status != qz::Status::ok) require(status, handle_);
  }

  qz::PagedFile file_;
  qz::FileHandle* handle_;
  const qz::OperationTable& table_;
  std::int32_t pageSize_;
  bool flush_;
  qz::PageRequest request_{};
};

// How many buffers, or blocks, the module cycles through in such a task; the bare loop gets as
// many. Found by a test run; pages that are rewritten keep their contents.
std::size_t buffersInTurn(const Task& task);

}  // namespace qzbench
