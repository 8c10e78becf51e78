// qzpflush: makes everything written so far durable. The collected pages are written first. Even if
// that fails, fsync is called: it makes durable what reached the file before.
#include "io.h"
#include "records.h"

namespace qz {
namespace {

// Repeats an fsync that a signal interrupted, and one that timed out once. Returns 0 or the errno.
std::int32_t synchronise(int fd) {
  bool timedOut = false;
  while (fsync(fd) == -1) {
    const std::int32_t error = errno;
    if (error == EINTR) continue;
    if (error != ETIMEDOUT || timedOut) return error;
    timedOut = true;
  }
  return 0;
}

Status flush(FileHandle* h, Journal* journal) {
  if (!isOpen(*h)) return Status::notOpen;
  if (h->writeAccess == noWrite) return Status::notWritable;
  const Status written = hasCollectedPages(*h) ? bkpwriteblock(h, journal) : Status::ok;
  const std::int32_t error = synchronise(h->fd);
  if (error == 0) return written;
  h->lastErrno = error;
  return statusOfError(error);
}

}  // namespace
}  // namespace qz

qz::Status qzpflush(qz::FileHandle* h, qz::Journal* journal) noexcept {
  return qz::finish(h, qz::flush(h, journal), journal);
}
