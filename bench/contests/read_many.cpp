// Reads long runs of pages into the caller's memory: into one area, or each page to its own
// address. All contestants read into the same memory: which physical pages it has, and what the
// processor's caches hold of it, differs from one area to the next by more than what is compared.
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

constexpr std::size_t kRun = 2500;          // pages per request
constexpr std::size_t kMostVectors = 1024;  // of one readv

// The addresses of the pages, in random order.
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
  // True if all pages from `first` on are at their addresses.
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

// Reads the runs of a file repeatedly through `reader.read(to, firstPage, contiguous)`.
template <class Reader>
class Runs {
 public:
  Runs(const std::string& path, const Geometry& geometry,
       std::shared_ptr<const Destinations> destinations, bool contiguous, Place place)
      : reader_(path, geometry.pageSize),
        to_(std::move(destinations)),
        contiguous_(contiguous),
        count_(static_cast<std::size_t>(geometry.pages) / kRun),
        place_(std::move(place)) {}

  Sample run(std::size_t pages) {
    bool right = true;
    const Sample sample = timed(pages, [&] {
      for (std::size_t done = 0; done < pages; done += kRun) {
        const auto first = static_cast<std::int64_t>(*place_ * kRun + 1);
        reader_.read(*to_, first, contiguous_);
        right &= to_->arePages(first, contiguous_);
        *place_ = (*place_ + 1) % count_;
      }
    });
    requireStamps(right ? 0 : 1, "read many");
    return sample;
  }

 private:
  Reader reader_;
  std::shared_ptr<const Destinations> to_;
  bool contiguous_;
  std::size_t count_;
  Place place_;  // in runs
};

class BareReader {
 public:
  BareReader(const std::string& path, std::int32_t pageSize)
      : file_(path, O_RDONLY), pageBytes_(static_cast<std::size_t>(pageSize)), vectors_(kRun) {}

  void read(const Destinations& to, std::int64_t first, bool contiguous) {
    const off_t offset = (first - 1) * static_cast<off_t>(pageBytes_);
    if (contiguous) {
      if (pread(file_.get(), to.area(), kRun * pageBytes_, offset) < 0) failWithErrno("pread");
      return;
    }
    for (std::size_t i = 0; i < kRun; ++i) vectors_[i] = {to.place(i, false), pageBytes_};
    if (lseek(file_.get(), offset, SEEK_SET) == -1) failWithErrno("lseek");
    for (std::size_t done = 0; done < kRun; done += kMostVectors) {
      const std::size_t count = std::min(kMostVectors, kRun - done);
      if (readv(file_.get(), &vectors_[done], static_cast<int>(count)) < 0) failWithErrno("readv");
    }
  }

 private:
  Descriptor file_;
  std::size_t pageBytes_;
  std::vector<iovec> vectors_;
};

class ModuleReader {
 public:
  ModuleReader(const std::string& path, std::int32_t pageSize)
      : file_(openFile({.path = path, .pageSize = pageSize, .readAccess = qz::readMany})),
        requests_(kRun),
        addresses_(kRun) {}

  void read(const Destinations& to, std::int64_t first, bool contiguous) {
    for (std::size_t i = 0; i < kRun; ++i) {
      requests_[i].buffer = to.place(i, contiguous);
      addresses_[i] = &requests_[i];
    }
    const std::uint32_t options = contiguous ? qz::kContiguous : 0;
    require(
        file_.table().qzpreadmany(file_.handle(), addresses_.data(), first, kRun, options, nullptr),
        file_.handle());
  }

 private:
  qz::PagedFile file_;
  std::vector<qz::PageRequest> requests_;
  std::vector<qz::PageRequest*> addresses_;
};

template <class Reader>
Participant runsOf(std::string name, const std::string& path, const Geometry& geometry,
                   const std::shared_ptr<const Destinations>& to, bool contiguous,
                   const Place& place) {
  return participant(std::move(name),
                     std::make_shared<Runs<Reader>>(path, geometry, to, contiguous, place), kRun);
}

}  // namespace

void readMany(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const std::int64_t bytes = run.settings().warmBytes * (pageSize > 4096 ? 4 : 1);
    const Geometry geometry = {pageSize, std::max<std::int64_t>(bytes / pageSize, kRun)};
    const std::string& path = run.disk().stamped(geometry);
    const auto to = std::make_shared<const Destinations>(pageSize);
    for (const bool contiguous : {false, true}) {
      Contest contest;
      contest.work = fmt::format("read many, {} pages a request", kRun);
      contest.variant =
          fmt::format("{} B pages, {}", pageSize, contiguous ? "contiguous" : "scattered");
      if (pageSize == kPlotPageSize) {
        contest.plotLabel = contiguous ? "read many, contiguous" : "read many, scattered";
      }
      const Place place = newPlace();
      const char* floor = contiguous ? "pread" : "lseek + readv";
      contest.participants = {runsOf<BareReader>(floor, path, geometry, to, contiguous, place),
                              runsOf<ModuleReader>("qziop", path, geometry, to, contiguous, place)};
      contest.goals = {{Quantity::wall, "qziop", floor, 1.05}};
      run.hold(contest);
    }
  }
}

}  // namespace qzbench
