// bkpbufmatch: the held page buffer that begins at an address that the caller returns or
// writes. The tail and the head are tried first: callers mostly return the oldest or the newest.
#include "find.h"

namespace qz {

PageBuffer* bkpbufmatch(const FileHandle& h, const void* address) {
  return h.heldCount == 0 ? nullptr : findBufferAt(h, address);
}

}  // namespace qz
