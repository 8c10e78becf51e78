// Finds buffer records: by the page that they hold, and by an address in their data.
//
// The lists decide what is found. A handle with few records walks them; one with more asks its
// index (index.h), which gives the answer that the walk would have given. No other file chooses
// between the two ways.
#pragma once

#include "index.h"
#include "records.h"

namespace qz {

// The block that a read of the page finds among those that exist: on the free list, else on the
// held list, in the order of each from its head. Null: no block holds the page.
BlockRecord* findListedBlock(const FileHandle& h, std::int64_t page);

// The same, with the block that served the last read before all others.
inline BlockRecord* findBlockOfPage(const FileHandle& h, std::int64_t page) {
  if (h.lastBlock != nullptr && coversPage(*h.lastBlock, page)) return h.lastBlock;
  // Without blocks `pagesPerBlock` can be 0, and the lookup divides by it.
  return h.blocksAllocated == 0 ? nullptr : findListedBlock(h, page);
}

// Empties every free block that has room for the page, then calls visit(block) for every held one.
// There can be several: a truncate leaves held blocks as they are, and the pages beyond
// the new end may be appended again and read into another block. visit must not renumber blocks.
template <class Visit>
void settleCopies(FileHandle* h, std::int64_t page, Visit visit) {
  if (h->index != nullptr) {
    const std::int64_t blockNumber = blockOfPage(page, h->pagesPerBlock);
    // An emptied block loses its number, so each step looks up the first one left.
    while (BlockRecord* block = h->index->freeBlock(blockNumber)) emptyFreeBlock(h, block);
    h->index->visitBlocks(blockNumber, visit);
    return;
  }
  for (BlockRecord* b = h->blockFreeList.tail; b != nullptr; b = b->prev) {
    if (extentContains(*b, page, h->pagesPerBlock)) emptyFreeBlock(h, b);
  }
  for (BlockRecord* b = h->blockHeldList.tail; b != nullptr; b = b->prev) {
    if (extentContains(*b, page, h->pagesPerBlock)) visit(b);
  }
}

inline bool coversAddress(const FileHandle& h, const BlockRecord& block, const void* address) {
  const auto begin = reinterpret_cast<std::uintptr_t>(block.data);
  const auto bytes = static_cast<std::uintptr_t>(std::int64_t{h.pageSize} * h.pagesPerBlock);
  const auto place = reinterpret_cast<std::uintptr_t>(address);
  return begin <= place && place - begin < bytes;
}

// The held or acquired block whose data contains the address, or null. Data areas do not overlap,
// so at most one does.
BlockRecord* findListedBlockAt(const FileHandle& h, const void* address, FoundIn* foundIn);

// The same, but tries the ends of the held list first: callers mostly return the oldest or the
// newest.
inline BlockRecord* findBlockAt(const FileHandle& h, const void* address, FoundIn* foundIn) {
  *foundIn = FoundIn::heldList;
  const List<BlockRecord>& held = h.blockHeldList;
  if (held.tail != nullptr) {
    if (coversAddress(h, *held.tail, address)) return held.tail;
    if (coversAddress(h, *held.head, address)) return held.head;
  }
  return findListedBlockAt(h, address, foundIn);
}

// The held page buffer whose data begins at the address, or null; likewise.
PageBuffer* findListedBufferAt(const FileHandle& h, const void* address);

inline PageBuffer* findBufferAt(const FileHandle& h, const void* address) {
  const List<PageBuffer>& held = h.pageHeldList;
  if (held.tail == nullptr) return nullptr;
  if (held.tail->data == address) return held.tail;
  if (held.head->data == address) return held.head;
  return findListedBufferAt(h, address);
}

// The record that an address of the caller's belongs to: a block, a page buffer, or none.
struct Held {
  BlockRecord* block = nullptr;
  FoundIn foundIn = FoundIn::nowhere;  // of the block
  PageBuffer* buffer = nullptr;
};

// Looks at records of the mode's own shape first, the write block included.
inline void findHeld(const FileHandle& h, const void* address, Held* held) {
  if (inBlockMode(h)) {
    held->block = bkpblockmatch(h, address, &held->foundIn);
    if (held->block == nullptr) held->buffer = bkpbufmatch(h, address);
  } else {
    held->buffer = bkpbufmatch(h, address);
    if (held->buffer == nullptr) held->block = bkpblockmatch(h, address, &held->foundIn);
  }
}

}  // namespace qz
