// bkpblockmatch: the block whose data contains an address that the caller gives back. Blocks on
// the free list have nothing handed out and are not searched.
#include "bkp.h"

namespace qz {
namespace {

bool coversAddress(const FileHandle& h, const BlockRecord& block, const void* address) {
  const auto begin = reinterpret_cast<std::uintptr_t>(block.data);
  const auto bytes = static_cast<std::uintptr_t>(std::int64_t{h.pageSize} * h.pagesPerBlock);
  const auto place = reinterpret_cast<std::uintptr_t>(address);
  return begin <= place && place - begin < bytes;
}

BlockRecord* findHeld(const FileHandle& h, const void* address) {
  const List<BlockRecord>& held = h.blockHeldList;
  if (held.tail == nullptr) return nullptr;
  if (coversAddress(h, *held.tail, address)) return held.tail;
  if (coversAddress(h, *held.head, address)) return held.head;
  for (BlockRecord* block = held.tail->prev; block != nullptr; block = block->prev) {
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

}  // namespace

BlockRecord* bkpblockmatch(const FileHandle& h, const void* address, FoundIn* foundIn) {
  *foundIn = FoundIn::nowhere;
  if (h.writeBlock != nullptr && coversAddress(h, *h.writeBlock, address)) {
    *foundIn = FoundIn::writeBlock;
    return h.writeBlock;
  }
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
