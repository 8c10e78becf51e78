// qzpread: gives the caller one page, in place. In block mode the page lies in a block that was
// read whole; in page mode in a buffer of its own, found through the page tree.
//
// A page that comes back short closes the file: its contents do not fit the layout that the
// handle believes in, and the caller never gets bytes that were not read. (In page mode no bytes at
// all are the end of the file, and a failed read is ioFailed; both leave the file open.)
#include <cstring>

#include "find.h"
#include "io.h"

namespace qz {
namespace {

bool followsReadOrder(const FileHandle& h, std::int64_t page) {
  return h.readAccess != readSequential || page == pageAfter(h.lastPageRead) ||
         page == h.sequentialStartPage;
}

Status checkRead(const FileHandle& h, std::int64_t page) {
  if (!isOpen(h)) return Status::notOpen;
  if (!followsReadOrder(h, page)) return Status::readOutOfSequence;
  if (page <= 0) return Status::pageOutOfRange;
  if (page > h.pageCount) {
    return page - 1 == h.pageCount ? Status::endOfFile : Status::pageOutOfRange;
  }
  if (h.heldCount >= h.bufferCount) return Status::noBuffer;
  return Status::ok;
}

// Reads the page's whole block into a free record; null when there is none.
BlockRecord* fillBlock(FileHandle* h, std::int64_t page) {
  auto* block = bkpfindfreebuf<BlockRecord>(h);
  if (block == nullptr) return nullptr;
  __builtin_prefetch(block->next);
  setBlockNumber(h, block, blockOfPage(page, h->pagesPerBlock));
  block->firstPage = firstPageOfBlock(block->blockNumber, h->pagesPerBlock);
  block->lastPage = lastPageOfBlock(block->firstPage, h->pagesPerBlock, h->pageCount);
  std::memset(block->staleBits, 0, static_cast<std::size_t>(h->bitmapBytes));
  const std::int64_t offset = pageOffset(*h, block->firstPage);
  const Transfer transfer =
      retryingEintr([&] { return readAt(h->fd, block->data, h->blockBytes, offset); });
  block->validBytes = transfer.result;
  if (transfer.failed()) block->readErrno = transfer.error;
  h->nextPage = pageAfter(block->lastPage);
  if (h->firstBlockRead == 0) h->firstBlockRead = block->blockNumber;
  return block;
}

// Reads one page of a cached block again. One that comes short stays stale: a close that a host
// replaced may leave the block cached.
std::int32_t refreshPage(FileHandle* h, BlockRecord* block, std::int64_t page) {
  char* slot = slotOf(*h, *block, page);
  const Transfer transfer =
      retryingEintr([&] { return readAt(h->fd, slot, h->pageSize, pageOffset(*h, page)); });
  if (transfer.failed()) block->readErrno = transfer.error;
  h->nextPage = pageAfter(page);
  if (transfer.result >= h->pageSize) clearStale(block, slotIndex(*block, page));
  return static_cast<std::int32_t>(transfer.result);
}

// The page's bytes that the read of its block returned: at most `pageSize`, but all bytes from its
// start for the block's last page. Negative when the read failed or ended before the page.
std::int32_t bytesAvailable(const FileHandle& h, const BlockRecord& block, std::int64_t page) {
  const auto valid = static_cast<std::int32_t>(block.validBytes);  // at most `blockBytes`
  if (valid < 0) return valid;
  const std::int32_t available = valid - slotBegin(block, page, h.pageSize);
  return page == block.lastPage ? available : std::min(available, h.pageSize);
}

// Closes the file. The error number of the read outlives the close, which clears it.
Status closeShort(FileHandle* h, const Transfer& read, Journal* journal) {
  if (read.failed()) h->lastErrno = read.error;
  h->status = Status::misfit;
  closeThroughTable(h, 0, journal);
  if (read.failed()) h->lastErrno = read.error;
  return Status::misfit;
}

void giveAddress(FileHandle* h, PageRequest* request, char* address) {
  request->buffer = address;
  h->lastPageRead = request->pageNumber;
}

// The page came short: closes the file. During the close the block counts as held, so that a
// replaced qzpclose leaves it on its list. If the file is still open afterwards and the block has
// no other hold, it goes back to the free list, empty: its short contents are not used again.
Status closeShortBlock(FileHandle* h, BlockRecord* block, std::int32_t available,
                       Journal* journal) {
  const std::uint32_t closes = h->closes;
  ++block->holdCount;
  const Status status = closeShort(h, {.result = available, .error = block->readErrno}, journal);
  if (h->closes != closes) return status;  // the block is gone
  --block->holdCount;
  if (isOpen(*h) && block->holdCount == 0) {
    unlink(h->blockHeldList, block);
    joinFreeHead(h, block);
    emptyFreeBlock(h, block);
  }
  return status;
}

Status readFromBlock(FileHandle* h, PageRequest* request, Journal* journal) {
  const std::int64_t page = request->pageNumber;
  BlockRecord* block = nullptr;
  if (isCollectedPage(*h, page)) {
    const Status written = bkpwriteblock(h, journal);
    if (written != Status::ok) return written;
    // The page is read from the file, even if an older copy of its block is cached.
  } else {
    block = findBlockOfPage(*h, page);
  }
  const bool stale = block != nullptr && isStale(*block, slotIndex(*block, page));
  if (block == nullptr) block = fillBlock(h, page);
  if (block == nullptr) return Status::noBuffer;
  const std::int32_t available =
      stale ? refreshPage(h, block, page) : bytesAvailable(*h, *block, page);
  h->lastBlock = block;
  moveToHeld(h, block);
  if (available < h->pageSize) return closeShortBlock(h, block, available, journal);
  request->length = available;
  giveAddress(h, request, slotOf(*h, *block, page));
  ++h->heldCount;
  ++block->holdCount;
  block->lastPageHandedOut = page;
  return Status::ok;
}

struct PageRead {
  PageBuffer* buffer;  // null: none is free
  std::int32_t error;  // of a read made now
};

// Reads the page into the first free buffer: an empty one, else the one returned longest ago, as
// the pages used last are the likeliest to be read again. The buffer enters the tree even if the
// read failed or came short. An interrupted read is not repeated: the file stays open, and the
// caller decides whether to go on. (A block read is repeated, because its failure closes the file,
// and a signal is no reason for that.)
PageRead fillPage(FileHandle* h, std::int64_t page) {
  PageBuffer* buffer = h->pageFreeList.head;
  if (buffer == nullptr) return {nullptr, 0};
  // The next read takes this record, which no cache may have: it is fetched while the system reads.
  __builtin_prefetch(buffer->next);
  if (buffer->pageNumber != 0) takeOutOfTree(*h, *buffer);
  setPageNumber(h, buffer, page);
  const Transfer transfer = readAt(h->fd, buffer->data, h->pageSize, pageOffset(*h, page));
  buffer->validBytes = static_cast<std::int32_t>(transfer.result);
  enterPage(*h, buffer);
  return {buffer, transfer.error};
}

Status readFromPage(FileHandle* h, PageRequest* request, Journal* journal) {
  if (lacksTree(*h)) return Status::noBuffer;
  PageRead read = {findPage(*h, &request->pageNumber), 0};
  if (read.buffer == nullptr) read = fillPage(h, request->pageNumber);
  PageBuffer* buffer = read.buffer;
  if (buffer == nullptr) return Status::noBuffer;
  if (buffer->validBytes == 0) return Status::endOfFile;
  if (buffer->validBytes < 0) {
    // 0: the read failed earlier, and its error number was not stored.
    if (read.error != 0) h->lastErrno = read.error;
    return Status::ioFailed;
  }
  if (buffer->validBytes != h->pageSize) {
    request->length = buffer->validBytes;
    return closeShort(h, {.result = buffer->validBytes, .error = 0}, journal);
  }
  giveAddress(h, request, buffer->data);
  if (buffer->held != 0) {
    holdAgain(h, buffer);
  } else {
    hold(h, buffer);
  }
  return Status::ok;
}

}  // namespace
}  // namespace qz

qz::Status qzpread(qz::FileHandle* h, qz::PageRequest* request, qz::Journal* journal) noexcept {
  using namespace qz;
  request->buffer = nullptr;
  Status status = checkRead(*h, request->pageNumber);
  if (status == Status::ok) {
    status =
        inBlockMode(*h) ? readFromBlock(h, request, journal) : readFromPage(h, request, journal);
  }
  return finish(h, status, journal);
}
