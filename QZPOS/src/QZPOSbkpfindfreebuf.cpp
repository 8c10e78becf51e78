// bkpfindfreebuf: the free record to use next. Empty records come first. Among those that hold
// pages the one returned or written last is used: a caller who acquires, writes and acquires again
// uses one record over and over, and a scan of blocks does the same, so that neither evicts what
// was cached before. A page-mode read takes the record unused for longest instead
// (QZPOSbkpread.cpp).
#include "records.h"

namespace qz {
namespace {

// The first empty record from the head, else the tail.
template <class Record>
Record* choose(const List<Record>& list, std::int32_t emptyRecords) {
  if (emptyRecords == 0) return list.tail;
  Record* record = list.head;
  while (!isEmptyRecord(*record)) {
    record = record->next;
    assert(record != nullptr);  // the count of empty records was wrong
  }
  return record;
}

}  // namespace

template <>
BlockRecord* bkpfindfreebuf(FileHandle* h) {
  BlockRecord* choice = choose(h->blockFreeList, h->emptyFreeBlocks);
  if (choice == nullptr) return nullptr;
  if (!isEmptyRecord(*choice)) setBlockNumber(h, choice, 0);
  choice->firstPage = 0;
  choice->lastPage = 0;
  return choice;
}

template <>
PageBuffer* bkpfindfreebuf(FileHandle* h) {
  PageBuffer* choice = choose(h->pageFreeList, h->emptyFreePages);
  if (choice == nullptr) return nullptr;
  if (!isEmptyRecord(*choice)) emptyBuffer(h, choice);
  choice->validBytes = 0;
  return choice;
}

}  // namespace qz
