// Buffer records: how they are made, freed, emptied and moved between the handle's lists.
//
// Page mode: every page buffer lies on pageFreeList or pageHeldList, `held` is 1 exactly on the
// latter, and a buffer stands in the page tree exactly while its `pageNumber` is not 0.
// Block mode: every block is the write block or lies on one of the three block lists; `holdCount`
// is 0 exactly on blockFreeList. No record on a free list has anything that the file lacks.
// Records of the other shape can be left over from before a reopen: on their held or acquired
// lists, and once they were written, on their free lists.
#pragma once

#include "bkp.h"
#include "hostcalls.h"
#include "index.h"
#include "list.h"
#include "outcome.h"
#include "pages.h"

namespace qz {

// Free records. How many of them are empty is counted, so that the choice of the one to use next
// does not walk a list that has none.

inline List<PageBuffer>& freeList(FileHandle* h, const PageBuffer* /*shape*/) {
  return h->pageFreeList;
}
inline List<BlockRecord>& freeList(FileHandle* h, const BlockRecord* /*shape*/) {
  return h->blockFreeList;
}

inline std::int32_t& emptyFree(FileHandle* h, const PageBuffer* /*shape*/) {
  return h->emptyFreePages;
}
inline std::int32_t& emptyFree(FileHandle* h, const BlockRecord* /*shape*/) {
  return h->emptyFreeBlocks;
}

inline bool isEmptyRecord(const PageBuffer& buffer) { return buffer.pageNumber == 0; }
inline bool isEmptyRecord(const BlockRecord& block) { return block.blockNumber == 0; }

template <class Record>
void joinFreeHead(FileHandle* h, Record* record) {
  pushHead(freeList(h, record), record);
  emptyFree(h, record) += isEmptyRecord(*record) ? 1 : 0;
}

template <class Record>
void joinFreeTail(FileHandle* h, Record* record) {
  pushTail(freeList(h, record), record);
  emptyFree(h, record) += isEmptyRecord(*record) ? 1 : 0;
}

template <class Record>
void leaveFree(FileHandle* h, Record* record) {
  unlink(freeList(h, record), record);
  emptyFree(h, record) -= isEmptyRecord(*record) ? 1 : 0;
  assert(emptyFree(h, record) >= 0);
}

// Sets the page number of a page buffer; 0: none. Does not change the tree.
inline void setPageNumber(FileHandle* h, PageBuffer* buffer, std::int64_t page) {
  if (buffer->held == 0) {
    h->emptyFreePages += (page == 0 ? 1 : 0) - (isEmptyRecord(*buffer) ? 1 : 0);
  }
  buffer->pageNumber = page;
}

// Sets the number of a free block; 0: none.
inline void setBlockNumber(FileHandle* h, BlockRecord* block, std::int64_t blockNumber) {
  h->emptyFreeBlocks += (blockNumber == 0 ? 1 : 0) - (isEmptyRecord(*block) ? 1 : 0);
  if (h->index != nullptr) h->index->renumber(block, blockNumber);
  block->blockNumber = blockNumber;
}

// A page buffer with its data, on no list and not counted; null without memory.
inline PageBuffer* makePageBuffer(const FileHandle& h, std::uint32_t recordFlags,
                                  Journal* journal) {
  MemoryPool* pool = h.module->modulePool;
  auto* buffer = static_cast<PageBuffer*>(allocate(pool, sizeof(PageBuffer), recordFlags));
  if (buffer == nullptr) return nullptr;
  buffer->data = static_cast<char*>(
      allocate(h.module->bufferPool, static_cast<std::size_t>(h.pageSize), kAsAllocated));
  if (buffer->data == nullptr) {
    freeOrJournal(pool, buffer, journal);
    return nullptr;
  }
  buffer->pageNumber = 0;
  buffer->validBytes = 0;
  buffer->held = 0;
  buffer->extraHolds = 0;
  return buffer;
}

// What a block record lacked when it could not be made.
enum class BlockPart : std::uint8_t { none, record, data, staleBits };

struct NewBlock {
  BlockRecord* block;  // null: not made
  BlockPart missing;
};

// A block record with its data and stale bits, on no list and not counted. Nothing is tried
// while the handle has no block size.
inline NewBlock makeBlock(const FileHandle& h, Journal* journal) {
  if (h.blockBytes < 1) return {nullptr, BlockPart::data};
  MemoryPool* pool = h.module->modulePool;
  MemoryPool* dataPool = h.module->bufferPool;
  auto* block = static_cast<BlockRecord*>(allocate(pool, sizeof(BlockRecord), kZeroFill));
  if (block == nullptr) return {nullptr, BlockPart::record};
  block->data =
      static_cast<char*>(allocate(dataPool, static_cast<std::size_t>(h.blockBytes), kAsAllocated));
  if (block->data == nullptr) {
    freeOrJournal(pool, block, journal);
    return {nullptr, BlockPart::data};
  }
  block->staleBits = static_cast<std::uint8_t*>(
      allocate(pool, static_cast<std::size_t>(h.bitmapBytes), kZeroFill));
  if (block->staleBits == nullptr) {
    freeOrJournal(dataPool, block->data, journal);
    freeOrJournal(pool, block, journal);
    return {nullptr, BlockPart::staleBits};
  }
  return {block, BlockPart::none};
}

// Frees a page buffer that is on no list. False when the host refused to free some of its memory;
// the buffer is not counted any more in either case.
inline bool freeRecord(FileHandle* h, PageBuffer* buffer, Journal* journal) {
  if (h->index != nullptr) h->index->remove(buffer);
  const bool dataFreed = freeOrJournal(h->module->bufferPool, buffer->data, journal);
  const bool recordFreed = freeOrJournal(h->module->modulePool, buffer, journal);
  --h->pageBuffersAllocated;
  return dataFreed && recordFreed;
}

// Frees a block that is on no list, likewise. `lastBlock` does not outlive its block.
inline bool freeRecord(FileHandle* h, BlockRecord* block, Journal* journal) {
  if (h->lastBlock == block) h->lastBlock = nullptr;
  if (h->index != nullptr) h->index->remove(block);
  const bool bitsFreed = freeOrJournal(h->module->modulePool, block->staleBits, journal);
  const bool dataFreed = freeOrJournal(h->module->bufferPool, block->data, journal);
  const bool recordFreed = freeOrJournal(h->module->modulePool, block, journal);
  --h->blocksAllocated;
  return bitsFreed && dataFreed && recordFreed;
}

// Frees the write block. The pages that it collected must have been written or discarded before.
inline bool freeWriteBlock(FileHandle* h, Journal* journal) {
  const bool freed = freeRecord(h, h->writeBlock, journal);
  h->writeBlock = nullptr;
  return freed;
}

// Takes every page buffer out of the tree at once and destroys the tree.
inline void tearDownTree(FileHandle* h) {
  PageTree* tree = h->pageTree;
  if (tree == nullptr) return;
  if (tree->guard != nullptr) tree->guard->guardEnter(tree->guard, 1, 1);
  tree->anchor.root = nullptr;
  if (tree->guard != nullptr) tree->guard->guardLeave(tree->guard);
  tree->destroy(tree);
  h->pageTree = nullptr;
}

// A page-mode handle without a tree can read no page.
inline bool lacksTree(const FileHandle& h) { return h.pageTree == nullptr; }

// Begins the caller's hold of a free page buffer.
inline void hold(FileHandle* h, PageBuffer* buffer) {
  assert(buffer->held == 0);
  leaveFree(h, buffer);
  pushHead(h->pageHeldList, buffer);
  buffer->held = 1;
  ++h->heldCount;
}

// Another hold of a page buffer that the caller already holds.
inline void holdAgain(FileHandle* h, PageBuffer* buffer) {
  ++buffer->extraHolds;
  ++h->heldCount;
}

// Ends a hold that is not the buffer's last. False when it is the last one; that is left alone.
inline bool endExtraHold(FileHandle* h, PageBuffer* buffer) {
  if (buffer->extraHolds == 0) return false;
  --buffer->extraHolds;
  --h->heldCount;
  return true;
}

// Ends a buffer's last hold. The caller then puts it on the free list, at the head or the tail.
inline void unhold(FileHandle* h, PageBuffer* buffer) {
  assert(buffer->held == 1 && h->heldCount > 0);
  unlink(h->pageHeldList, buffer);
  buffer->held = 0;
  --h->heldCount;
}

// Empties a buffer: it loses its page and leaves the tree.
inline void emptyBuffer(FileHandle* h, PageBuffer* buffer) {
  takeOutOfTree(*h, *buffer);
  setPageNumber(h, buffer, 0);
}

// Empties a free buffer, which is then the next to be used.
inline void emptyFreePage(FileHandle* h, PageBuffer* buffer) {
  emptyBuffer(h, buffer);
  buffer->validBytes = 0;
  moveToHead(h->pageFreeList, buffer);
}

// Empties a free block.
inline void emptyFreeBlock(FileHandle* h, BlockRecord* block) {
  setBlockNumber(h, block, 0);
  block->firstPage = 0;
  block->lastPage = 0;
  block->validBytes = 0;
}

// Makes the write block empty, to collect from its start again.
inline void resetWriteBlock(BlockRecord* block) {
  block->firstPage = 0;
  block->lastPage = 0;
  block->dirtyPages = 0;
}

// True from the first collected page until the write-back or the truncate that drops the pages.
inline bool writeBlockBegun(const FileHandle& h) {
  return h.writeBlock != nullptr && h.writeBlock->firstPage != 0;
}

// True while there are pages that a write-back would write.
inline bool hasCollectedPages(const FileHandle& h) {
  return inBlockMode(h) && h.writeBlock != nullptr && h.writeBlock->dirtyPages != 0;
}

// True for a page that was collected and is not yet in the file.
inline bool isCollectedPage(const FileHandle& h, std::int64_t page) {
  return writeBlockBegun(h) && coversPage(*h.writeBlock, page);
}

// Puts a block that the caller is about to hold on the held list, if it is not there.
inline void moveToHeld(FileHandle* h, BlockRecord* block) {
  if (block->holdCount != 0) return;
  leaveFree(h, block);
  pushHead(h->blockHeldList, block);
}

// Ends one hold of a block; true when it was the last and the block left its list.
inline bool endBlockHold(FileHandle* h, BlockRecord* block, FoundIn foundIn) {
  assert(block->holdCount > 0 && h->heldCount > 0 && block != h->writeBlock);
  --block->holdCount;
  --h->heldCount;
  if (block->holdCount != 0) return false;
  unlink(foundIn == FoundIn::acquiredList ? h->blockAcquiredList : h->blockHeldList, block);
  return true;
}

}  // namespace qz
