// qzptruncate: truncates the file to a page count and removes the pages beyond the new end from the
// cache. What the caller holds stays as it is. The walks stop at the first empty record. A record
// behind it may keep a page beyond the new end: no read asks for that page, and an append into the
// record's range empties the record.
#include "io.h"
#include "records.h"

namespace qz {
namespace {

// Removes collected pages beyond the new end and writes those before it. A failure of the write has
// been stored and reported.
Status dropCollectedBeyond(FileHandle* h, std::int64_t newPageCount, Journal* journal) {
  if (!inBlockMode(*h) || !writeBlockBegun(*h)) return Status::ok;
  BlockRecord* block = h->writeBlock;
  if (newPageCount < block->firstPage) {
    resetWriteBlock(block);
    return Status::ok;
  }
  if (newPageCount < block->lastPage) {
    block->lastPage = newPageCount;
    block->dirtyPages = newPageCount - block->firstPage + 1;
  }
  return bkpwriteblock(h, journal);
}

Status truncateFile(FileHandle* h, std::int64_t newPageCount) {
  // The system refuses an end that no file can have.
  const std::int64_t end = wholeFileBytes(newPageCount, h->pageSize, h->headerSize).value_or(-1);
  if (lseek64(h->fd, end, SEEK_SET) == -1 || ftruncate64(h->fd, end) == -1) {
    h->lastErrno = errno;
    return Status::notTruncated;
  }
  h->fileSize = end;
  h->pageCount = newPageCount;
  h->nextPage = pageAfter(newPageCount);
  return Status::ok;
}

void truncateFreeBlocks(FileHandle* h, std::int64_t newPageCount) {
  BlockRecord* nearer = nullptr;
  for (BlockRecord* block = h->blockFreeList.tail; block != nullptr && block->firstPage > 0;
       block = nearer) {
    nearer = block->prev;
    if (block->firstPage > newPageCount) {
      emptyFreeBlock(h, block);
      moveToHead(h->blockFreeList, block);
    } else if (newPageCount < block->lastPage) {
      block->lastPage = newPageCount;
      block->validBytes = std::min<std::int64_t>(block->validBytes,
                                                 slotBegin(*block, newPageCount + 1, h->pageSize));
    }
  }
}

void truncateFreePages(FileHandle* h, std::int64_t newPageCount) {
  PageBuffer* nearer = nullptr;
  for (PageBuffer* buffer = h->pageFreeList.tail; buffer != nullptr && buffer->pageNumber > 0;
       buffer = nearer) {
    nearer = buffer->prev;
    if (buffer->pageNumber > newPageCount) emptyFreePage(h, buffer);
  }
}

}  // namespace
}  // namespace qz

qz::Status qzptruncate(qz::FileHandle* h, std::int64_t newPageCount,
                       qz::Journal* journal) noexcept {
  using namespace qz;
  if (newPageCount > h->pageCount || newPageCount < 0) {
    return fail(h, Status::pageOutOfRange, journal);
  }
  const Status settled = dropCollectedBeyond(h, newPageCount, journal);
  if (settled != Status::ok) return settled;
  const Status truncated = truncateFile(h, newPageCount);
  if (truncated != Status::ok) return fail(h, truncated, journal);
  if (inBlockMode(*h)) {
    truncateFreeBlocks(h, newPageCount);
  } else {
    truncateFreePages(h, newPageCount);
  }
  return keep(h, Status::ok);
}
