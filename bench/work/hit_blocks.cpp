// The module's own time, without a system call: pages of a block that is already in memory, each
// read for the first time and returned.
#include <fmt/format.h>

#include "../core/passes.h"
#include "../core/stamp.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kBlockBytes = 4 << 20;

// Two calls of nothing through a table: what the calls of a read and a return cost alone.
struct EmptyTable {
  qz::Status (*read)(qz::FileHandle*, qz::PageRequest*, qz::Journal*);
  qz::Status (*giveBack)(qz::FileHandle*, void*, qz::Journal*);
};
[[gnu::noinline]] qz::Status readNothing(qz::FileHandle*, qz::PageRequest* request, qz::Journal*) {
  request->buffer = nullptr;
  return qz::Status::ok;
}
[[gnu::noinline]] qz::Status returnNothing(qz::FileHandle*, void*, qz::Journal*) {
  return qz::Status::ok;
}
const EmptyTable* volatile emptyTable = nullptr;

class Hits {
 public:
  Hits(std::string path, const Geometry& geometry)
      : path_(std::move(path)), geometry_(geometry), addresses_(pagesPerBlock()) {}

  Sample pass() {
    const qz::PagedFile file = openFile({.path = path_,
                                         .pageSize = geometry_.pageSize,
                                         .readAccess = qz::readSequential,
                                         .openOptions = qz::optionDirectIo,
                                         .blockBytes = kBlockBytes});
    Sample sum;
    const auto step = static_cast<std::int64_t>(pagesPerBlock());
    for (std::int64_t first = 1; first <= geometry_.pages; first += step) {
      readAndReturn(file, first, 1);
      sum +=
          timed(pagesPerBlock() - 1, [&] { readAndReturn(file, first + 1, pagesPerBlock() - 1); });
      check(first);
    }
    return sum;
  }

  static Sample emptyPass(std::int64_t operations) {
    static constexpr EmptyTable table = {readNothing, returnNothing};
    emptyTable = &table;
    qz::PageRequest request{};
    return timed(static_cast<std::size_t>(operations), [&] {
      for (std::int64_t page = 1; page <= operations; ++page) {
        request.pageNumber = page;
        emptyTable->read(nullptr, &request, nullptr);
        emptyTable->giveBack(nullptr, request.buffer, nullptr);
      }
    });
  }

 private:
  std::size_t pagesPerBlock() const {
    return static_cast<std::size_t>(kBlockBytes / geometry_.pageSize);
  }

  void readAndReturn(const qz::PagedFile& file, std::int64_t first, std::size_t count) {
    qz::FileHandle* handle = file.handle();
    const qz::OperationTable& table = file.table();
    qz::PageRequest request{};
    for (std::int64_t page = first; page < first + static_cast<std::int64_t>(count); ++page) {
      request.pageNumber = page;
      qz::Status status = table.qzpread(handle, &request, nullptr);
      if (status == qz::Status::ok) status = table.qzpbufreturn(handle, request.buffer, nullptr);
      require(status, handle);
      addresses_[static_cast<std::size_t>(page - 1) % pagesPerBlock()] = request.buffer;
    }
  }

  // The block's memory stays as it is until another block is read.
  void check(std::int64_t first) const {
    std::int64_t wrong = 0;
    for (std::size_t i = 0; i < pagesPerBlock(); ++i) {
      const std::int64_t page = first + static_cast<std::int64_t>(i);
      wrong += isStamped(addresses_[i], geometry_.pageSize, page) ? 0 : 1;
    }
    requireStamps(wrong, path_);
  }

  std::string path_;
  Geometry geometry_;
  std::vector<const char*> addresses_;
};

}  // namespace

void hitBlocks(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
    Contest contest;
    contest.work = "block mode, first read + return in a cached block";
    contest.variant = fmt::format("{} B pages, {} MiB blocks", pageSize, kBlockBytes >> 20U);
    auto hits = std::make_shared<Hits>(run.memory().stamped(geometry), geometry);
    contest.participants = {
        {"two empty calls", [geometry] { return Hits::emptyPass(geometry.pages); }},
        {"qziop", [hits] { return hits->pass(); }}};
    contest.goals = {{Quantity::wallNs, "qziop", "", 25}, {Quantity::readCalls, "qziop", "", 0}};
    run.hold(contest);
  }
}

}  // namespace qzbench
