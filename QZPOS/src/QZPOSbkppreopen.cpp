// qzppreopen: opens the file and reads its header, so that the host can settle the caller
// settings from it. The file stays open for qzpopen.
#include <cstring>

#include "hostcalls.h"
#include "io.h"
#include "outcome.h"

namespace qz {
namespace {

Status checkPreopen(const FileHandle& h, const std::int32_t* length) {
  if (h.hostFile != nullptr) return Status::alreadyOpen;
  if (h.openMode == createOrReplace) return Status::noHeaderYet;
  if (*length < 0) return Status::badArgument;
  return Status::ok;
}

// Under direct I/O a header that is wanted in unaligned memory is read into an aligned buffer of
// the pool, whose size is a multiple of 4096 and always larger than `length`, and copied.
Transfer readBounced(const FileHandle& h, void* buffer, std::size_t length) {
  MemoryPool* pool = h.module->bufferPool;
  const std::size_t bytes = length / kDirectAlignment * kDirectAlignment + kDirectAlignment;
  void* bounce = allocate(pool, bytes, kZeroFill);
  if (bounce == nullptr) return {.result = -1, .error = errno};
  const Transfer transfer = transferred(read(h.fd, bounce, length));
  std::memcpy(buffer, bounce, length);
  freeMemory(pool, bounce);
  return transfer;
}

Transfer readHeader(const FileHandle& h, void* buffer, std::size_t length) {
  if (usesDirectIo(h) && !isAligned(buffer)) return readBounced(h, buffer, length);
  return transferred(read(h.fd, buffer, length));
}

// A header that is not there ends the pre-open: the file is detached again.
void detach(FileHandle* h, Journal* journal) {
  OpenParameters parameters = {};
  closeHostFile(h->hostFile, &parameters, journal);
  h->hostFile = nullptr;
  h->fd = -1;
  h->stateFlags &= ~std::uint32_t{statePreopened};
  h->sizeUnknown = 0;
}

}  // namespace
}  // namespace qz

qz::Status qzppreopen(qz::FileHandle* h, void* buffer, std::int32_t* lengthInOut,
                      qz::Journal* journal) noexcept {
  using namespace qz;
  const Status refused = checkPreopen(*h, lengthInOut);
  if (refused != Status::ok) return fail(h, refused, journal);

  const AccessHints hints = {h->readAccess, h->writeAccess, h->openOptions};
  const Status opened = bkpdoopen(h, OpenKind::open, h->openMode, hints, journal);
  if (opened != Status::ok) return keep(h, opened);
  h->stateFlags |= statePreopened;
  h->sizeUnknown = 1;

  const std::int32_t length = *lengthInOut;
  const Transfer header = readHeader(*h, buffer, static_cast<std::size_t>(length));
  if (header.result >= length) return keep(h, Status::ok);
  if (header.failed()) h->lastErrno = header.error;
  journalWithName(journal, Status::shortHeaderReport, *h);
  detach(h, journal);
  *lengthInOut = static_cast<std::int32_t>(header.result);
  return fail(h, Status::shorterThanHeader, journal);
}
