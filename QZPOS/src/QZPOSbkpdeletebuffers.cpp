// bkpdeletebuffers: frees every record of a list. A refused release does not stop the rest.
#include "records.h"

namespace qz {

template <class Record>
Status bkpdeletebuffers(FileHandle* h, List<Record>* list, Journal* journal) {
  FirstFailure result;
  while (!isEmpty(*list)) {
    Record* record = list->head;
    if (list == &freeList(h, record)) {
      leaveFree(h, record);
    } else {
      unlink(*list, record);
    }
    result.noteRelease(freeRecord(h, record, journal));
  }
  return result.status();
}

template Status bkpdeletebuffers(FileHandle* h, List<PageBuffer>* list, Journal* journal);
template Status bkpdeletebuffers(FileHandle* h, List<BlockRecord>* list, Journal* journal);

}  // namespace qz
