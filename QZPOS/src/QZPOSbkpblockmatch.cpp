// bkpblockmatch: the block whose data contains an address that the caller gives back. Blocks on
// the free list have nothing handed out and are not searched.
#include "bkp.h"
#include "index.h"

namespace qz {
namespace {

bool coversAddress(const FileHandle& h, const BlockRecord& block, const void* address) {
  const auto begin = reinterpret_cast<std::uintptr_t>(block.data);
  const auto bytes = static_cast<std::uintptr_t>(std::int64_t{h.pageSize} * h.pagesPerBlock);
  const auto place = reinterpret_cast<std::uintptr_t>(address);
  return begin <= place && place - begin < bytes;
}

// The ends of the held list: callers tend to give back the oldest or the newest.
BlockRecord* findAtEnds(const FileHandle& h, const void* address) {
  const List<BlockRecord>& held = h.blockHeldList;
  if (held.tail == nullptr) return nullptr;
  if (coversAddress(h, *held.tail, address)) return held.tail;
  return coversAddress(h, *held.head, address) ? held.head : nullptr;
}

BlockRecord* findHeld(const FileHandle& h, const void* address) {
  for (BlockRecord* block = h.blockHeldList.tail; block != nullptr; block = block->prev) {
    if (coversAddress(h, *block, address)) return block;
  }
  return nullptr;
}

BlockRecord* findAcquired(const FileHandle& h, const void* address) {
  for (BlockRecord* block = h.blockAcquiredList.head; block != nullptr; block = block->next) {
    if (coversAddress(h, *block, address)) return block;
  }
  return nullptr;
}

// Data areas do not overlap, so at most one block has the address.
BlockRecord* findIndexed(const FileHandle& h, const void* address, FoundIn* foundIn) {
  BlockRecord* found = nullptr;
  h.index->visitNear(address, [&](BlockRecord* block) {
    if (block->holdCount != 0 && coversAddress(h, *block, address)) found = block;
  });
  // Blocks that were acquired are empty, blocks that were read are not.
  if (found != nullptr) {
    *foundIn = found->blockNumber == 0 ? FoundIn::acquiredList : FoundIn::heldList;
  }
  return found;
}

}  // namespace

BlockRecord* bkpblockmatch(const FileHandle& h, const void* address, FoundIn* foundIn) {
  *foundIn = FoundIn::nowhere;
  if (h.writeBlock != nullptr && coversAddress(h, *h.writeBlock, address)) {
    *foundIn = FoundIn::writeBlock;
    return h.writeBlock;
  }
  if (BlockRecord* block = findAtEnds(h, address)) {
    *foundIn = FoundIn::heldList;
    return block;
  }
  if (h.index != nullptr) return findIndexed(h, address, foundIn);
  if (BlockRecord* block = findHeld(h, address)) {
    *foundIn = FoundIn::heldList;
    return block;
  }
  if (BlockRecord* block = findAcquired(h, address)) {
    *foundIn = FoundIn::acquiredList;
    return block;
  }
  return nullptr;
}

}  // namespace qz
