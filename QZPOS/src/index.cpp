// The index of buffer records: see index.h.
#include "index.h"

#include <sys/mman.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstdlib>
#include <new>
#include <utility>

namespace qz {
namespace {

// Up to this many records, of both shapes together, a walk is as quick as a lookup.
constexpr std::int64_t kFewRecords = 16;

template <class Record>
void addAll(RecordIndex* index, const List<Record>& list) {
  for (Record* record = list.head; record != nullptr; record = record->next) index->add(record);
}

// A large table is looked up all over: with pages of 4 KiB nearly each lookup would wait for the
// address translation as well. Refused: only slower.
void adviseHugePages(void* memory, std::size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr std::size_t kHugePage = std::size_t{2} << 20U;
  constexpr std::size_t kSmallPage = 4096;
  if (bytes < kHugePage) return;
  // From the start of its first page: the allocator's own words before it are in the same mapping.
  const std::size_t before = reinterpret_cast<std::uintptr_t>(memory) % kSmallPage;
  madvise(static_cast<char*>(memory) - before, before + bytes, MADV_HUGEPAGE);
#endif
}

}  // namespace

RecordMap::~RecordMap() { std::free(slots_); }

bool RecordMap::reserve(std::size_t entries) {
  const std::size_t wanted = std::bit_ceil(std::max(entries * 2, kRun));
  slots_ = static_cast<Slot*>(std::calloc(wanted, sizeof(Slot)));
  if (slots_ == nullptr) return false;
  adviseHugePages(slots_, wanted * sizeof(Slot));
  slotCount_ = wanted;
  homeShift_ = 64 - std::countr_zero(wanted);
  return true;
}

void RecordMap::insert(std::uint64_t key, void* record) {
  std::size_t i = home(key);
  while (slots_[i].record != nullptr) i = next(i);
  slots_[i] = {key, record};
}

void RecordMap::erase(std::uint64_t key, const void* record) {
  std::size_t gap = home(key);
  while (slots_[gap].key != key || slots_[gap].record != record) {
    assert(slots_[gap].record != nullptr);  // it was never entered
    gap = next(gap);
  }
  // An entry behind the gap moves into it when a search that starts at its home passes the gap.
  for (std::size_t i = next(gap); slots_[i].record != nullptr; i = next(i)) {
    const std::size_t fromHome = (i - home(slots_[i].key)) & (slotCount_ - 1);
    const std::size_t fromGap = (i - gap) & (slotCount_ - 1);
    if (fromHome >= fromGap) slots_[std::exchange(gap, i)] = slots_[i];
  }
  slots_[gap].record = nullptr;
}

bool RecordIndex::reserve(const FileHandle& h, std::int64_t pageBuffers, std::int64_t blocks) {
  roomForBuffers_ = pageBuffers;
  roomForBlocks_ = blocks;
  const auto bufferEntries = static_cast<std::size_t>(pageBuffers);
  const auto blockEntries = static_cast<std::size_t>(blocks);
  pageShift_ = static_cast<int>(std::bit_width(static_cast<std::uint32_t>(h.pageSize) / 2));
  blockBytes_ = std::max(h.blockBytes, 1);
  blockShift_ = static_cast<int>(std::bit_width(static_cast<std::uint32_t>(blockBytes_ - 1)));
  return buffersByAddress_.reserve(bufferEntries) &&
         blocksByAddress_.reserve(blockEntries * kKeysOfBlock) &&
         blocksByNumber_.reserve(blockEntries);
}

template <class Visit>
void RecordIndex::visitAddressKeys(const BlockRecord& block, Visit visit) const {
  const std::uint64_t last = keyOf(block.data + blockBytes_ - 1) >> blockShift_;
  for (std::uint64_t i = keyOf(block.data) >> blockShift_; i <= last; ++i) visit(i);
}

void RecordIndex::add(PageBuffer* buffer) {
  assert(roomForBuffers_ > 0);
  --roomForBuffers_;
  buffersByAddress_.insert(keyOf(buffer->data) >> pageShift_, buffer);
}

void RecordIndex::remove(PageBuffer* buffer) {
  ++roomForBuffers_;
  buffersByAddress_.erase(keyOf(buffer->data) >> pageShift_, buffer);
}

void RecordIndex::add(BlockRecord* block) {
  assert(roomForBlocks_ > 0);
  --roomForBlocks_;
  visitAddressKeys(*block, [&](std::uint64_t key) { blocksByAddress_.insert(key, block); });
  if (block->blockNumber != 0) blocksByNumber_.insert(keyOf(block->blockNumber), block);
}

void RecordIndex::remove(BlockRecord* block) {
  ++roomForBlocks_;
  visitAddressKeys(*block, [&](std::uint64_t key) { blocksByAddress_.erase(key, block); });
  if (block->blockNumber != 0) blocksByNumber_.erase(keyOf(block->blockNumber), block);
}

void RecordIndex::renumber(BlockRecord* block, std::int64_t blockNumber) {
  if (block->blockNumber != 0) blocksByNumber_.erase(keyOf(block->blockNumber), block);
  if (blockNumber != 0) blocksByNumber_.insert(keyOf(blockNumber), block);
}

BlockRecord* RecordIndex::freeBlock(std::int64_t blockNumber) const {
  BlockRecord* found = nullptr;
  visitBlocks(blockNumber, [&](BlockRecord* block) {
    if (block->holdCount == 0) found = block;
  });
  return found;
}

void indexRecords(FileHandle* h) {
  freeIndex(h);
  const std::int64_t records = h->pageBuffersAllocated + h->blocksAllocated;
  if (records <= kFewRecords) return;
  void* memory = std::calloc(1, sizeof(RecordIndex));
  if (memory == nullptr) return;
  auto* index = new (memory) RecordIndex;
  h->index = index;
  // With room to grow, so that adding records one by one does not rebuild the index each time.
  const std::int64_t growth = records / 2;
  if (!index->reserve(*h, h->pageBuffersAllocated + growth, h->blocksAllocated + growth)) {
    freeIndex(h);
    return;
  }
  addAll(index, h->pageFreeList);
  addAll(index, h->pageHeldList);
  addAll(index, h->blockFreeList);
  addAll(index, h->blockHeldList);
  addAll(index, h->blockAcquiredList);
  if (h->writeBlock != nullptr) index->add(h->writeBlock);
}

void freeIndex(FileHandle* h) {
  if (h->index == nullptr) return;
  h->index->~RecordIndex();
  std::free(std::exchange(h->index, nullptr));
}

}  // namespace qz
