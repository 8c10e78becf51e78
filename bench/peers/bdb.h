// Berkeley DB's memory pool over a plain file of pages. Its cache has as many pages as the module
// has buffers, at least 16. It takes part only in reads.
#pragma once

#include <db.h>

#include "../core/passes.h"

namespace qzbench {

class PoolPages {
 public:
  static constexpr bool kRawPages = true;

  explicit PoolPages(const Task& task, std::uint32_t threadFlag = 0);
  PoolPages(const PoolPages&) = delete;
  PoolPages& operator=(const PoolPages&) = delete;
  ~PoolPages();

  const char* read(std::int64_t page) {
    auto number = static_cast<db_pgno_t>(page - 1);
    check(file_->get(file_, &number, nullptr, 0, &at_));
    return static_cast<const char*>(at_);
  }
  void returnPage() { check(file_->put(file_, at_, DB_PRIORITY_UNCHANGED, 0)); }
  void finish() {}

 private:
  static void check(int result) {
    if (result != 0) throw Failure(std::string("Berkeley DB: ") + db_strerror(result));
  }

  DB_ENV* environment_ = nullptr;
  DB_MPOOLFILE* file_ = nullptr;
  void* at_ = nullptr;
};

// With locks, so that several threads can share the pool.
class SharedPoolPages : public PoolPages {
 public:
  explicit SharedPoolPages(const Task& task) : PoolPages(task, DB_THREAD) {}
};

}  // namespace qzbench
