// qzpreopen: applies new access hints to an open file. The host reopens the file, the mode
// of I/O is chosen again, and where it changes between single pages and blocks the free records of
// the old shape are replaced. What the caller holds stays valid and is freed when its hold ends.
#include "records.h"

namespace qz {
namespace {

void adopt(FileHandle* h, const AccessHints& hints) {
  h->readAccess = hints.readAccess;
  h->writeAccess = hints.writeAccess;
  h->openOptions |= hints.openOptions;
}

Status leaveBlocks(FileHandle* h, Journal* journal) {
  FirstFailure result;
  h->lastBlock = nullptr;
  result.note(bkpdeletebuffers(h, &h->blockFreeList, journal));
  if (h->writeBlock != nullptr) result.noteRelease(freeWriteBlock(h, journal));
  return result.status();
}

// The tree is destroyed, so held buffers lose their page numbers.
Status leavePages(FileHandle* h, Journal* journal) {
  tearDownTree(h);
  for (PageBuffer* buffer = h->pageHeldList.head; buffer != nullptr; buffer = buffer->next) {
    buffer->pageNumber = 0;
  }
  const Status status = bkpdeletebuffers(h, &h->pageFreeList, journal);
  if (status != Status::ok && h->blocksAllocated == 0) {
    // The set-up that settles these will not run: there are no blocks to be had.
    h->blockBytes = 0;
    h->pagesPerBlock = 0;
    h->bitmapBytes = 0;
  }
  return status;
}

Status changeShape(FileHandle* h, bool wasBlockMode, Journal* journal) {
  if (wasBlockMode == inBlockMode(*h)) return Status::ok;
  return wasBlockMode ? leaveBlocks(h, journal) : leavePages(h, journal);
}

}  // namespace
}  // namespace qz

qz::Status qzpreopen(qz::FileHandle* h, const qz::AccessHints* hints,
                     qz::Journal* journal) noexcept {
  using namespace qz;
  if (!isOpen(*h)) return reportThenKeep(h, Status::notOpen, journal);
  const std::uint32_t oldMode = h->directIoMode;
  const bool wasBlockMode = inBlockMode(*h);
  if (hasCollectedPages(*h)) {
    const Status written = bkpwriteblock(h, journal);
    if (written != Status::ok) return keep(h, written);
  }
  if (bkpdoopen(h, OpenKind::reopen, openOrKeep, *hints, journal) != Status::ok) {
    // The file goes on as it was, with the buffers that fit the old mode.
    h->directIoMode = oldMode;
    return keep(h, Status::reopenFailed);
  }
  adopt(h, *hints);
  const Status changed = changeShape(h, wasBlockMode, journal);
  if (changed != Status::ok) return keep(h, changed);
  return bkpbuffersetup(h, OpenKind::reopen, journal);
}
