// Finds buffer records by address and by page without walking their lists.
//
// The lists decide what happens; the index only answers what a walk would have found, so that a
// handle with tens of thousands of buffers is as quick as one with four. A handle with few records
// has no index until it has grown once, because a short walk costs less than a lookup. Without
// memory for an index a handle walks its lists: slower, but with the same results. The index comes
// from the C library's heap, not from the host, and is allocated only where records are made.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qzpos.h"

namespace qz {

// Records under 64-bit keys; a key can have several records. Open addressing, at most half full.
// Neighbouring keys are often used one after the other, so their home slots are neighbours, too: a
// run of keys touches each cache line once.
class RecordMap {
 public:
  RecordMap() = default;
  RecordMap(const RecordMap&) = delete;
  RecordMap& operator=(const RecordMap&) = delete;
  ~RecordMap();

  // Makes room for this many entries. Call it once, before anything else. False: no memory.
  bool reserve(std::size_t entries);

  // There must be room for the entry.
  void insert(std::uint64_t key, void* record);
  // The record must have been inserted under that key.
  void erase(std::uint64_t key, const void* record);

  // The first record under the key for which isWanted(record) is true, or null.
  template <class IsWanted>
  [[nodiscard]] void* find(std::uint64_t key, IsWanted isWanted) const {
    for (std::size_t i = home(key); slots_[i].record != nullptr; i = next(i)) {
      if (slots_[i].key == key && isWanted(slots_[i].record)) return slots_[i].record;
    }
    return nullptr;
  }

  // Calls visit(record) for every record under the key.
  template <class Visit>
  void visit(std::uint64_t key, Visit visit) const {
    for (std::size_t i = home(key); slots_[i].record != nullptr; i = next(i)) {
      if (slots_[i].key == key) visit(slots_[i].record);
    }
  }

 private:
  struct Slot {
    std::uint64_t key;
    void* record;  // null: free
  };

  static constexpr std::size_t kRun = 8;  // keys; two cache lines where pointers have 64 bits

  [[nodiscard]] std::size_t home(std::uint64_t key) const {
    const auto run = static_cast<std::size_t>((key / kRun * 0x9E3779B97F4A7C15U) >> homeShift_);
    return (run & ~(kRun - 1)) | (static_cast<std::size_t>(key) & (kRun - 1));
  }
  [[nodiscard]] std::size_t next(std::size_t i) const { return (i + 1) & (slotCount_ - 1); }

  Slot* slots_ = nullptr;
  std::size_t slotCount_ = 0;  // a power of two
  int homeShift_ = 0;
};

class __attribute__((visibility("hidden"))) RecordIndex {  // as in bkp.h
 public:
  // Makes room for this many records of each shape. False: no memory.
  bool reserve(const FileHandle& h, std::int64_t pageBuffers, std::int64_t blocks);

  // Room for one more record of either shape.
  [[nodiscard]] bool hasRoom() const { return roomForBuffers_ > 0 && roomForBlocks_ > 0; }

  void add(PageBuffer* buffer);
  void add(BlockRecord* block);
  void remove(PageBuffer* buffer);
  void remove(BlockRecord* block);

  // Call it before the block's number changes to `blockNumber`. Number 0 is not indexed.
  void renumber(BlockRecord* block, std::int64_t blockNumber);

  // The page buffer, held or free, whose data begins at the address; or null.
  [[nodiscard]] PageBuffer* bufferAt(const void* address) const {
    return static_cast<PageBuffer*>(
        buffersByAddress_.find(keyOf(address) >> pageShift_, [&](const void* record) {
          return static_cast<const PageBuffer*>(record)->data == address;
        }));
  }

  // Calls visit(block) for every block that may have the address in its data.
  template <class Visit>
  void visitBlocksNear(const void* address, Visit visit) const {
    blocksByAddress_.visit(keyOf(address) >> blockShift_,
                           [&](void* record) { visit(static_cast<BlockRecord*>(record)); });
  }

  // A block of that number without a hold, or null.
  [[nodiscard]] BlockRecord* freeBlock(std::int64_t blockNumber) const;

  // Calls visit(block), which must not renumber it, for every block of that number.
  template <class Visit>
  void visitBlocks(std::int64_t blockNumber, Visit visit) const {
    blocksByNumber_.visit(keyOf(blockNumber),
                          [&](void* record) { visit(static_cast<BlockRecord*>(record)); });
  }

 private:
  // Page buffers are keyed by address >> pageShift_, blocks by each address >> blockShift_ that
  // they cover: at most two, because 1 << blockShift_ is no less than a block's bytes.
  static constexpr std::size_t kKeysOfBlock = 2;

  static std::uint64_t keyOf(const void* address) {
    return reinterpret_cast<std::uintptr_t>(address);
  }
  static std::uint64_t keyOf(std::int64_t blockNumber) {
    return static_cast<std::uint64_t>(blockNumber);
  }
  // Calls visit(key) for each key of the block's addresses.
  template <class Visit>
  void visitAddressKeys(const BlockRecord& block, Visit visit) const;

  RecordMap buffersByAddress_;
  RecordMap blocksByAddress_;
  RecordMap blocksByNumber_;
  std::int64_t roomForBuffers_ = 0;
  std::int64_t roomForBlocks_ = 0;
  std::int32_t blockBytes_ = 0;
  int pageShift_ = 0;   // from the address of a page buffer's data to its key
  int blockShift_ = 0;  // the same for blocks
};

// Rebuilds the handle's index from its lists, if it has enough records for one.
void indexRecords(FileHandle* h);

// Enters a record that has just been made and stands on its list.
template <class Record>
void indexNewRecord(FileHandle* h, Record* record) {
  if (h->index != nullptr && h->index->hasRoom()) {
    h->index->add(record);
  } else {
    indexRecords(h);
  }
}

void freeIndex(FileHandle* h);

}  // namespace qz
