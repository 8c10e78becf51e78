#ifdef QZPBENCH_HAS_LMDB
#include "lmdb.h"

#include <unistd.h>

namespace qzbench {

LmdbPages::LmdbPages(const Task& task)
    : pageBytes_(static_cast<std::size_t>(task.geometry.pageSize)),
      putFlags_(task.access == Access::append ? MDB_APPEND : 0U),
      page_(1, pageBytes_) {
  if (task.access == Access::append) unlink(task.path.c_str());
  const bool reads = task.access == Access::read;
  check(mdb_env_create(&environment_));
  // A transaction keeps the pages that it replaces until it ends.
  constexpr std::int64_t kLeastMapBytes = std::int64_t{64} << 20U;
  const std::int64_t mapBytes = std::max(task.geometry.bytes() * 4, kLeastMapBytes);
  check(mdb_env_set_mapsize(environment_, static_cast<std::size_t>(mapBytes)));
  check(mdb_env_open(environment_, task.path.c_str(),
                     MDB_NOSUBDIR | MDB_NOLOCK | MDB_NOSYNC | (reads ? MDB_RDONLY : 0U), 0600));
  check(mdb_txn_begin(environment_, nullptr, reads ? MDB_RDONLY : 0U, &transaction_));
  check(mdb_dbi_open(transaction_, nullptr, MDB_INTEGERKEY | (reads ? 0U : MDB_CREATE), &pages_));
}

void LmdbPages::nextTransaction() {
  MDB_txn* full = std::exchange(transaction_, nullptr);
  check(mdb_txn_commit(full));
  check(mdb_txn_begin(environment_, nullptr, 0, &transaction_));
}

LmdbPages::~LmdbPages() {
  if (transaction_ != nullptr) mdb_txn_abort(transaction_);
  if (environment_ != nullptr) mdb_env_close(environment_);
}

}  // namespace qzbench
#endif
