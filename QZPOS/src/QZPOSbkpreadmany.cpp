// qzpreadmany: reads a run of pages straight into the caller's memory. The cache is neither asked
// nor changed, and nothing is retried: the caller sees what the file gave.
#include <algorithm>
#include <array>

#include "io.h"
#include "outcome.h"
#include "pages.h"

namespace qz {
namespace {

// The most destinations that one readv takes on Linux.
constexpr std::int32_t kMostDestinations = 1024;

// Pages that one readv can bring: at least one, as a page is no larger than what a call moves.
std::int32_t pagesOfACall(const FileHandle& h) {
  return std::min(kMostDestinations, kMostBytesOfACall / h.pageSize);
}

struct PageRun {
  PageRequest* const* requests;
  std::int64_t startPage;
  std::int32_t count;
};

Status checkReadMany(const FileHandle& h, const PageRun& run, bool contiguous) {
  if (!isOpen(h)) return Status::notOpen;
  if (run.startPage <= 0) return Status::pageOutOfRange;
  if (run.startPage - 1 == h.pageCount) return Status::endOfFile;
  if (run.startPage - 1 > h.pageCount) return Status::pageOutOfRange;
  if (run.count <= 0) return Status::pageOutOfRange;
  const std::int64_t bytes = std::int64_t{run.count} * h.pageSize;
  if (contiguous && bytes > kMostBytesOfACall) return Status::pageOutOfRange;
  return Status::ok;
}

Status readContiguous(FileHandle* h, const PageRun& run) {
  const std::int32_t bytes = run.count * h->pageSize;
  const Transfer transfer =
      readAt(h->fd, run.requests[0]->buffer, bytes, pageOffset(*h, run.startPage));
  if (transfer.result == 0) return Status::endOfFile;
  if (transfer.failed()) {
    h->lastErrno = transfer.error;
    return Status::ioFailed;
  }
  h->nextPage = pageOn(run.startPage, run.count);
  return Status::ok;
}

Status readChunk(FileHandle* h, PageRequest* const* requests, std::int32_t count) {
  std::array<iovec, kMostDestinations> vector;
  const auto pageBytes = static_cast<std::size_t>(h->pageSize);
  std::transform(requests, requests + count, vector.begin(), [&](const PageRequest* request) {
    return iovec{.iov_base = request->buffer, .iov_len = pageBytes};
  });
  const ssize_t result = readv(h->fd, vector.data(), count);
  if (result == 0) return Status::endOfFile;
  if (result < 0) return Status::ioFailed;
  h->nextPage = pageOn(h->nextPage, count);
  return Status::ok;
}

Status readScattered(FileHandle* h, const PageRun& run) {
  if (lseek64(h->fd, pageOffset(*h, run.startPage), SEEK_SET) == -1) return Status::ioFailed;
  h->nextPage = run.startPage;
  for (std::int32_t done = 0; done < run.count;) {
    const std::int32_t chunk = std::min(pagesOfACall(*h), run.count - done);
    const Status status = readChunk(h, run.requests + done, chunk);
    if (status != Status::ok) return status;
    done += chunk;
  }
  return Status::ok;
}

}  // namespace
}  // namespace qz

qz::Status qzpreadmany(qz::FileHandle* h, qz::PageRequest* const* requests, std::int64_t startPage,
                       std::int32_t count, std::uint32_t options, qz::Journal* journal) noexcept {
  using namespace qz;
  const PageRun run = {requests, startPage, count};
  const bool contiguous = (options & kContiguous) != 0;
  Status status = checkReadMany(*h, run, contiguous);
  if (status == Status::ok) {
    status = contiguous ? readContiguous(h, run) : readScattered(h, run);
  }
  return finish(h, status, journal);
}
