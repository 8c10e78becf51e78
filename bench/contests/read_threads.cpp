// Many handles, each with its own thread, read random pages past the page cache, compared with bare
// reads on as many threads and with io_uring with as many reads in flight.
#include <fmt/format.h>
#ifdef QZPBENCH_HAS_URING
#include <liburing.h>
#endif

#include <atomic>
#include <barrier>
#include <exception>
#include <mutex>
#include <thread>

#include "../peers/bare.h"
#include "../peers/module.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 4096;

// Threads with a store each. They wait between runs and share the pages of one run.
template <class Store>
class Crew {
 public:
  Crew(int count, const Task& task, std::shared_ptr<const Order> order)
      : order_(std::move(order)), gate_(count + 1) {
    for (int i = 0; i < count; ++i) stores_.push_back(std::make_unique<Store>(task));
    for (const auto& store : stores_) threads_.emplace_back([this, &store] { work(*store); });
  }
  Crew(const Crew&) = delete;
  Crew& operator=(const Crew&) = delete;
  ~Crew() {
    isOver_ = true;
    gate_.arrive_and_wait();
  }

  Sample run(std::size_t operations) {
    end_ = next_ + operations;
    double elapsedNs = 0;
    Sample sample = timed(operations, [&] {
      const double before = nowNs(CLOCK_MONOTONIC);
      gate_.arrive_and_wait();
      gate_.arrive_and_wait();
      elapsedNs = nowNs(CLOCK_MONOTONIC) - before;
    });
    // The main thread waits for processors that its own threads use, so the wait counts.
    sample.wallNs = elapsedNs;
    next_ = end_;
    if (failure_) std::rethrow_exception(failure_);
    requireStamps(wrong_, "threads");
    return sample;
  }

 private:
  void work(Store& store) {
    for (;;) {
      gate_.arrive_and_wait();
      if (isOver_) return;
      try {
        readShare(store);
      } catch (...) {
        const std::lock_guard lock(failureLock_);
        failure_ = std::current_exception();
      }
      gate_.arrive_and_wait();
    }
  }
  void readShare(Store& store) {
    for (std::size_t i = next_++; i < end_; i = next_++) {
      const std::int64_t page = (*order_)[i % order_->size()];
      if (!isStamped(store.read(page), kPageSize, page)) ++wrong_;
      store.returnPage();
    }
  }

  std::shared_ptr<const Order> order_;
  std::barrier<> gate_;
  std::atomic<std::size_t> next_ = 0;
  std::size_t end_ = 0;
  std::atomic<std::int64_t> wrong_ = 0;
  bool isOver_ = false;
  std::mutex failureLock_;
  std::exception_ptr failure_;
  std::vector<std::unique_ptr<Store>> stores_;
  std::vector<std::jthread> threads_;
};

#ifdef QZPBENCH_HAS_URING
// One thread with several reads in flight.
class Flight {
 public:
  Flight(unsigned depth, const Task& task, std::shared_ptr<const Order> order)
      : file_(task.path, openFlags(task)), order_(std::move(order)), buffers_(depth, kPageSize) {
    const int error = io_uring_queue_init(depth, &ring_, 0);
    if (error < 0) throw Failure(fmt::format("io_uring: {}", std::strerror(-error)));
  }
  Flight(const Flight&) = delete;
  Flight& operator=(const Flight&) = delete;
  ~Flight() { io_uring_queue_exit(&ring_); }

  Sample run(std::size_t operations) {
    std::int64_t wrong = 0;
    const Sample sample = timed(operations, [&] {
      const std::size_t atOnce = std::min(operations, buffers_.count());
      pages_.resize(atOnce);
      for (std::size_t i = 0; i < atOnce; ++i) prepare(i);
      std::size_t started = atOnce;
      for (std::size_t done = 0; done < operations; ++done) {
        io_uring_submit_and_wait(&ring_, 1);
        io_uring_cqe* ended = nullptr;
        if (io_uring_wait_cqe(&ring_, &ended) < 0) throw Failure("io_uring_wait_cqe");
        const auto slot = static_cast<std::size_t>(ended->user_data);
        if (ended->res != kPageSize) throw Failure("a read of io_uring failed");
        io_uring_cqe_seen(&ring_, ended);
        wrong += isStamped(buffers_.at(slot), kPageSize, pages_[slot]) ? 0 : 1;
        if (started++ < operations) prepare(slot);
      }
    });
    requireStamps(wrong, "io_uring");
    return sample;
  }

 private:
  void prepare(std::size_t slot) {
    pages_[slot] = (*order_)[next_];
    next_ = (next_ + 1) % order_->size();
    io_uring_sqe* entry = io_uring_get_sqe(&ring_);
    const auto offset = static_cast<std::uint64_t>(pages_[slot] - 1) * kPageSize;
    io_uring_prep_read(entry, file_.get(), buffers_.at(slot), kPageSize, offset);
    entry->user_data = slot;
  }

  Descriptor file_;
  std::shared_ptr<const Order> order_;
  Ring buffers_;
  io_uring ring_{};
  std::vector<std::int64_t> pages_;  // the page that each buffer is read for
  std::size_t next_ = 0;
};

// Why the kernel refuses io_uring; empty if it does not.
std::string uringRefusal() {
  io_uring ring{};
  const int error = io_uring_queue_init(1, &ring, 0);
  if (error < 0) return std::strerror(-error);
  io_uring_queue_exit(&ring);
  return "";
}
#endif

}  // namespace

void readOnThreads(Runner& run) {
  const Geometry geometry = {kPageSize, run.settings().warmBytes * 4 / kPageSize};
  const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, false));
  Task task{Access::read, geometry, run.disk().stamped(geometry, true), false};
  task.direct = true;
  task.ring = buffersInTurn(task);
  for (const int threads : {1, 2, 4, 16}) {
    Contest contest;
    contest.work = "direct page mode on threads, read + return";
    contest.variant = fmt::format("{} B pages, random from the disk, {} handle{}", kPageSize,
                                  threads, threads == 1 ? "" : "s");
    // Threads are woken, and the last reads of a slice run alone: in longer slices both weigh less.
    contest.sliceNs = 50e6;
    contest.alike = true;
    contest.participants = {
        participant("O_DIRECT pread", std::make_shared<Crew<BarePages>>(threads, task, order)),
        participant("qziop", std::make_shared<Crew<ModulePages>>(threads, task, order))};
#ifdef QZPBENCH_HAS_URING
    const std::string refusal = uringRefusal();
    if (refusal.empty()) {
      contest.participants.push_back(participant(
          "io_uring", std::make_shared<Flight>(static_cast<unsigned>(threads), task, order)));
    } else {
      contest.variant += fmt::format("; io_uring left out: {}", refusal);
    }
#else
    contest.variant += "; io_uring left out: no liburing";
#endif
    // At least 0.95 times as many reads in the same time.
    contest.goals = {{Quantity::wall, "qziop", "O_DIRECT pread", 1 / 0.95}};
    run.hold(contest);
  }
  run.disk().drop(geometry);
}

}  // namespace qzbench
