// Does the time of an operation depend on the number of buffers? Every buffer caches a page. Some
// pages are read and held at a time and returned in several orders. Each read makes one call for
// one page in each shape of the cache. The bare loop shows the cost of memory that is used less
// often.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <tuple>

#include "../core/memory.h"
#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 4096;

// Pages held at a time.
constexpr std::size_t kEight = 8;
constexpr std::size_t kHalf = 0;  // half of the buffers

enum class ReturnOrder : std::uint8_t { asRead, reversed, shuffled };
enum class Shape : std::uint8_t { page, directPage, block };

const char* nameOf(Shape shape) {
  if (shape == Shape::page) return "page";
  return shape == Shape::directPage ? "direct page" : "block";
}

const char* nameOf(ReturnOrder order) {
  if (order == ReturnOrder::asRead) return "in order";
  return order == ReturnOrder::reversed ? "reversed" : "shuffled";
}

struct Holding {
  std::size_t pages;
  ReturnOrder order;
};

// The positions of `count` held pages in the order in which they are returned.
std::vector<std::size_t> returnSequence(const Holding& holding) {
  std::vector<std::size_t> sequence(holding.pages);
  std::iota(sequence.begin(), sequence.end(), std::size_t{0});
  if (holding.order == ReturnOrder::reversed) std::reverse(sequence.begin(), sequence.end());
  if (holding.order == ReturnOrder::shuffled) {
    std::shuffle(sequence.begin(), sequence.end(), std::mt19937_64(21));
  }
  return sequence;
}

// Pages that no buffer caches beforehand, cyclically. All contestants share a cycle: otherwise one
// finds in the processor's caches what another has just read, and the next does not.
class PageCycle {
 public:
  PageCycle(std::int64_t first, std::int64_t last) : first_(first), last_(last), next_(first) {}

  std::int64_t next() {
    const std::int64_t page = next_;
    next_ = page == last_ ? first_ : page + 1;
    return page;
  }

 private:
  std::int64_t first_;
  std::int64_t last_;
  std::int64_t next_;
};

// Reads and returns pages of the cycle, as many at a time as are held.
template <class Pages>
class Holder {
 public:
  Holder(std::shared_ptr<Pages> pages, std::shared_ptr<PageCycle> cycle, const Holding& holding)
      : pages_(std::move(pages)),
        cycle_(std::move(cycle)),
        sequence_(returnSequence(holding)),
        held_(holding.pages) {}

  Sample run(std::size_t reads) {
    std::int64_t wrong = 0;
    const Sample sample = timed(reads, [&] {
      for (std::size_t done = 0; done < reads; done += held_.size()) {
        for (char*& address : held_) {
          const std::int64_t page = cycle_->next();
          address = pages_->read(page);
          wrong += isStamped(address, kPageSize, page) ? 0 : 1;
        }
        for (const std::size_t i : sequence_) pages_->returnPage(held_[i]);
      }
    });
    requireStamps(wrong, "growth");
    return sample;
  }

 private:
  std::shared_ptr<Pages> pages_;
  std::shared_ptr<PageCycle> cycle_;
  std::vector<std::size_t> sequence_;
  std::vector<char*> held_;
};

// The same file is open several times, also for writing: so without locks.
std::uint32_t optionsFor(Shape shape) {
  return qz::optionAccessVariant | (shape == Shape::page ? 0U : qz::optionDirectIo);
}

class ManyBuffers {
 public:
  ManyBuffers(const std::string& path, Shape shape, std::int32_t bufferCount)
      : file_(openFile({.path = path,
                        .pageSize = kPageSize,
                        .readAccess = shape == Shape::block ? qz::readOrdered : qz::readRandom,
                        .writeAccess = qz::rewritePages,
                        .openOptions = optionsFor(shape),
                        .bufferCount = bufferCount,
                        .blockBytes = kPageSize})),
        handle_(file_.handle()),
        table_(file_.table()) {
    for (std::int32_t i = 0; i <= bufferCount; ++i) cachePage(i + 1, shape);
  }

  char* read(std::int64_t page) {
    qz::PageRequest request{};
    request.pageNumber = page;
    check(table_.qzpread(handle_, &request, nullptr));
    return request.buffer;
  }
  void returnPage(char* address) { check(table_.qzpbufreturn(handle_, address, nullptr)); }

 private:
  // A page buffer keeps its page after a write, a block after a return.
  void cachePage(std::int64_t page, Shape shape) {
    qz::PageRequest request{};
    request.pageNumber = page;
    check(table_.qzpread(handle_, &request, nullptr));
    request.length = kPageSize;
    check(shape == Shape::block ? table_.qzpbufreturn(handle_, request.buffer, nullptr)
                                : table_.qzpwrite(handle_, &request, nullptr));
  }
  void check(qz::Status status) {
    if (status != qz::Status::ok) require(status, handle_);
  }

  qz::PagedFile file_;
  qz::FileHandle* handle_;
  const qz::OperationTable& table_;
};

// Only the calls, into as many buffers as are held. As in the module, the buffer returned last is
// used next: buffers that are returned out of order are reused in that order.
class BareBuffers {
 public:
  BareBuffers(const std::string& path, Shape shape, std::size_t held,
              MemoryKind kind = MemoryKind::ordinary)
      : file_(path, O_RDONLY | (shape == Shape::page ? 0 : O_DIRECT)),
        ring_(held, kPageSize, kind) {
    for (std::size_t i = 0; i < held; ++i) free_.push_back(ring_.at(i));
  }

  char* read(std::int64_t page) {
    char* at = free_.back();
    free_.pop_back();
    if (pread(file_.get(), at, kPageSize, (page - 1) * kPageSize) != kPageSize) {
      failWithErrno("pread");
    }
    return at;
  }
  void returnPage(char* at) { free_.push_back(at); }

 private:
  Descriptor file_;
  Ring ring_;
  std::vector<char*> free_;
};

std::size_t heldOf(std::size_t wanted, std::int32_t bufferCount) {
  const auto count = static_cast<std::size_t>(bufferCount);
  return wanted == kHalf ? count / 2 : std::min(wanted, count);
}

template <class Pages>
Participant holder(std::string name, std::shared_ptr<Pages> pages,
                   const std::shared_ptr<PageCycle>& cycle, const Holding& holding) {
  return participant(std::move(name),
                     std::make_shared<Holder<Pages>>(std::move(pages), cycle, holding),
                     holding.pages);
}

void growInShape(Runner& run, Shape shape) {
  const std::vector<std::int32_t>& counts = run.settings().bufferCounts;
  const std::int64_t cached = std::int64_t{counts.back()} + 1;
  const Geometry geometry = {kPageSize, 2 * cached};
  const auto cycle = std::make_shared<PageCycle>(cached + 1, geometry.pages);
  const std::string& path = run.memory().stamped(geometry);
  std::vector<std::shared_ptr<ManyBuffers>> files;
  files.reserve(counts.size());
  for (const std::int32_t count : counts) {
    files.push_back(std::make_shared<ManyBuffers>(path, shape, count));
  }
  const auto contestOf = [&](std::size_t wanted, ReturnOrder order) {
    Contest contest;
    contest.work = fmt::format("growth, {} mode, read + return", nameOf(shape));
    contest.variant = fmt::format("{} held, returned {}",
                                  wanted == kHalf ? "half" : std::to_string(wanted), nameOf(order));
    for (std::size_t i = 0; i < counts.size(); ++i) {
      contest.participants.push_back(holder(fmt::format("{} buffers", counts[i]), files[i], cycle,
                                            {heldOf(wanted, counts[i]), order}));
    }
    const std::string most = contest.participants.back().name;
    // The stand-in host uses huge pages for the memory of many buffers.
    for (const auto& [count, kind, suffix] :
         {std::tuple(counts.front(), MemoryKind::ordinary, ""),
          std::tuple(counts.back(), MemoryKind::ordinary, ""),
          std::tuple(counts.back(), MemoryKind::huge, " in huge pages")}) {
      const Holding holding = {heldOf(wanted, count), order};
      const std::string name = fmt::format("pread into {}{}", holding.pages, suffix);
      if (contest.has(name) || (kind == MemoryKind::huge && wanted != kHalf)) continue;
      auto bare = std::make_shared<BareBuffers>(path, shape, holding.pages, kind);
      contest.participants.push_back(holder(name, std::move(bare), cycle, holding));
    }
    // With scattered buffers, the bare loop also pays for memory that is used less often.
    const bool isScattered = wanted == kHalf && order == ReturnOrder::shuffled;
    contest.goals = {isScattered
                         ? Goal{Quantity::wall, most, contest.participants.back().name, 1.15}
                         : Goal{Quantity::wall, most, contest.participants.front().name, 1.5}};
    return contest;
  };
  run.hold(contestOf(1, ReturnOrder::asRead));
  run.hold(contestOf(kEight, ReturnOrder::shuffled));
  for (const ReturnOrder order :
       {ReturnOrder::asRead, ReturnOrder::reversed, ReturnOrder::shuffled}) {
    run.hold(contestOf(kHalf, order));
  }
}

// Reads into all of many buffers in turn, and a bare loop into as many: the difference is the cost
// of finding a page's buffer when pages come in order.
void readIntoAll(Runner& run) {
  constexpr std::int32_t kBuffers = 1024;
  const Geometry geometry = {kPageSize, 16 * std::int64_t{kBuffers}};
  const auto cycle = std::make_shared<PageCycle>(kBuffers + 2, geometry.pages);
  const Holding holding = {kBuffers, ReturnOrder::asRead};
  const std::string& path = run.memory().stamped(geometry);
  const std::string floor = fmt::format("pread into {}", kBuffers);
  Contest contest;
  contest.work = "page mode, read + return";
  contest.variant =
      fmt::format("{} B pages, in order, {} buffers held at a time", kPageSize, kBuffers);
  contest.participants = {
      holder(floor, std::make_shared<BareBuffers>(path, Shape::page, kBuffers), cycle, holding),
      holder("qziop", std::make_shared<ManyBuffers>(path, Shape::page, kBuffers), cycle, holding)};
  contest.goals = {{Quantity::wall, "qziop", floor, 1.05}};
  run.hold(contest);
}

}  // namespace

void growReads(Runner& run) {
  readIntoAll(run);
  for (const Shape shape : {Shape::page, Shape::directPage, Shape::block}) growInShape(run, shape);
}

}  // namespace qzbench
