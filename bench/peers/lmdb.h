// LMDB: one record per page with the page number as key, without flushes and without locks. Reads
// use pages in the map; one transaction writes a few thousand pages.
#pragma once

#include <lmdb.h>

#include "../core/memory.h"
#include "../core/passes.h"

namespace qzbench {

class LmdbPages {
 public:
  static constexpr bool kRawPages = false;

  explicit LmdbPages(const Task& task);
  LmdbPages(const LmdbPages&) = delete;
  LmdbPages& operator=(const LmdbPages&) = delete;
  ~LmdbPages();

  const char* read(std::int64_t page) {
    MDB_val key = keyOf(&page);
    MDB_val data = {};
    check(mdb_get(transaction_, pages_, &key, &data));
    return static_cast<const char*>(data.mv_data);
  }
  void returnPage() {}
  char* readToChange(std::int64_t page) {
    std::memcpy(page_.at(0), read(page), pageBytes_);
    return page_.at(0);
  }
  char* fresh(std::int64_t) { return page_.at(0); }
  void write(std::int64_t page) {
    MDB_val key = keyOf(&page);
    MDB_val data = {pageBytes_, page_.at(0)};
    check(mdb_put(transaction_, pages_, &key, &data, putFlags_));
    if (++written_ % kPagesPerTransaction == 0) nextTransaction();
  }
  void finish() {
    if (written_ != 0) nextTransaction();
  }

 private:
  static constexpr std::size_t kPagesPerTransaction = 4096;

  static MDB_val keyOf(std::int64_t* page) { return {sizeof(*page), page}; }
  static void check(int result) {
    if (result != 0) throw Failure(std::string("LMDB: ") + mdb_strerror(result));
  }
  void nextTransaction();

  MDB_env* environment_ = nullptr;
  MDB_txn* transaction_ = nullptr;
  MDB_dbi pages_ = 0;
  std::size_t pageBytes_;
  unsigned putFlags_;
  std::size_t written_ = 0;
  Ring page_;
};

}  // namespace qzbench
