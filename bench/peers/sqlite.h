// SQLite: one blob per page in a table, with the page number as row number, without a journal and
// without flushes. Blobs are copied from and to the database's cache.
#pragma once

#include <sqlite3.h>

#include "../core/memory.h"
#include "../core/passes.h"

namespace qzbench {

class SqlitePages {
 public:
  static constexpr bool kRawPages = false;

  // layer: the name of SQLite's file layer; null: its default.
  explicit SqlitePages(const Task& task, const char* layer = nullptr);
  SqlitePages(const SqlitePages&) = delete;
  SqlitePages& operator=(const SqlitePages&) = delete;
  ~SqlitePages();

  const char* read(std::int64_t page) { return readToChange(page); }
  void returnPage() {}
  char* readToChange(std::int64_t page) {
    check(sqlite3_blob_reopen(blob_, page));
    check(sqlite3_blob_read(blob_, page_.at(0), pageSize_, 0));
    return page_.at(0);
  }
  char* fresh(std::int64_t) { return page_.at(0); }
  void write(std::int64_t page) {
    if (insert_ == nullptr) return check(sqlite3_blob_write(blob_, page_.at(0), pageSize_, 0));
    check(sqlite3_bind_int64(insert_, 1, page));
    check(sqlite3_bind_blob(insert_, 2, page_.at(0), pageSize_, SQLITE_STATIC));
    if (sqlite3_step(insert_) != SQLITE_DONE) check(SQLITE_ERROR);
    check(sqlite3_reset(insert_));
  }
  void finish();

 private:
  void check(int result) {
    if (result != SQLITE_OK) throw Failure(std::string("SQLite: ") + sqlite3_errmsg(database_));
  }
  void run(const char* statements) {
    check(sqlite3_exec(database_, statements, nullptr, nullptr, nullptr));
  }

  sqlite3* database_ = nullptr;
  sqlite3_blob* blob_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  std::int32_t pageSize_;
  bool writes_;
  Ring page_;
};

#ifdef QZPBENCH_HAS_QZVFS
// The same through the module.
class SqliteOnModule : public SqlitePages {
 public:
  explicit SqliteOnModule(const Task& task);
};
#endif

}  // namespace qzbench
