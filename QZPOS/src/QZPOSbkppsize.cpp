// qzppsize: chooses a page size from a caller's bounds: the largest that fits under a small upper
// bound, else the smallest that fits above the lower one.
#include "hostcalls.h"
#include "outcome.h"
#include "pages.h"

namespace qz {
namespace {

constexpr std::int32_t kSmallestPage = 512;

struct Choice {
  std::int64_t size;
  Status status;
};

constexpr std::int64_t roundDown(std::int64_t size, std::int64_t granularity) {
  return size / granularity * granularity;
}

constexpr std::int64_t roundUp(std::int64_t size, std::int64_t granularity) {
  const std::int64_t down = roundDown(size, granularity);
  return down < size ? down + granularity : down;
}

constexpr Status exactIf(bool met) { return met ? Status::ok : Status::inexactPageSize; }

struct Bounds {
  std::int64_t low;
  std::int64_t high;
};

// Replaces bounds that were not given with defaults.
Bounds fillBounds(const FileHandle& h, Bounds given) {
  Bounds b = given;
  if (b.low == 0 && b.high == 0) return {h.defaultPageSize, h.autoPageSizeLimit};
  if (b.low == 0) {
    b.low = h.defaultPageSize;
    if (b.high < b.low) b.low = h.minPageSize;
  }
  if (b.high == 0) {
    b.high = h.autoPageSizeLimit;
    if (b.low > b.high) b.high = h.maxPageSize;
  }
  return b;
}

// The page size within the bounds, or the nearest that the rules give.
Choice chooseWithin(const FileHandle& h, Bounds b, std::int64_t granularity) {
  const std::int64_t defaultUp = roundUp(h.defaultPageSize, granularity);
  if (b.low > b.high) return {defaultUp, Status::inexactPageSize};
  if (b.low > h.maxPageSize) {
    const bool fits = defaultUp <= h.maxPageSize;
    return {fits ? defaultUp : roundDown(h.defaultPageSize, granularity), Status::inexactPageSize};
  }
  b.high = std::min<std::int64_t>(b.high, h.maxPageSize);
  if (granularity > b.high) return {granularity, Status::inexactPageSize};
  if (b.high == h.minPageSize) return {kSmallestPage, exactIf(kSmallestPage % granularity == 0)};
  if (b.high <= h.autoPageSizeLimit) {
    const std::int64_t largest = roundDown(b.high, granularity);
    return {largest, exactIf(largest >= b.low)};
  }
  const std::int64_t smallest = roundUp(b.low, granularity);
  return {smallest, exactIf(smallest <= b.high)};
}

Choice choose(const FileHandle& h, const PageSizeRequest& r) {
  if (r.minimumSize == 0 && r.maximumSize == 0 && r.multiple == 0) {
    return {h.defaultPageSize, Status::ok};
  }
  std::int32_t granularity = h.hostPageSize;
  if (r.maximumSize > 0 && r.maximumSize < h.defaultPageSize) granularity = kSmallestPage;
  const std::optional<std::int32_t> common =
      commonSize(granularity, r.multiple == 0 ? 1 : r.multiple);
  // No page size is a multiple of a negative number or of one beyond the largest page size.
  if (!common) return {h.defaultPageSize, Status::inexactPageSize};
  return chooseWithin(h, fillBounds(h, {r.minimumSize, r.maximumSize}), *common);
}

}  // namespace
}  // namespace qz

qz::Status qzppsize(qz::FileHandle* h, const qz::PageSizeRequest* request,
                    qz::Journal* journal) noexcept {
  using namespace qz;
  if (h->fileName == nullptr) {
    keep(h, Status::noFileName);
    journalStatus(journal, Status::noFileName);
    return Status::noFileName;
  }
  if (h->hostPageSize == 0) {
    h->pageSize = 0;
    infoThroughTable(h, journal);
  }
  const Choice choice = choose(*h, *request);
  const bool fits = choice.size <= std::numeric_limits<std::int32_t>::max();
  h->pageSize = fits ? static_cast<std::int32_t>(choice.size) : h->defaultPageSize;
  return keep(h, choice.status);
}
