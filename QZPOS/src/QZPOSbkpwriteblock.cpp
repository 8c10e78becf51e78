// bkpwriteblock: writes the pages that the write block has collected, with one call. If that fails,
// they are lost, and the file is cut back to the page before the first of them.
#include "io.h"
#include "records.h"

namespace qz {
namespace {

Status writeCollected(FileHandle* h, Journal* journal) {
  BlockRecord* block = h->writeBlock;
  const std::int64_t pages = block->dirtyPages;
  assert(pages <= h->pagesPerBlock);
  const auto bytes = static_cast<std::int32_t>(pages * h->pageSize);
  const Transfer transfer = writeAt(h->fd, block->data, bytes, pageOffset(*h, block->firstPage));
  if (transfer.failed()) h->lastErrno = transfer.error;
  const Status status = judgeWrite(transfer, bytes);
  if (status != Status::ok) {
    // The last page becomes the one before the first collected page. qzptruncate then empties the
    // write block (dropCollectedBeyond), because all collected pages lie beyond the new end; with a
    // larger page count it would write the block again and come back here. If the truncate fails,
    // its status is only in the journal: the caller gets the status of the write.
    truncateThroughTable(h, block->firstPage - 1, journal);
    return status;
  }
  h->nextPage = pageOn(block->firstPage, pages);
  h->fileSize += bytes;
  resetWriteBlock(block);
  return Status::ok;
}

}  // namespace

Status bkpwriteblock(FileHandle* h, Journal* journal) {
  if (!isOpen(*h)) return fail(h, Status::notOpen, journal);
  return finish(h, hasCollectedPages(*h) ? writeCollected(h, journal) : Status::ok, journal);
}

}  // namespace qz
