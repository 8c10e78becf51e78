// qzpbufacquire: gives the caller an empty buffer to fill and write.
#include "records.h"

namespace qz {
namespace {

BlockRecord* newBlock(FileHandle* h, Journal* journal) {
  const NewBlock made = makeBlock(*h, journal);
  if (made.missing == BlockPart::staleBits) journalStatus(journal, Status::noBuffer);
  if (made.block != nullptr) ++h->blocksAllocated;
  return made.block;
}

// A free block, or a new one where all are in use.
Status acquireBlock(FileHandle* h, void** bufferOut, Journal* journal) {
  auto* block = bkpfindfreebuf<BlockRecord>(h);
  const bool allInUse = block == nullptr;
  if (allInUse) {
    block = newBlock(h, journal);
    if (block == nullptr) return Status::noBuffer;
  } else {
    leaveFree(h, block);
  }
  pushHead(h->blockAcquiredList, block);
  if (allInUse) indexNewRecord(h, block);
  *bufferOut = block->data;
  ++block->holdCount;
  ++h->heldCount;
  return Status::ok;
}

Status acquirePage(FileHandle* h, void** bufferOut) {
  if (lacksTree(*h)) return Status::noBuffer;
  auto* buffer = bkpfindfreebuf<PageBuffer>(h);
  if (buffer == nullptr) return Status::noBuffer;
  *bufferOut = buffer->data;
  hold(h, buffer);
  return Status::ok;
}

Status acquire(FileHandle* h, void** bufferOut, Journal* journal) {
  if (!isOpen(*h)) return Status::notOpen;
  if (h->heldCount >= h->bufferCount) return Status::noBuffer;
  return inBlockMode(*h) ? acquireBlock(h, bufferOut, journal) : acquirePage(h, bufferOut);
}

}  // namespace
}  // namespace qz

qz::Status qzpbufacquire(qz::FileHandle* h, void** bufferOut, qz::Journal* journal) noexcept {
  return qz::finish(h, qz::acquire(h, bufferOut, journal), journal);
}
