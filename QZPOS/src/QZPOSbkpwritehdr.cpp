// qzpwritehdr: writes the file's header, straight to the file. A header longer than `headerSize`
// runs over the first pages; cached and held copies of them stay as they were.
#include <algorithm>

#include "hostcalls.h"
#include "io.h"
#include "outcome.h"
#include "pages.h"

namespace qz {
namespace {

Status checkWriteHeader(const FileHandle& h, const std::int32_t* length) {
  if (!isOpen(h)) return Status::notOpen;
  if (h.writeAccess == noWrite) return Status::notWritable;
  if (*length < 0) return Status::badArgument;
  return Status::ok;
}

struct HeaderWrite {
  Status staged;  // noMemory: nothing was tried
  Transfer transfer;
};

// A header shorter than its area is written with zeros behind it. *length becomes the area's.
HeaderWrite writePadded(FileHandle* h, const void* header, std::int32_t* length, Journal* journal) {
  MemoryPool* pool = h->module->bufferPool;
  // A longer header cannot be written in one piece.
  if (h->headerSize > kMostBytesOfACall) {
    *length = 0;
    return {Status::noMemory, {}};
  }
  void* staging = allocate(pool, static_cast<std::size_t>(h->headerSize), kZeroFill);
  if (staging == nullptr) {
    h->lastErrno = errno;
    *length = 0;
    return {Status::noMemory, {}};
  }
  std::copy_n(static_cast<const char*>(header), *length, static_cast<char*>(staging));
  *length = static_cast<std::int32_t>(h->headerSize);
  const Transfer transfer = writeAt(h->fd, staging, *length, 0);
  const HostStatus released = freeMemory(pool, staging);
  if (released != 0) bkperror(h, Status{released}, journal);
  return {Status::ok, transfer};
}

// *length becomes what reached the file. An error that means no space cuts the file to no pages; a
// partial write does not.
Status judgeHeader(FileHandle* h, const Transfer& transfer, std::int32_t* length,
                   Journal* journal) {
  const Status status = judgeWrite(transfer, *length);
  if (status == Status::ok) {
    h->fileSize = std::max<std::int64_t>(h->fileSize, *length);
    h->nextPage = 1;
    return status;
  }
  *length = static_cast<std::int32_t>(transfer.result);
  if (transfer.failed()) {
    h->lastErrno = transfer.error;
    if (meansNoSpace(transfer.error)) truncateThroughTable(h, 0, journal);
  }
  return status;
}

Status writeHeader(FileHandle* h, const void* header, std::int32_t* length, Journal* journal) {
  h->lastErrno = 0;
  const Status refused = checkWriteHeader(*h, length);
  if (refused != Status::ok) return refused;
  HeaderWrite write = {Status::ok, {}};
  if (*length < h->headerSize) {
    write = writePadded(h, header, length, journal);
  } else {
    write.transfer = writeAt(h->fd, header, *length, 0);
  }
  if (write.staged != Status::ok) return write.staged;
  return judgeHeader(h, write.transfer, length, journal);
}

}  // namespace
}  // namespace qz

qz::Status qzpwritehdr(qz::FileHandle* h, const void* header, std::int32_t* lengthInOut,
                       qz::Journal* journal) noexcept {
  return qz::finish(h, qz::writeHeader(h, header, lengthInOut, journal), journal);
}
