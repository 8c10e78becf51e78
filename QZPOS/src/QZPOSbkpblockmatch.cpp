// bkpblockmatch: the block whose data contains an address that the caller gives back. Blocks on
// the free list have nothing handed out and are not searched.
#include "find.h"

namespace qz {

BlockRecord* bkpblockmatch(const FileHandle& h, const void* address, FoundIn* foundIn) {
  if (h.writeBlock != nullptr && coversAddress(h, *h.writeBlock, address)) {
    *foundIn = FoundIn::writeBlock;
    return h.writeBlock;
  }
  return findBlockAt(h, address, foundIn);
}

}  // namespace qz
