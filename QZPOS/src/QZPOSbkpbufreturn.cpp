// qzpbufreturn: ends a hold without writing. What the caller may have changed in place is not
// trusted: the last return empties a page buffer; in a block the page becomes stale.
//
// A record of the other shape, left over from before a reopen, is freed when its last hold ends.
#include "find.h"

namespace qz {
namespace {

Status returnBlock(FileHandle* h, const Held& held, const void* address, Journal* journal) {
  BlockRecord* block = held.block;
  const bool leftover = !inBlockMode(*h);
  const bool freed = endBlockHold(h, block, held.foundIn);
  if (freed) joinFreeTail(h, block);
  if (freed && leftover) return bkpdeletebuffers(h, &h->blockFreeList, journal);
  markStale(block, slotIndex(*block, address, h->pageSize));
  return keep(h, Status::ok);
}

Status returnPage(FileHandle* h, PageBuffer* buffer, Journal* journal) {
  if (endExtraHold(h, buffer)) return keep(h, Status::ok);
  unhold(h, buffer);
  joinFreeHead(h, buffer);
  if (inBlockMode(*h)) return bkpdeletebuffers(h, &h->pageFreeList, journal);
  emptyBuffer(h, buffer);
  return keep(h, Status::ok);
}

}  // namespace
}  // namespace qz

qz::Status qzpbufreturn(qz::FileHandle* h, void* address, qz::Journal* journal) noexcept {
  using namespace qz;
  if (!isOpen(*h)) return fail(h, Status::notOpen, journal);
  Held held;
  findHeld(*h, address, &held);
  // Callers hold no address inside the write block.
  if (held.foundIn == FoundIn::writeBlock) held.block = nullptr;
  if (held.block != nullptr) return returnBlock(h, held, address, journal);
  if (held.buffer != nullptr) return returnPage(h, held.buffer, journal);
  return fail(h, Status::notHeld, journal);
}
