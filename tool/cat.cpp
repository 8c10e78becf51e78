// qzpfile cat FILE: writes pages to standard output. It reads runs of pages past the module's
// buffers.
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "commands.hpp"
#include "payload.hpp"
#include "streams.hpp"

namespace qzpfile {

Exit runCat(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineToRead(session, call.first, rawGeometry(call), call.keepGoing);
  File file = File::openToRead(session, source, call.io, Use::somePages);
  refuseAsOutput(file.fd(), call.first);
  const std::vector<PageRange> ranges = pagesOf(call, file);
  const std::int64_t pageSize = source.geometry.pageSize;
  std::int64_t pages = 0;
  for (const PageRange& range : ranges) pages += range.last - range.first + 1;
  Progress progress(call.progress, "cat", pages * pageSize);
  const AlignedBuffer batch(batchBytes(source.geometry.pageSize));
  const std::int64_t pagesPerBatch = static_cast<std::int64_t>(batch.bytes().size()) / pageSize;
  Output output(STDOUT_FILENO, "standard output", call.sparse);
  PageChecker checker(file, call.keepGoing ? listDamage(call.first) : OnDamage());
  for (const PageRange& range : ranges) {
    std::int64_t left = range.last - range.first + 1;
    while (left > 0) {
      const std::int64_t page = range.last - left + 1;
      const std::int64_t count = std::min(pagesPerBatch, left);
      const auto area = batch.bytes().first(static_cast<std::size_t>(count * pageSize));
      file.readMany(page, area);
      file.requireUncut();
      if (source.geometry.pagesPerGroup != 0) checker.checkMany(page, area);
      output.write(area);
      progress.advance(count * pageSize);
      left -= count;
    }
  }
  output.finish();
  return checker.isGood() && !source.isPartial ? Exit::good : Exit::badData;
}

}  // namespace qzpfile
