// The other ways to keep pages in a file, if their libraries were found.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include "../core/files.h"
#include "../core/passes.h"
#include "mapped.h"
#include "streams.h"
#ifdef QZPBENCH_HAS_BDB
#include "bdb.h"
#endif
#ifdef QZPBENCH_HAS_LMDB
#include "lmdb.h"
#endif
#ifdef QZPBENCH_HAS_SQLITE
#include "sqlite.h"
#endif

namespace qzbench {

inline constexpr const char* kBerkeleyDb = "Berkeley DB memory pool";
inline constexpr const char* kSharedBerkeleyDb = "Berkeley DB memory pool, DB_THREAD";

// Calls visit.operator()<Store>(name) for each peer that can write.
template <class Visit>
void eachWriter(Visit visit) {
  visit.template operator()<StdioPages>("stdio");
  visit.template operator()<MappedPages>("mmap");
#ifdef QZPBENCH_HAS_LMDB
  visit.template operator()<LmdbPages>("LMDB");
#endif
#ifdef QZPBENCH_HAS_SQLITE
  visit.template operator()<SqlitePages>("SQLite blobs");
#endif
}

template <class Visit>
void eachPeer(Visit visit) {
#ifdef QZPBENCH_HAS_BDB
  visit.template operator()<PoolPages>(kBerkeleyDb);
  visit.template operator()<SharedPoolPages>(kSharedBerkeleyDb);
#endif
  eachWriter(visit);
}

// A store's own file with all pages in version 0, in the store's format.
template <class Store>
std::string ownCopy(Folder& folder, const Geometry& geometry, const std::string& name) {
  if constexpr (Store::kRawPages) {
    return folder.stampedCopy(geometry, name);
  } else {
    std::string path = folder.file(name);
    appendAll<Store>({Access::append, geometry, path, true});
    return path;
  }
}

// A file for a store that only reads.
template <class Store>
std::string readable(Folder& folder, const Geometry& geometry, const std::string& name) {
  if constexpr (Store::kRawPages) {
    return folder.stamped(geometry);
  } else {
    const std::string own = fmt::format("{} {}", name, geometry.pageSize);
    std::string path = folder.file(own);
    return access(path.c_str(), F_OK) == 0 ? path : ownCopy<Store>(folder, geometry, own);
  }
}

}  // namespace qzbench
