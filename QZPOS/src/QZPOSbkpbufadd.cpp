// qzpbufadd: adds free buffers, and raises the number that the caller may hold by as many.
#include "records.h"

namespace qz {
namespace {

std::int32_t addBlocks(FileHandle* h, std::int32_t requested, Journal* journal) {
  std::int32_t made = 0;
  for (; made < requested; ++made) {
    const NewBlock added = makeBlock(*h, journal);
    if (added.missing == BlockPart::staleBits) journalStatus(journal, Status::buffersMissing);
    if (added.block == nullptr) break;
    joinFreeHead(h, added.block);
    ++h->blocksAllocated;
    indexNewRecord(h, added.block);
  }
  return made;
}

std::int32_t addPages(FileHandle* h, std::int32_t requested, Journal* journal) {
  std::int32_t made = 0;
  for (; made < requested; ++made) {
    PageBuffer* buffer = makePageBuffer(*h, kZeroFill, journal);
    if (buffer == nullptr) break;
    joinFreeHead(h, buffer);
    ++h->pageBuffersAllocated;
    indexNewRecord(h, buffer);
  }
  return made;
}

// `by` can be negative; `bufferCount` does not go below the lowest 32-bit number.
void raiseBufferCount(FileHandle* h, std::int32_t by) {
  constexpr std::int64_t lowest = std::numeric_limits<std::int32_t>::min();
  h->bufferCount = static_cast<std::int32_t>(std::max(std::int64_t{h->bufferCount} + by, lowest));
}

}  // namespace
}  // namespace qz

qz::Status qzpbufadd(qz::FileHandle* h, std::int32_t* countInOut, qz::Journal* journal) noexcept {
  using namespace qz;
  if (!isOpen(*h)) return reportThenKeep(h, Status::notOpen, journal);
  const std::int32_t requested = *countInOut;
  const bool blocks = inBlockMode(*h);
  const std::int32_t made =
      blocks ? addBlocks(h, requested, journal) : addPages(h, requested, journal);
  const std::int64_t allocated = blocks ? h->blocksAllocated : h->pageBuffersAllocated;
  if (allocated < std::int64_t{requested} + h->bufferCount + 1) {
    bkperror(h, Status::buffersMissing, journal);
    *countInOut = made;
    raiseBufferCount(h, made);
    return keep(h, Status::buffersMissing);
  }
  // A negative count makes nothing; it lowers the limit in block mode and only there.
  raiseBufferCount(h, blocks ? requested : made);
  return keep(h, Status::ok);
}
