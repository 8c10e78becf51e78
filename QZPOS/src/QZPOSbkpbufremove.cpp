// qzpbufremove: frees buffers without a hold, and lowers the limit of what the caller may hold.
#include "records.h"

namespace qz {
namespace {

// Takes the free record to use next out of the cache and frees it. ioFailed: a release was
// refused; noBuffer: there is none.
template <class Record>
Status removeOne(FileHandle* h, Journal* journal) {
  auto* record = bkpfindfreebuf<Record>(h);
  if (record == nullptr) return Status::noBuffer;
  leaveFree(h, record);
  const bool freed = freeRecord(h, record, journal);
  if (h->bufferCount > std::numeric_limits<std::int32_t>::min()) --h->bufferCount;
  return freed ? Status::ok : Status::ioFailed;
}

// Blocks go on after a refused release, page buffers end with it.
Status removeMany(FileHandle* h, std::int32_t count, Journal* journal) {
  FirstFailure result;
  for (std::int32_t removed = 0; removed < count; ++removed) {
    const bool blocks = inBlockMode(*h);
    const Status status =
        blocks ? removeOne<BlockRecord>(h, journal) : removeOne<PageBuffer>(h, journal);
    if (status == Status::noBuffer) return status;
    if (status != Status::ok && !blocks) return status;
    result.note(status);
  }
  return result.status();
}

}  // namespace
}  // namespace qz

qz::Status qzpbufremove(qz::FileHandle* h, std::int32_t count, qz::Journal* journal) noexcept {
  using namespace qz;
  const Status status = isOpen(*h) ? removeMany(h, count, journal) : Status::notOpen;
  // A refused release has been journalled with the host's own status.
  if (status != Status::ok && status != Status::ioFailed) bkperror(h, status, journal);
  return keep(h, status);
}
