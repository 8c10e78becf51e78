// Lookups of buffer records: see find.h.
#include "find.h"

namespace qz {
namespace {

// The first block of a list that holds the page, or null.
BlockRecord* walkToPage(const List<BlockRecord>& list, std::int64_t page) {
  BlockRecord* block = list.head;
  while (block != nullptr && !coversPage(*block, page)) block = block->next;
  return block;
}

// Sets *found to the block that holds the page, or leaves it. False: several blocks hold it, and
// the order of the lists decides between them.
bool askIndex(const FileHandle& h, std::int64_t page, BlockRecord** found) {
  int copies = 0;
  h.index->visitBlocks(blockOfPage(page, h.pagesPerBlock), [&](BlockRecord* block) {
    if (!coversPage(*block, page)) return;
    *found = block;
    ++copies;
  });
  return copies < 2;
}

// Blocks that were acquired are empty, blocks that were read are not.
BlockRecord* askIndex(const FileHandle& h, const void* address, FoundIn* foundIn) {
  BlockRecord* found = nullptr;
  h.index->visitBlocksNear(address, [&](BlockRecord* block) {
    if (block->holdCount != 0 && coversAddress(h, *block, address)) found = block;
  });
  if (found != nullptr) {
    *foundIn = isEmptyRecord(*found) ? FoundIn::acquiredList : FoundIn::heldList;
  }
  return found;
}

}  // namespace

BlockRecord* findListedBlock(const FileHandle& h, std::int64_t page) {
  BlockRecord* block = nullptr;
  if (h.index != nullptr && askIndex(h, page, &block)) return block;
  block = walkToPage(h.blockFreeList, page);
  return block != nullptr ? block : walkToPage(h.blockHeldList, page);
}

BlockRecord* findListedBlockAt(const FileHandle& h, const void* address, FoundIn* foundIn) {
  *foundIn = FoundIn::nowhere;
  if (h.index != nullptr) return askIndex(h, address, foundIn);
  for (BlockRecord* block = h.blockHeldList.tail; block != nullptr; block = block->prev) {
    if (!coversAddress(h, *block, address)) continue;
    *foundIn = FoundIn::heldList;
    return block;
  }
  for (BlockRecord* block = h.blockAcquiredList.head; block != nullptr; block = block->next) {
    if (!coversAddress(h, *block, address)) continue;
    *foundIn = FoundIn::acquiredList;
    return block;
  }
  return nullptr;
}

PageBuffer* findListedBufferAt(const FileHandle& h, const void* address) {
  if (h.index != nullptr) {
    PageBuffer* buffer = h.index->bufferAt(address);
    return buffer != nullptr && buffer->held != 0 ? buffer : nullptr;
  }
  PageBuffer* buffer = h.pageHeldList.tail;
  while (buffer != nullptr && buffer->data != address) buffer = buffer->prev;
  return buffer;
}

}  // namespace qz
