// Does the time of an operation depend on how many buffers there are? Every buffer caches a page;
// some pages are read and held at a time and returned in several orders. Each read makes one call
// of one page's bytes in both shapes of the cache, and the bare loop shows what memory that is
// touched less often costs by itself.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "../core/memory.h"
#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPageSize = 4096;
constexpr std::size_t kLeastReads = 8192;  // of a pass

enum class ReturnOrder : std::uint8_t { asRead, reversed, shuffled };
enum class Shape : std::uint8_t { page, block };

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

// Reads the file's pages in turn, `holding.pages` at a time.
template <class Pages>
Sample holdAndReturn(Pages& pages, const Holding& holding, std::int64_t filePages) {
  const std::vector<std::size_t> sequence = returnSequence(holding);
  const std::size_t batches = std::max<std::size_t>(1, kLeastReads / holding.pages);
  std::vector<char*> held(holding.pages);
  std::int64_t wrong = 0;
  const Sample sample = timed(batches * holding.pages, [&] {
    for (std::size_t batch = 0; batch < batches; ++batch) {
      for (char*& address : held) {
        const std::int64_t page = pages.nextPage;
        pages.nextPage = page == filePages ? 1 : page + 1;
        address = pages.read(page);
        wrong += isStamped(address, kPageSize, page) ? 0 : 1;
      }
      for (const std::size_t i : sequence) pages.giveBack(held[i]);
    }
  });
  requireStamps(wrong, "growth");
  return sample;
}

// The same file is open several times, for writing, too: without locks.
std::uint32_t optionsFor(Shape shape) {
  return qz::optionAccessVariant | (shape == Shape::block ? qz::optionDirectIo : 0U);
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
    nextPage = bufferCount + 2;
  }

  char* read(std::int64_t page) {
    qz::PageRequest request{};
    request.pageNumber = page;
    check(table_.qzpread(handle_, &request, nullptr));
    return request.buffer;
  }
  void giveBack(char* address) { check(table_.qzpbufreturn(handle_, address, nullptr)); }

  std::int64_t nextPage;

 private:
  // A page buffer keeps its page when it is written, a block when it is returned.
  void cachePage(std::int64_t page, Shape shape) {
    qz::PageRequest request{};
    request.pageNumber = page;
    check(table_.qzpread(handle_, &request, nullptr));
    request.length = kPageSize;
    check(shape == Shape::page ? table_.qzpwrite(handle_, &request, nullptr)
                               : table_.qzpbufreturn(handle_, request.buffer, nullptr));
  }
  void check(qz::Status status) {
    if (status != qz::Status::ok) require(status, handle_);
  }

  qz::PagedFile file_;
  qz::FileHandle* handle_;
  const qz::OperationTable& table_;
};

// The calls alone, into as many buffers as are held.
class BareBuffers {
 public:
  BareBuffers(const std::string& path, Shape shape, std::size_t held)
      : file_(path, O_RDONLY | (shape == Shape::block ? O_DIRECT : 0)), ring_(held, kPageSize) {}

  char* read(std::int64_t page) {
    char* at = ring_.next();
    if (pread(file_.get(), at, kPageSize, (page - 1) * kPageSize) != kPageSize) {
      failWithErrno("pread");
    }
    return at;
  }
  void giveBack(char*) {}

  std::int64_t nextPage = 1;

 private:
  Descriptor file_;
  Ring ring_;
};

std::size_t heldOf(std::size_t wanted, std::int32_t bufferCount) {
  const auto count = static_cast<std::size_t>(bufferCount);
  return wanted == 0 ? count / 2 : std::min(wanted, count);
}

void growInShape(Runner& run, Shape shape) {
  const std::vector<std::int32_t>& counts = run.settings().bufferCounts;
  const Geometry geometry = {kPageSize,
                             std::int64_t{2} * counts.back() + std::int64_t{kLeastReads}};
  const std::string& path = run.memory().stamped(geometry);
  std::vector<std::shared_ptr<ManyBuffers>> files;
  for (const std::int32_t count : counts) {
    files.push_back(std::make_shared<ManyBuffers>(path, shape, count));
  }
  for (const std::size_t wanted : {1, 8, 0}) {
    for (const ReturnOrder order :
         {ReturnOrder::asRead, ReturnOrder::reversed, ReturnOrder::shuffled}) {
      if (wanted == 1 && order != ReturnOrder::asRead) continue;
      Contest contest;
      contest.work =
          fmt::format("growth, {} mode, read + return", shape == Shape::page ? "page" : "block");
      contest.variant = fmt::format("{} held, returned {}",
                                    wanted == 0 ? "half" : std::to_string(wanted), nameOf(order));
      for (std::size_t i = 0; i < counts.size(); ++i) {
        const Holding holding = {heldOf(wanted, counts[i]), order};
        contest.participants.push_back(
            {fmt::format("{} buffers", counts[i]), [file = files[i], holding, geometry] {
               return holdAndReturn(*file, holding, geometry.pages);
             }});
      }
      for (const std::int32_t count : {counts.front(), counts.back()}) {
        const Holding holding = {heldOf(wanted, count), order};
        auto bare = std::make_shared<BareBuffers>(path, shape, holding.pages);
        contest.participants.push_back(
            {fmt::format("pread into {}", holding.pages),
             [bare, holding, geometry] { return holdAndReturn(*bare, holding, geometry.pages); }});
      }
      contest.goals = {{Quantity::wall, contest.participants[counts.size() - 1].name,
                        contest.participants[0].name, 1.5}};
      run.hold(contest, 5);
    }
  }
}

}  // namespace

void growReads(Runner& run) {
  growInShape(run, Shape::page);
  growInShape(run, Shape::block);
}

}  // namespace qzbench
