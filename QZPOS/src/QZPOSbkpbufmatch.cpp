// bkpbufmatch: the held page buffer that begins at an address that the caller gives back.
// The tail and the head are tried first: callers tend to give back the oldest or the newest.
#include "bkp.h"
#include "index.h"

namespace qz {

PageBuffer* bkpbufmatch(const FileHandle& h, const void* address) {
  const List<PageBuffer>& held = h.pageHeldList;
  if (h.heldCount == 0 || held.tail == nullptr) return nullptr;
  if (held.tail->data == address) return held.tail;
  if (held.head->data == address) return held.head;
  if (h.index != nullptr) {
    PageBuffer* buffer = h.index->bufferAt(address);
    return buffer != nullptr && buffer->held != 0 ? buffer : nullptr;
  }
  for (PageBuffer* buffer = held.tail->prev; buffer != nullptr; buffer = buffer->prev) {
    if (buffer->data == address) return buffer;
  }
  return nullptr;
}

}  // namespace qz
