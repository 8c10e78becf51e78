// qzpwrite: stores one page and ends the caller's hold on the buffer that it came from.
//
// A page goes straight to the file, except in block mode where appended pages are collected in
// the write block, beginning at a block boundary, and pages being collected are rewritten there.
// Then the cache is brought into line: copies that nobody holds are dropped, copies in held
// blocks are updated, and in page mode the written buffer becomes the cached copy.
#include <cstring>

#include "io.h"
#include "records.h"

namespace qz {
namespace {

// The module buffer that a page comes from; neither for the caller's own memory.
struct Source {
  BlockRecord* block = nullptr;
  FoundIn foundIn = FoundIn::nowhere;
  PageBuffer* buffer = nullptr;
};

Status checkWrite(const FileHandle& h, const PageRequest& r) {
  if (!isOpen(h)) return Status::notOpen;
  if (r.length != h.pageSize) return Status::wrongLength;
  if (r.pageNumber <= 0) return Status::pageOutOfRange;
  if (r.pageNumber - 1 > h.pageCount) return Status::writeOutOfSequence;
  if (h.fileSize < h.headerSize) return Status::shorterThanHeader;
  const bool appends = r.pageNumber - 1 == h.pageCount;
  if (h.writeAccess != rewritePages && !appends) return Status::writeOutOfSequence;
  return Status::ok;
}

// A page that begins near the end of a block's data would be read beyond it.
bool liesWithin(const FileHandle& h, const BlockRecord& block, const PageRequest& r) {
  return r.buffer - block.data <= std::ptrdiff_t{h.blockBytes} - r.length;
}

Status findSource(const FileHandle& h, const PageRequest& r, Source* source) {
  if ((r.flags & kCallersMemory) != 0) return Status::ok;
  if (inBlockMode(h)) source->block = bkpblockmatch(h, r.buffer, &source->foundIn);
  if (source->block == nullptr) source->buffer = bkpbufmatch(h, r.buffer);
  if (!inBlockMode(h) && source->buffer == nullptr) {
    source->block = bkpblockmatch(h, r.buffer, &source->foundIn);
  }
  if (source->block == nullptr && source->buffer == nullptr) return Status::notHeld;
  if (source->block != nullptr && !liesWithin(h, *source->block, r)) return Status::notHeld;
  if (source->foundIn == FoundIn::writeBlock) {
    // Never handed out, so there is no hold to end; good only to rewrite a page in its place.
    if (!inBlockMode(h) || !isCollected(h, r.pageNumber)) return Status::notHeld;
    source->block = nullptr;
  }
  return Status::ok;
}

// The write block takes rewrites of its own pages, and appended pages once it has begun; it
// begins with a page at a block boundary. It can still be full when the cut-back after a failed
// write-back was left to a host that did nothing.
bool goesToWriteBlock(const FileHandle& h, std::int64_t page) {
  if (!inBlockMode(h) || h.writeBlock == nullptr) return false;
  if (isCollected(h, page)) return true;
  if (page <= h.pageCount) return false;
  if (isCollecting(h)) return extentContains(*h.writeBlock, page, h.pagesPerBlock);
  return beginsBlock(page, h.pagesPerBlock);
}

Status collect(FileHandle* h, const PageRequest& r, Journal* journal) {
  BlockRecord* block = h->writeBlock;
  if (!isCollecting(*h)) block->firstPage = r.pageNumber;
  // The source may be the slot itself, or overlap it.
  std::memmove(slotOf(*block, r.pageNumber, h->pageSize), r.buffer,
               static_cast<std::size_t>(r.length));
  if (r.pageNumber > h->pageCount) {
    block->lastPage = r.pageNumber;
    ++block->dirtyPages;
    h->pageCount = r.pageNumber;
  }
  return block->dirtyPages == h->pagesPerBlock ? bkpwriteblock(h, journal) : Status::ok;
}

// Direct I/O takes the caller's own memory only when it is aligned; else through a copy.
bool needsBounce(const FileHandle& h, const PageRequest& r) {
  return (r.flags & kCallersMemory) != 0 && usesDirectIo(h) && !isAligned(r.buffer);
}

Transfer writePage(const FileHandle& h, const PageRequest& r, const void* source) {
  return writeAt(h.fd, source, r.length, pageOffset(h, r.pageNumber));
}

Status judgeDirectWrite(FileHandle* h, const PageRequest& r, const Transfer& transfer,
                        Journal* journal) {
  if (transfer.failed()) h->lastErrno = transfer.error;
  const Status status = judgeWrite(transfer, r.length);
  if (status != Status::ok) {
    // Cuts away whatever part of a new page reached the file.
    truncateThroughTable(h, h->pageCount, journal);
    return status;
  }
  h->nextPage = pageAfter(r.pageNumber);
  if (r.pageNumber > h->pageCount) {
    h->pageCount = r.pageNumber;
    h->fileSize += r.length;
  }
  return Status::ok;
}

Status writeDirectly(FileHandle* h, const PageRequest& r, Journal* journal) {
  if (!needsBounce(*h, r)) return judgeDirectWrite(h, r, writePage(*h, r, r.buffer), journal);
  MemoryPool* pool = h->module->bufferPool;
  void* bounce = allocate(pool, static_cast<std::size_t>(h->pageSize), kZeroFill);
  if (bounce == nullptr) return Status::noMemory;
  std::memcpy(bounce, r.buffer, static_cast<std::size_t>(r.length));
  const Transfer transfer = writePage(*h, r, bounce);
  giveBack(pool, bounce);
  return judgeDirectWrite(h, r, transfer, journal);
}

// A held copy of the page takes the new bytes. Its range grows only where they join on to what
// it has.
void updateHeldBlock(const FileHandle& h, BlockRecord* block, const PageRequest& r) {
  std::memmove(slotOf(*block, r.pageNumber, h.pageSize), r.buffer,
               static_cast<std::size_t>(r.length));
  const std::int64_t begin = slotBegin(*block, r.pageNumber, h.pageSize);
  if (r.pageNumber != block->lastPage + 1 || block->validBytes < begin) return;
  block->lastPage = r.pageNumber;
  block->validBytes = std::max(block->validBytes, begin + r.length);
}

// More than one block can have room for the page: a truncate leaves held blocks as they are, and
// the pages behind the cut may be read into another one later.
void updateListed(FileHandle* h, const PageRequest& r) {
  for (BlockRecord* b = h->blockFreeList.tail; b != nullptr; b = b->prev) {
    if (extentContains(*b, r.pageNumber, h->pagesPerBlock)) emptyFreeBlock(h, b);
  }
  for (BlockRecord* b = h->blockHeldList.tail; b != nullptr; b = b->prev) {
    if (extentContains(*b, r.pageNumber, h->pagesPerBlock)) updateHeldBlock(*h, b, r);
  }
}

// The same blocks, by their number. A block that is emptied loses its number, so each of them is
// looked up afresh.
void updateIndexed(FileHandle* h, const PageRequest& r) {
  const std::int64_t blockNumber = blockOfPage(r.pageNumber, h->pagesPerBlock);
  while (BlockRecord* block = h->index->freeBlock(blockNumber)) emptyFreeBlock(h, block);
  h->index->visitBlocks(blockNumber, [&](BlockRecord* block) { updateHeldBlock(*h, block, r); });
}

void updateBlocks(FileHandle* h, const PageRequest& r) {
  if (h->blocksAllocated == 0) return;
  if (h->index != nullptr) {
    updateIndexed(h, r);
  } else {
    updateListed(h, r);
  }
}

// The written buffer becomes the cached copy of the page. One that the caller holds more than
// once keeps its page and tree entry.
void cacheWritten(FileHandle* h, PageBuffer* buffer, const PageRequest& r) {
  if (buffer->extraHolds != 0) return;
  if (buffer->pageNumber != 0 && buffer->pageNumber != r.pageNumber) dropPage(*h, *buffer);
  setPageNumber(h, buffer, r.pageNumber);
  buffer->validBytes = r.length;
  enterPage(*h, buffer);
}

void updatePages(FileHandle* h, const PageRequest& r, PageBuffer* written) {
  if (h->pageTree == nullptr || (isEmpty(h->pageFreeList) && isEmpty(h->pageHeldList))) return;
  PageBuffer* cached = findPage(*h, &r.pageNumber);
  if (cached != nullptr && cached != written) {
    if (cached->held == 0) {
      emptyFreePage(h, cached);
    } else if (written != nullptr) {
      forgetPage(h, cached);
    }
  }
  if (written != nullptr) cacheWritten(h, written, r);
}

void endBlockHold(FileHandle* h, const Source& source, const PageRequest& r) {
  BlockRecord* block = source.block;
  if (endHandOut(h, block, source.foundIn)) {
    joinFreeHead(h, block);
    emptyFreeBlock(h, block);
    return;
  }
  // Written as another page than its own, a slot has bytes that are not its page's.
  const std::int32_t index = slotIndex(*block, r.buffer, h->pageSize);
  if (block->firstPage + index != r.pageNumber) markStale(block, index);
}

void endPageHold(FileHandle* h, PageBuffer* buffer) {
  if (endExtraHold(h, buffer)) return;
  unhold(h, buffer);
  joinFreeTail(h, buffer);
}

Status store(FileHandle* h, const PageRequest& r, Journal* journal) {
  Status status = checkWrite(*h, r);
  Source source;
  if (status == Status::ok) status = findSource(*h, r, &source);
  if (status != Status::ok) return status;
  if (goesToWriteBlock(*h, r.pageNumber)) {
    // A full write block that could not be written does not keep the hold.
    status = collect(h, r, journal);
  } else {
    status = writeDirectly(h, r, journal);
    if (status != Status::ok) return status;
  }
  updateBlocks(h, r);
  updatePages(h, r, source.buffer);
  if (source.block != nullptr) endBlockHold(h, source, r);
  if (source.buffer != nullptr) endPageHold(h, source.buffer);
  return status;
}

}  // namespace
}  // namespace qz

qz::Status qzpwrite(qz::FileHandle* h, qz::PageRequest* request, qz::Journal* journal) noexcept {
  return qz::finish(h, qz::store(h, *request, journal), journal);
}
