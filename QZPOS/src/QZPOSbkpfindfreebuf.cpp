// bkpfindfreebuf: the free record to use next. Empty records come first; among those that hold
// pages the one released last goes, so that a scan does not sweep out what was there before it.
#include "records.h"

namespace qz {

template <>
BlockRecord* bkpfindfreebuf(FileHandle* h) {
  BlockRecord* choice = h->blockFreeList.head;
  while (choice != nullptr && choice->blockNumber != 0 && choice->next != nullptr) {
    choice = choice->next;
  }
  if (choice == nullptr) return nullptr;
  choice->blockNumber = 0;
  choice->firstPage = 0;
  choice->lastPage = 0;
  return choice;
}

template <>
PageBuffer* bkpfindfreebuf(FileHandle* h) {
  PageBuffer* choice = h->pageFreeList.head;
  while (choice != nullptr && choice->pageNumber != 0 && choice->next != nullptr) {
    choice = choice->next;
  }
  if (choice == nullptr) return nullptr;
  if (choice->pageNumber != 0) forgetPage(*h, choice);
  choice->validBytes = 0;
  return choice;
}

}  // namespace qz
