// Read long runs of pages straight into the caller's memory: into one area, or each page into a
// place of its own.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "../core/memory.h"
#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::size_t kRun = 2500;          // pages a request
constexpr std::size_t kMostVectors = 1024;  // of one readv

// The places of the pages: each its own, in no order of addresses.
class Destinations {
 public:
  explicit Destinations(std::int32_t pageSize)
      : pageSize_(pageSize), area_(1, kRun * static_cast<std::size_t>(pageSize)), shuffled_(kRun) {
    std::iota(shuffled_.begin(), shuffled_.end(), std::size_t{0});
    std::shuffle(shuffled_.begin(), shuffled_.end(), std::mt19937_64(22));
  }

  char* area() const { return area_.at(0); }
  char* place(std::size_t i, bool contiguous) const {
    return area() + (contiguous ? i : shuffled_[i]) * static_cast<std::size_t>(pageSize_);
  }
  // Pages from `first` on lie where they belong.
  bool arePages(std::int64_t first, bool contiguous) const {
    bool right = true;
    for (std::size_t i = 0; i < kRun; ++i) {
      right &= isStamped(place(i, contiguous), pageSize_, first + static_cast<std::int64_t>(i));
    }
    return right;
  }

 private:
  std::int32_t pageSize_;
  Ring area_;
  std::vector<std::size_t> shuffled_;
};

// Every run of the file in turn, through `readRun(firstPage)`.
template <class ReadRun>
Sample readRuns(const Geometry& geometry, const Destinations& to, bool contiguous,
                ReadRun readRun) {
  const auto runs = geometry.pages / static_cast<std::int64_t>(kRun);
  bool right = true;
  const Sample sample = timed(static_cast<std::size_t>(runs) * kRun, [&] {
    for (std::int64_t run = 0; run < runs; ++run) {
      const std::int64_t first = run * static_cast<std::int64_t>(kRun) + 1;
      readRun(first);
      right &= to.arePages(first, contiguous);
    }
  });
  requireStamps(right ? 0 : 1, "read many");
  return sample;
}

Sample barePass(const std::string& path, const Geometry& geometry, bool contiguous) {
  const Descriptor file(path, O_RDONLY);
  const Destinations to(geometry.pageSize);
  const auto pageBytes = static_cast<std::size_t>(geometry.pageSize);
  std::vector<iovec> vectors(kRun);
  return readRuns(geometry, to, contiguous, [&](std::int64_t first) {
    const off_t offset = (first - 1) * geometry.pageSize;
    if (contiguous) {
      if (pread(file.get(), to.area(), kRun * pageBytes, offset) < 0) failWithErrno("pread");
      return;
    }
    for (std::size_t i = 0; i < kRun; ++i) vectors[i] = {to.place(i, false), pageBytes};
    if (lseek(file.get(), offset, SEEK_SET) == -1) failWithErrno("lseek");
    for (std::size_t done = 0; done < kRun; done += kMostVectors) {
      const std::size_t count = std::min(kMostVectors, kRun - done);
      if (readv(file.get(), &vectors[done], static_cast<int>(count)) < 0) failWithErrno("readv");
    }
  });
}

Sample modulePass(const std::string& path, const Geometry& geometry, bool contiguous) {
  const qz::PagedFile file =
      openFile({.path = path, .pageSize = geometry.pageSize, .readAccess = qz::readMany});
  const Destinations to(geometry.pageSize);
  std::vector<qz::PageRequest> requests(kRun);
  std::vector<qz::PageRequest*> addresses(kRun);
  return readRuns(geometry, to, contiguous, [&](std::int64_t first) {
    for (std::size_t i = 0; i < kRun; ++i) {
      requests[i].buffer = to.place(i, contiguous);
      addresses[i] = &requests[i];
    }
    const std::uint32_t options = contiguous ? qz::kContiguous : 0;
    require(
        file.table().qzpreadmany(file.handle(), addresses.data(), first, kRun, options, nullptr),
        file.handle());
  });
}

}  // namespace

void readMany(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const std::int64_t bytes = run.settings().warmBytes * (pageSize > 4096 ? 4 : 1);
    const Geometry geometry = {pageSize, std::max<std::int64_t>(bytes / pageSize, kRun)};
    const std::string& path = run.disk().stamped(geometry);
    for (const bool contiguous : {false, true}) {
      Contest contest;
      contest.work = fmt::format("read many, {} pages a request", kRun);
      contest.variant =
          fmt::format("{} B pages, {}", pageSize, contiguous ? "contiguous" : "scattered");
      if (pageSize == kPlotPageSize) {
        contest.plotLabel = contiguous ? "read many, contiguous" : "read many, scattered";
      }
      const char* floor = contiguous ? "pread" : "lseek + readv";
      contest.participants = {{floor, [=] { return barePass(path, geometry, contiguous); }},
                              {"qziop", [=] { return modulePass(path, geometry, contiguous); }}};
      contest.goals = {{Quantity::wall, "qziop", floor, 1.05}};
      run.hold(contest);
    }
  }
}

}  // namespace qzbench
