// qzpbufreturn: ends a hold without writing. What the caller may have changed in place is not
// trusted: a page buffer forgets its page, a block marks the page to be read again.
//
// A record of the other shape, left over from before a reopen, is freed as it comes back.
#include "records.h"

namespace qz {
namespace {

struct Match {
  BlockRecord* block = nullptr;
  FoundIn foundIn = FoundIn::nowhere;
  PageBuffer* buffer = nullptr;
};

// Records of the mode's own shape are looked at first.
Match findReturned(const FileHandle& h, const void* address) {
  Match match;
  if (inBlockMode(h)) match.block = bkpblockmatch(h, address, &match.foundIn);
  if (match.block == nullptr) match.buffer = bkpbufmatch(h, address);
  if (!inBlockMode(h) && match.buffer == nullptr) {
    match.block = bkpblockmatch(h, address, &match.foundIn);
  }
  // Nothing inside the write block was ever handed out.
  if (match.foundIn == FoundIn::writeBlock) match.block = nullptr;
  return match;
}

Status returnBlock(FileHandle* h, const Match& match, const void* address, Journal* journal) {
  BlockRecord* block = match.block;
  const bool leftover = !inBlockMode(*h);
  const bool freed = endHandOut(h, block, match.foundIn);
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
  forgetPage(h, buffer);
  return keep(h, Status::ok);
}

}  // namespace
}  // namespace qz

qz::Status qzpbufreturn(qz::FileHandle* h, void* address, qz::Journal* journal) noexcept {
  using namespace qz;
  if (!isOpen(*h)) return fail(h, Status::notOpen, journal);
  const Match match = findReturned(*h, address);
  if (match.block != nullptr) return returnBlock(h, match, address, journal);
  if (match.buffer != nullptr) return returnPage(h, match.buffer, journal);
  return fail(h, Status::notHeld, journal);
}
