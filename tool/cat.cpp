// qzpfile cat FILE: pages to standard output, read in runs past the module's cache.
#include <unistd.h>

#include <algorithm>

#include "commands.hpp"
#include "payload.hpp"
#include "streams.hpp"

namespace qzpfile {

Exit runCat(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  File file = File::openToRead(session, source, call.io, Use::somePages);
  const PageRange range = pagesOf(call, file);
  const std::int64_t pageSize = source.geometry.pageSize;
  Progress progress(call.progress, "cat", (range.last - range.first + 1) * pageSize);
  const AlignedBuffer batch(batchBytes(source.geometry.pageSize));
  const std::int64_t pagesPerBatch = static_cast<std::int64_t>(batch.bytes().size()) / pageSize;
  Output output(STDOUT_FILENO, "standard output");
  PageChecker checker(file, call.keepGoing ? listDamage(call.first) : OnDamage());
  for (std::int64_t page = range.first; page <= range.last; page += pagesPerBatch) {
    const std::int64_t bytes = std::min(pagesPerBatch, range.last - page + 1) * pageSize;
    const auto area = batch.bytes().first(static_cast<std::size_t>(bytes));
    file.readMany(page, area);
    file.requireUncut();
    if (source.geometry.pagesPerGroup != 0) checker.checkMany(page, area);
    output.write(area);
    progress.advance(bytes);
  }
  output.flush();
  return checker.isGood() ? Exit::good : Exit::badData;
}

}  // namespace qzpfile
