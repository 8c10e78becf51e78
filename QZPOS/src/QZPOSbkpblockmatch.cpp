// bkpblockmatch: the block whose data contains an address that the caller returns or
// writes. Blocks on the free list have no holds, so they are not searched.
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
