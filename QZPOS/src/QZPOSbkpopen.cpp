// qzpopen: defaults, physical open, geometry, buffers. Whatever fails after the physical open
// closes the file again, through the operation table.
#include "hostcalls.h"
#include "io.h"
#include "outcome.h"
#include "pages.h"

namespace qz {
namespace {

// A handle that is attached without being open or pre-opened is left from a close, or from a
// delete, that failed.
Status checkOpen(const FileHandle& h) {
  if (isOpen(h)) return Status::alreadyOpen;
  if (h.hostFile != nullptr && !isPreopened(h)) return Status::alreadyOpen;
  if (h.pageSize < 0 || h.headerSize < 0 || h.pageCount < 0 || h.fileSize < 0) {
    return Status::misfit;
  }
  if (h.pageSize > kMostBytesOfACall) return Status::misfit;
  return Status::ok;
}

void fillDefaults(FileHandle* h) {
  const bool keepsCount = (h->openOptions & optionKeepBufferCount) != 0;
  const bool usesBuffer = h->readAccess != noRead || h->writeAccess == rewritePages ||
                          (h->writeAccess != noWrite && !keepsCount);
  if (h->bufferCount < 1 && usesBuffer) h->bufferCount = 1;
  if (h->sequentialStartPage == 0) h->sequentialStartPage = 1;
}

void askPageSizes(FileHandle* h, Journal* journal) {
  if (h->hostPageSize == 0) infoThroughTable(h, journal);
}

// Takes the geometry from the file where the caller left it open. False when the file is not
// the header and whole pages.
bool settleGeometry(FileHandle* h, std::int64_t currentSize) {
  if (h->fileSize == 0) h->fileSize = currentSize;
  if (h->pageSize == 0) {
    h->pageSize = h->fileSize > h->defaultPageSize ? h->defaultPageSize : h->minPageSize;
  }
  if (h->pageSize < 1) return false;
  if (h->pageCount == 0) h->pageCount = (h->fileSize - h->headerSize) / h->pageSize;
  return h->pageCount >= 0 &&
         wholeFileBytes(h->pageCount, h->pageSize, h->headerSize) == h->fileSize;
}

// The file stays as it is: a page count above 0 keeps the close from taking it for empty.
Status refuseMisfit(FileHandle* h, Journal* journal) {
  h->status = Status::misfit;
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  h->pageCount = std::clamp<std::int64_t>(h->pageCount, 0, most - 1) + 1;
  closeThroughTable(h, 0, journal);
  return fail(h, Status::misfit, journal);
}

// Cuts a file that is created or replaced to nothing.
Status replaceContents(FileHandle* h, Journal* journal) {
  if (ftruncate64(h->fd, 0) == -1) {
    const std::int32_t error = errno;
    h->lastErrno = error;
    // The open zeroed `fileSize`, but the file has what it had.
    h->sizeUnknown = 1;
    closeThroughTable(h, kRemoveFile, journal);
    h->lastErrno = error;
    return fail(h, Status::notTruncated, journal);
  }
  h->fileSize = 0;
  h->headerSize = 0;
  // After a pre-open in another mode it may be what the caller read from the old header.
  h->pageCount = 0;
  if (h->pageSize == 0) {
    askPageSizes(h, journal);
    h->pageSize = h->defaultPageSize;
  }
  return Status::ok;
}

Status openBuffers(FileHandle* h, Journal* journal) {
  const Status status = bkpbuffersetup(h, OpenKind::open, journal);
  if (status == Status::ok) {
    h->stateFlags |= stateOpen;
    h->sizeUnknown = 0;
    return status;
  }
  closeThroughTable(h, h->openMode == openOrKeep ? 0 : kRemoveFile, journal);
  // A replaced qzpclose may have left the file attached. The next open must be refused then: it may
  // have another page size than the buffers that exist.
  h->stateFlags &= ~std::uint32_t{statePreopened};
  return keep(h, status);
}

}  // namespace
}  // namespace qz

qz::Status qzpopen(qz::FileHandle* h, qz::Journal* journal) noexcept {
  using namespace qz;
  const Status refused = checkOpen(*h);
  if (refused != Status::ok) return fail(h, refused, journal);
  fillDefaults(h);
  h->status = Status::ok;
  if (!isPreopened(*h)) {
    const AccessHints hints = {h->readAccess, h->writeAccess, h->openOptions};
    const Status opened = bkpdoopen(h, OpenKind::open, h->openMode, hints, journal);
    if (opened != Status::ok) return keep(h, opened);
  }
  const std::int64_t currentSize = h->hostFile->fileInfo->size;
  if (h->openMode == createOrReplace) {
    const Status replaced = replaceContents(h, journal);
    if (replaced != Status::ok) return replaced;
  } else {
    askPageSizes(h, journal);
    if (!settleGeometry(h, currentSize)) return refuseMisfit(h, journal);
  }
  return openBuffers(h, journal);
}
