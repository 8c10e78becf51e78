// qzpwrite: stores one page and ends the caller's hold on the buffer that it came from.
//
// In block mode an appended page that begins a block goes to the write block, and so do the pages
// appended after it. A rewrite of a collected page changes it there. All other pages go straight to
// the file. Then the cache is updated: copies that nobody holds are emptied, copies in held blocks
// are updated, and in page mode the written buffer becomes the cached copy.
#include <cstring>

#include "find.h"
#include "io.h"

namespace qz {
namespace {

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

// True if the whole page lies inside the block's data.
bool liesWithin(const FileHandle& h, const BlockRecord& block, const PageRequest& r) {
  return r.buffer - block.data <= std::ptrdiff_t{h.blockBytes} - r.length;
}

// The module buffer that a page comes from; none for the caller's own memory.
Status findSource(const FileHandle& h, const PageRequest& r, Held* source) {
  if ((r.flags & kCallersMemory) != 0) return Status::ok;
  findHeld(h, r.buffer, source);
  if (source->block == nullptr && source->buffer == nullptr) return Status::notHeld;
  if (source->block != nullptr && !liesWithin(h, *source->block, r)) return Status::notHeld;
  if (source->foundIn == FoundIn::writeBlock) {
    // No operation returns such an address, so no hold ends. A caller that computes one may write
    // only a collected page from it.
    if (!inBlockMode(h) || !isCollectedPage(h, r.pageNumber)) return Status::notHeld;
    source->block = nullptr;
  }
  return Status::ok;
}

// The write block takes rewrites of the pages that it collected, and further appended pages; its
// first page lies at a block boundary. Normally its last page is `pageCount`. But a replaced
// qzptruncate may skip the cut-back after a failed write-back; the block then keeps its pages, and
// may be full or end before `pageCount`. In both cases the page goes straight to the file.
bool goesToWriteBlock(const FileHandle& h, std::int64_t page) {
  if (!inBlockMode(h) || h.writeBlock == nullptr) return false;
  if (isCollectedPage(h, page)) return true;
  if (page <= h.pageCount) return false;
  if (writeBlockBegun(h)) {
    return page - 1 == h.writeBlock->lastPage &&
           extentContains(*h.writeBlock, page, h.pagesPerBlock);
  }
  return beginsBlock(page, h.pagesPerBlock);
}

// Copies the stored bytes into a held block and returns their address there. The block's range of
// pages grows only if the page adjoins it.
const char* updateHeldBlock(const FileHandle& h, BlockRecord* block, std::int64_t page,
                            const char* stored) {
  char* slot = slotOf(h, *block, page);
  std::memmove(slot, stored, static_cast<std::size_t>(h.pageSize));
  const std::int64_t begin = slotBegin(*block, page, h.pageSize);
  if (page - 1 == block->lastPage && block->validBytes >= begin) {
    block->lastPage = page;
    block->validBytes = std::max<std::int64_t>(block->validBytes, begin + h.pageSize);
  }
  return slot;
}

// Copies each time from the copy made last: the caller's bytes may overlap a slot that has just
// been overwritten.
[[gnu::noinline]] void updateCopies(FileHandle* h, std::int64_t page, const char* stored) {
  settleCopies(h, page,
               [&](BlockRecord* block) { stored = updateHeldBlock(*h, block, page, stored); });
}

void updateBlocks(FileHandle* h, std::int64_t page, const char* stored) {
  if (h->blocksAllocated != 0) updateCopies(h, page, stored);
}

// Copies the page into the write block and returns its address there.
const char* collect(FileHandle* h, const PageRequest& r) {
  BlockRecord* block = h->writeBlock;
  if (!writeBlockBegun(*h)) block->firstPage = r.pageNumber;
  char* slot = slotOf(*h, *block, r.pageNumber);
  // The source may be the slot itself, or overlap it.
  std::memmove(slot, r.buffer, static_cast<std::size_t>(r.length));
  if (r.pageNumber > h->pageCount) {
    block->lastPage = r.pageNumber;
    ++block->dirtyPages;
    h->pageCount = r.pageNumber;
  }
  return slot;
}

Status writeBlockWhenFull(FileHandle* h, Journal* journal) {
  return h->writeBlock->dirtyPages == h->pagesPerBlock ? bkpwriteblock(h, journal) : Status::ok;
}

// Direct I/O needs aligned memory: the caller's own is copied when it is not.
bool needsBounce(const FileHandle& h, const PageRequest& r) {
  return (r.flags & kCallersMemory) != 0 && usesDirectIo(h) && !isAligned(r.buffer);
}

Transfer writePage(const FileHandle& h, const PageRequest& r, const void* source) {
  return writeAt(h.fd, source, r.length, pageOffset(h, r.pageNumber));
}

Status judgeFileWrite(FileHandle* h, const PageRequest& r, const Transfer& transfer,
                      Journal* journal) {
  if (transfer.failed()) h->lastErrno = transfer.error;
  const Status status = judgeWrite(transfer, r.length);
  if (status != Status::ok) {
    // Removes the part of a new page that reached the file. In block mode this writes collected
    // pages back first; if that fails, they are lost.
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

// A copy of the page in aligned memory of the pool, or null without memory.
void* copyAligned(const FileHandle& h, const PageRequest& r) {
  void* copy = allocate(h.module->bufferPool, static_cast<std::size_t>(h.pageSize), kZeroFill);
  if (copy != nullptr) std::memcpy(copy, r.buffer, static_cast<std::size_t>(r.length));
  return copy;
}

Status writeToFile(FileHandle* h, const PageRequest& r, Journal* journal) {
  void* bounce = nullptr;
  if (needsBounce(*h, r)) {
    bounce = copyAligned(*h, r);
    if (bounce == nullptr) return Status::noMemory;
  }
  const Transfer transfer = writePage(*h, r, bounce != nullptr ? bounce : r.buffer);
  if (bounce != nullptr) freeMemory(h->module->bufferPool, bounce);
  return judgeFileWrite(h, r, transfer, journal);
}

// Empties a held buffer. Rare, so it is not inlined into the common write.
[[gnu::noinline]] void emptyHeldBuffer(FileHandle* h, PageBuffer* buffer) {
  emptyBuffer(h, buffer);
}

// The written buffer becomes the cached copy of the page. While the caller has other holds of it,
// it remains the copy of its own page, unless it was written as another page.
void cacheWritten(FileHandle* h, PageBuffer* buffer, const PageRequest& r) {
  const bool hadAnotherPage = buffer->pageNumber != 0 && buffer->pageNumber != r.pageNumber;
  if (hadAnotherPage) emptyHeldBuffer(h, buffer);
  if (buffer->extraHolds != 0) return;
  setPageNumber(h, buffer, r.pageNumber);
  buffer->validBytes = r.length;
  enterPage(*h, buffer);
}

// Another buffer's copy of the page is out of date. A free one is emptied. A held one keeps its
// bytes and leaves the tree, except after a rewrite from the caller's own memory. A cached copy of
// a page that is appended now dates from before a truncate that removed the page.
void updatePages(FileHandle* h, const PageRequest& r, PageBuffer* written, bool appended) {
  if (h->pageTree == nullptr || (isEmpty(h->pageFreeList) && isEmpty(h->pageHeldList))) return;
  PageBuffer* cached = findPage(*h, &r.pageNumber);
  if (cached != nullptr && cached != written) {
    if (cached->held == 0) {
      emptyFreePage(h, cached);
    } else if ((r.flags & kCallersMemory) == 0 || appended) {
      emptyHeldBuffer(h, cached);
    }
  }
  if (written != nullptr) cacheWritten(h, written, r);
}

void endHoldOfBlock(FileHandle* h, const Held& source, const PageRequest& r) {
  BlockRecord* block = source.block;
  if (endBlockHold(h, block, source.foundIn)) {
    joinFreeHead(h, block);
    emptyFreeBlock(h, block);
    return;
  }
  // A slot that was written as another page no longer has its own page's bytes.
  const std::int32_t index = slotIndex(*block, r.buffer, h->pageSize);
  if (block->firstPage + index != r.pageNumber) markStale(block, index);
}

void endHoldOfPage(FileHandle* h, PageBuffer* buffer) {
  if (endExtraHold(h, buffer)) return;
  unhold(h, buffer);
  joinFreeTail(h, buffer);
}

Status store(FileHandle* h, const PageRequest& r, Journal* journal) {
  Status status = checkWrite(*h, r);
  Held source;
  if (status == Status::ok) status = findSource(*h, r, &source);
  if (status != Status::ok) return status;
  const bool appends = r.pageNumber > h->pageCount;
  const char* stored = r.buffer;
  if (goesToWriteBlock(*h, r.pageNumber)) {
    stored = collect(h, r);
    const std::uint32_t closes = h->closes;
    // If the write-back fails, the caller's hold ends all the same, below.
    status = writeBlockWhenFull(h, journal);
    // The cut-back calls qzptruncate through the table. A replaced one may have closed the file,
    // which frees every record.
    if (h->closes != closes) return status;
  } else {
    status = writeToFile(h, r, journal);
    if (status != Status::ok) return status;
  }
  updateBlocks(h, r.pageNumber, stored);
  updatePages(h, r, source.buffer, appends);
  if (source.block != nullptr) endHoldOfBlock(h, source, r);
  if (source.buffer != nullptr) endHoldOfPage(h, source.buffer);
  return status;
}

}  // namespace
}  // namespace qz

qz::Status qzpwrite(qz::FileHandle* h, qz::PageRequest* request, qz::Journal* journal) noexcept {
  return qz::finish(h, qz::store(h, *request, journal), journal);
}
