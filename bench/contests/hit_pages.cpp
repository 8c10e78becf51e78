// The module's own time, without a system call: pages of a block that is already in memory, each
// read for the first time and returned; and pages that are held, read again and returned.
#include <fmt/format.h>

#include "../core/passes.h"
#include "../core/stamp.h"
#include "../peers/module.h"
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kBlockBytes = 4 << 20;
// Their pages are read in one go: those of a single block, if they are large, take less time than
// looking at the clocks.
constexpr std::int32_t kBlocks = 8;

// Two empty calls through a table: the cost of the calls of a read and a return alone.
struct EmptyTable {
  qz::Status (*read)(qz::FileHandle*, qz::PageRequest*, qz::Journal*);
  qz::Status (*returnPage)(qz::FileHandle*, void*, qz::Journal*);
};
[[gnu::noinline]] qz::Status readNothing(qz::FileHandle*, qz::PageRequest* request, qz::Journal*) {
  request->buffer = nullptr;
  return qz::Status::ok;
}
[[gnu::noinline]] qz::Status returnNothing(qz::FileHandle*, void*, qz::Journal*) {
  return qz::Status::ok;
}
const EmptyTable* volatile emptyTable = nullptr;

class EmptyCalls {
 public:
  Sample run(std::size_t operations) {
    static constexpr EmptyTable table = {readNothing, returnNothing};
    emptyTable = &table;
    return timed(operations, [&] {
      for (std::size_t i = 0; i < operations; ++i) {
        request_.pageNumber = static_cast<std::int64_t>(i);
        emptyTable->read(nullptr, &request_, nullptr);
        emptyTable->returnPage(nullptr, request_.buffer, nullptr);
      }
    });
  }

 private:
  qz::PageRequest request_{};
};

// Reads and returns each page of some blocks except their first, which brings the block into
// memory outside the clock.
class BlockHits {
 public:
  BlockHits(std::string path, const Geometry& geometry)
      : path_(std::move(path)),
        geometry_(geometry),
        perBlock_(kBlockBytes / geometry.pageSize),
        addresses_(static_cast<std::size_t>(kBlocks * perBlock_)) {}

  static std::size_t hitsAtOnce(const Geometry& geometry) {
    return static_cast<std::size_t>(kBlocks) *
           static_cast<std::size_t>(kBlockBytes / geometry.pageSize - 1);
  }

  Sample run(std::size_t operations) {
    Sample sum;
    const std::size_t hits = hitsAtOnce(geometry_);
    for (std::size_t done = 0; done < operations; done += hits) {
      openAgain();
      eachBlock([this](std::int64_t first) { readAndReturn(first, 1); });
      sum += timed(hits, [&] {
        eachBlock([this](std::int64_t first) { readAndReturn(first + 1, perBlock_ - 1); });
      });
      check();
    }
    return sum;
  }

 private:
  template <class Work>
  void eachBlock(Work work) {
    for (std::int64_t first = 1; first <= kBlocks * perBlock_; first += perBlock_) work(first);
  }

  void openAgain() {
    file_.reset();
    file_.emplace(openFile({.path = path_,
                            .pageSize = geometry_.pageSize,
                            .readAccess = qz::readOrdered,
                            .openOptions = qz::optionDirectIo,
                            .bufferCount = kBlocks,
                            .blockBytes = kBlockBytes}));
  }

  void readAndReturn(std::int64_t first, std::int64_t count) {
    qz::FileHandle* handle = file_->handle();
    const qz::OperationTable& table = file_->table();
    qz::PageRequest request{};
    for (std::int64_t page = first; page < first + count; ++page) {
      request.pageNumber = page;
      qz::Status status = table.qzpread(handle, &request, nullptr);
      if (status == qz::Status::ok) status = table.qzpbufreturn(handle, request.buffer, nullptr);
      require(status, handle);
      addresses_[static_cast<std::size_t>(page - 1)] = request.buffer;
    }
  }

  // A block's memory stays as it is until another block is read.
  void check() const {
    std::int64_t wrong = 0;
    for (std::size_t i = 0; i < addresses_.size(); ++i) {
      const std::int64_t page = 1 + static_cast<std::int64_t>(i);
      wrong += isStamped(addresses_[i], geometry_.pageSize, page) ? 0 : 1;
    }
    requireStamps(wrong, path_);
  }

  std::string path_;
  Geometry geometry_;
  std::int64_t perBlock_;  // pages
  std::vector<const char*> addresses_;
  std::optional<qz::PagedFile> file_;
};

// Reads pages that the store has in memory, in an order, repeatedly, without looking at their
// bytes.
template <class Store>
class PageHits {
 public:
  // held: the pages are in memory because they are held, not because the store caches them.
  PageHits(const Task& task, std::shared_ptr<const Order> order, bool held)
      : store_(task), order_(std::move(order)) {
    std::int64_t wrong = 0;
    for (const std::int64_t page : *order_) {
      wrong += isStamped(store_.read(page), task.geometry.pageSize, page) ? 0 : 1;
      if (!held) store_.returnPage();
    }
    requireStamps(wrong, task.path);
  }

  Sample run(std::size_t operations) {
    return timed(operations, [&] {
      for (std::size_t i = 0; i < operations; ++i) {
        store_.read((*order_)[next_]);
        store_.returnPage();
        next_ = next_ + 1 == order_->size() ? 0 : next_ + 1;
      }
    });
  }

 private:
  Store store_;
  std::shared_ptr<const Order> order_;
  std::size_t next_ = 0;
};

template <class Store>
Participant hitter(std::string name, const Task& task, const std::shared_ptr<const Order>& order,
                   bool held) {
  return participant(std::move(name), std::make_shared<PageHits<Store>>(task, order, held),
                     order->size());
}

// The peers that find a page in memory and return its address, as the module does.
void addPeers(Contest& contest, Runner& run, const Task& task,
              const std::shared_ptr<const Order>& order, bool held) {
#ifdef QZPBENCH_HAS_BDB
  contest.participants.push_back(hitter<PoolPages>(kBerkeleyDb, task, order, held));
  contest.goals.push_back({Quantity::wall, "qziop", kBerkeleyDb, 1.0});
#endif
#ifdef QZPBENCH_HAS_LMDB
  Task own = task;
  own.path = readable<LmdbPages>(run.memory(), task.geometry, "LMDB");
  contest.participants.push_back(hitter<LmdbPages>("LMDB", own, order, held));
  contest.goals.push_back({Quantity::wall, "qziop", "LMDB", 1.0});
#endif
}

// The order of reads in memory: pages 1 to `count`, repeatedly.
std::shared_ptr<const Order> repeated(std::int64_t count, bool sequential) {
  return std::make_shared<const Order>(pageOrder(count, sequential));
}

void hitHeldPages(Runner& run) {
  constexpr std::int32_t kHeld = 1024;
  const Geometry geometry = {4096, kHeld};
  Task task{Access::read, geometry, run.memory().stamped(geometry), false};
  task.buffers = 2 * kHeld;
  const auto order = repeated(kHeld, false);
  Contest contest;
  contest.work = "page mode, read + return of a page that is held";
  contest.variant = fmt::format("{} B pages, {} held, random", geometry.pageSize, kHeld);
  contest.participants = {participant("two empty calls", std::make_shared<EmptyCalls>()),
                          hitter<ModulePages>("qziop", task, order, true)};
  contest.goals = {{Quantity::readCalls, "qziop", "", 0}};
  addPeers(contest, run, task, order, true);
  run.hold(contest);
}

void hitBlocksOf(Runner& run, std::int32_t pageSize) {
  const Geometry geometry = {pageSize, std::int64_t{kBlocks} * (kBlockBytes / pageSize)};
  Contest contest;
  contest.work = "block mode, first read + return in a cached block";
  contest.variant = fmt::format("{} B pages, {} MiB blocks", pageSize, kBlockBytes >> 20U);
  Task task{Access::read, geometry, run.memory().stamped(geometry), true};
  contest.participants = {participant("two empty calls", std::make_shared<EmptyCalls>()),
                          participant("qziop", std::make_shared<BlockHits>(task.path, geometry),
                                      BlockHits::hitsAtOnce(geometry))};
  contest.goals = {{Quantity::wallNs, "qziop", "", 25}, {Quantity::readCalls, "qziop", "", 0}};
  task.geometry.pages = kBlockBytes / pageSize;
  task.path = run.memory().stamped(task.geometry);
  task.buffers = 2 * static_cast<std::int32_t>(task.geometry.pages);
  addPeers(contest, run, task, repeated(task.geometry.pages, true), false);
  run.hold(contest);
}

}  // namespace

void hitPages(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) hitBlocksOf(run, pageSize);
  hitHeldPages(run);
}

}  // namespace qzbench
