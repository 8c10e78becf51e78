// Does an append take longer when there are many buffers that all cache a page?
#include <fmt/format.h>

#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int64_t kMostAppends = 8192;  // before the file is truncated
constexpr std::int32_t kPagesPerBlock = 8;

struct Shape {
  const char* name;
  std::int32_t pageSize;
  bool block;
};

class Appends {
 public:
  Appends(const std::string& path, const Shape& shape, std::int32_t bufferCount)
      : shape_(shape),
        file_(openFile({.path = path,
                        .pageSize = shape.pageSize,
                        .readAccess = shape.block ? qz::readOrdered : qz::readRandom,
                        .writeAccess = qz::rewritePages,
                        .openOptions = shape.block ? qz::optionDirectIo : 0U,
                        .bufferCount = bufferCount,
                        .blockBytes = shape.pageSize * kPagesPerBlock})),
        handle_(file_.handle()),
        table_(file_.table()) {
    const std::int64_t step = shape.block ? kPagesPerBlock : 1;
    for (std::int64_t i = 0; i <= bufferCount; ++i) cachePage(i * step + 1);
    firstPages_ = handle_->pageCount;
  }

  Sample run(std::size_t appends) {
    if (handle_->pageCount >= firstPages_ + kMostAppends) {
      check(table_.qzptruncate(handle_, firstPages_, nullptr));
    }
    const std::int64_t first = handle_->pageCount + 1;
    return timed(appends, [&] {
      for (std::size_t i = 0; i < appends; ++i) {
        const std::int64_t page = first + static_cast<std::int64_t>(i);
        void* buffer = nullptr;
        check(table_.qzpbufacquire(handle_, &buffer, nullptr));
        stamp(static_cast<char*>(buffer), shape_.pageSize, page);
        qz::PageRequest request{};
        request.pageNumber = page;
        request.buffer = static_cast<char*>(buffer);
        request.length = shape_.pageSize;
        check(table_.qzpwrite(handle_, &request, nullptr));
      }
    });
  }

 private:
  void cachePage(std::int64_t page) {
    qz::PageRequest request{};
    request.pageNumber = page;
    check(table_.qzpread(handle_, &request, nullptr));
    request.length = shape_.pageSize;
    check(shape_.block ? table_.qzpbufreturn(handle_, request.buffer, nullptr)
                       : table_.qzpwrite(handle_, &request, nullptr));
  }
  void check(qz::Status status) {
    if (status != qz::Status::ok) require(status, handle_);
  }

  Shape shape_;
  qz::PagedFile file_;
  qz::FileHandle* handle_;
  const qz::OperationTable& table_;
  std::int64_t firstPages_ = 0;
};

}  // namespace

void growAppends(Runner& run) {
  for (const Shape& shape : {Shape{"page", 4096, false}, Shape{"block", 512, true}}) {
    Contest contest;
    contest.work = fmt::format("growth, {} mode, acquire + fill + write", shape.name);
    contest.variant = fmt::format("{} B pages, every free buffer caching", shape.pageSize);
    for (const std::int32_t count : run.settings().bufferCounts) {
      const std::int64_t cached = std::int64_t{count} + 1;
      const Geometry geometry = {shape.pageSize, shape.block ? cached * kPagesPerBlock : cached};
      const std::string path =
          run.memory().stampedCopy(geometry, fmt::format("append-{}-{}", shape.name, count));
      contest.participants.push_back(participant(fmt::format("{} buffers", count),
                                                 std::make_shared<Appends>(path, shape, count)));
    }
    contest.goals = {
        {Quantity::wall, contest.participants.back().name, contest.participants.front().name, 1.5}};
    run.hold(contest);
  }
}

}  // namespace qzbench
