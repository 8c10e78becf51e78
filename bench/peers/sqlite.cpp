#ifdef QZPBENCH_HAS_SQLITE
#include "sqlite.h"

#include <fmt/format.h>
#include <unistd.h>

namespace qzbench {

SqlitePages::SqlitePages(const Task& task, const char* layer)
    : pageSize_(task.geometry.pageSize),
      writes_(task.access != Access::read),
      page_(1, static_cast<std::size_t>(task.geometry.pageSize)) {
  if (task.access == Access::append) unlink(task.path.c_str());
  check(sqlite3_open_v2(task.path.c_str(), &database_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                        layer));
  run(fmt::format("PRAGMA page_size={}; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; "
                  "PRAGMA locking_mode=EXCLUSIVE; "
                  "CREATE TABLE IF NOT EXISTS pages(number INTEGER PRIMARY KEY, data BLOB); BEGIN",
                  pageSize_)
          .c_str());
  if (task.access == Access::append) {
    check(sqlite3_prepare_v2(database_, "INSERT INTO pages VALUES(?, ?)", -1, &insert_, nullptr));
  } else {
    check(sqlite3_blob_open(database_, "main", "pages", "data", 1, writes_ ? 1 : 0, &blob_));
  }
}

void SqlitePages::finish() {
  if (!writes_) return;
  check(sqlite3_blob_close(std::exchange(blob_, nullptr)));
  run("COMMIT");
}

SqlitePages::~SqlitePages() {
  sqlite3_blob_close(blob_);
  sqlite3_finalize(insert_);
  sqlite3_close(database_);
}

#ifdef QZPBENCH_HAS_QZVFS
namespace {

// Loads the layer once; all later connections use it.
const char* moduleLayer() {
  static const bool isLoaded = [] {
    sqlite3* database = nullptr;
    sqlite3_open(":memory:", &database);
    sqlite3_enable_load_extension(database, 1);
    const int result = sqlite3_load_extension(database, QZPBENCH_HAS_QZVFS, nullptr, nullptr);
    sqlite3_close(database);
    return result == SQLITE_OK;
  }();
  if (!isLoaded) throw Failure(QZPBENCH_HAS_QZVFS ": cannot be loaded");
  return "qz";
}

}  // namespace

SqliteOnModule::SqliteOnModule(const Task& task) : SqlitePages(task, moduleLayer()) {}
#endif

}  // namespace qzbench
#endif
