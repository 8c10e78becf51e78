// qzpclose: writes back, flushes if asked, detaches the file and frees the buffers.
//
// If the flush or the detach fails the remaining buffers stay, and so does the file: the host may
// close again. Whatever the outcome, the handle is not open any more.
#include "records.h"

namespace qz {
namespace {

constexpr HostStatus kHostNotRemoved = 0x80FFE00D;

// A file that was opened for writing and is still empty is not kept. Collected pages count. If
// qzpopen never succeeded, `fileSize` is what the caller set, so 0 does not mean an empty file.
bool isToBeRemoved(const FileHandle& h, std::uint32_t flags) {
  if ((flags & kRemoveFile) != 0) return true;
  if (h.sizeUnknown != 0) return false;
  return h.pageCount == 0 && h.fileSize == 0 && h.writeAccess != noWrite;
}

void writeBackAndFreeWriteBlock(FileHandle* h, FirstFailure* result, Journal* journal) {
  if (h->writeBlock == nullptr) return;
  if (h->writeBlock->dirtyPages != 0) result->note(bkpwriteblock(h, journal));
  if (h->writeBlock == nullptr) return;  // freed by a replaced qzptruncate that closed the file
  result->noteRelease(freeWriteBlock(h, journal));
}

Status detach(FileHandle* h, bool remove, Journal* journal) {
  OpenParameters parameters = {};
  parameters.removeAtClose = remove ? 1 : 0;
  const HostStatus hostStatus = closeHostFile(h->hostFile, &parameters, journal);
  if (hostStatus == 0) return Status::ok;
  return hostStatus == kHostNotRemoved ? Status::notRemoved : Status::ioFailed;
}

void freeBuffers(FileHandle* h, FirstFailure* result, Journal* journal) {
  freeIndex(h);
  result->note(bkpdeletebuffers(h, &h->blockHeldList, journal));
  result->note(bkpdeletebuffers(h, &h->blockFreeList, journal));
  result->note(bkpdeletebuffers(h, &h->blockAcquiredList, journal));
  tearDownTree(h);
  result->note(bkpdeletebuffers(h, &h->pageHeldList, journal));
  result->note(bkpdeletebuffers(h, &h->pageFreeList, journal));
}

// The caller settings, and what is known of the file's geometry, stay.
void reset(FileHandle* h) {
  h->fd = -1;
  h->nextPage = 0;
  h->pageFreeList = {};
  h->pageHeldList = {};
  h->blockFreeList = {};
  h->blockHeldList = {};
  h->blockAcquiredList = {};
  h->lastBlock = nullptr;
  h->hostFile = nullptr;
  h->sizeUnknown = 0;
  h->heldCount = 0;
  h->hostErrorDetail1 = 0;
  h->hostErrorDetail2 = 0;
  h->lastErrno = 0;
  h->firstBlockRead = 0;
  h->blocksAllocated = 0;
  h->pageBuffersAllocated = 0;
  ++h->closes;
}

Status close(FileHandle* h, std::uint32_t flags, Journal* journal) {
  if (h->hostFile == nullptr) {
    bkperror(h, Status::notOpen, journal);
    return Status::notOpen;
  }
  const bool remove = isToBeRemoved(*h, flags);
  FirstFailure result;
  writeBackAndFreeWriteBlock(h, &result, journal);
  if (h->hostFile == nullptr) return result.status();
  if ((h->openOptions & optionFlushAtClose) != 0) {
    const Status flushed = flushThroughTable(h, journal);
    result.note(flushed);
    // A replaced qzpflush may have closed the file.
    if (flushed != Status::ok || h->hostFile == nullptr) return result.status();
  }
  const Status detached = detach(h, remove, journal);
  if (detached != Status::ok) return detached;
  if ((flags & kRemoveFile) != 0) h->pageCount = 0;
  freeBuffers(h, &result, journal);
  reset(h);
  return result.status();
}

}  // namespace
}  // namespace qz

qz::Status qzpclose(qz::FileHandle* h, std::uint32_t flags, qz::Journal* journal) noexcept {
  using namespace qz;
  const Status status = close(h, flags, journal);
  h->stateFlags &= ~std::uint32_t{statePreopened | stateOpen};
  return keep(h, status);
}
