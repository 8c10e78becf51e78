#ifdef QZPBENCH_HAS_BDB
#include "bdb.h"

#include <algorithm>

namespace qzbench {
namespace {

constexpr std::uint32_t kLeastCache = 256U << 10U;
constexpr std::uint32_t kCachedPages = 16;

}  // namespace

PoolPages::PoolPages(const Task& task, std::uint32_t threadFlag) {
  const auto pageSize = static_cast<std::uint32_t>(task.geometry.pageSize);
  const auto pages = std::max(kCachedPages, static_cast<std::uint32_t>(task.buffers));
  const std::uint32_t cache = std::max(kLeastCache, pages * pageSize);
  check(db_env_create(&environment_, 0));
  check(environment_->set_cachesize(environment_, 0, cache, 1));
  check(environment_->open(environment_, nullptr,
                           DB_CREATE | DB_INIT_MPOOL | DB_PRIVATE | threadFlag, 0));
  check(environment_->memp_fcreate(environment_, &file_, 0));
  check(file_->open(file_, task.path.c_str(), DB_RDONLY | DB_NOMMAP, 0, pageSize));
}

PoolPages::~PoolPages() {
  if (file_ != nullptr) file_->close(file_, 0);
  if (environment_ != nullptr) environment_->close(environment_, 0);
}

}  // namespace qzbench
#endif
