// qzpfile dump FILE: pages in hexadecimal and text.
#include <fmt/format.h>
#include <unistd.h>

#include "commands.hpp"
#include "hexdump.hpp"
#include "signals.hpp"
#include "streams.hpp"
#include "terminal.hpp"

namespace qzpfile {

Exit runDump(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineToRead(session, call.first, rawGeometry(call), call.keepGoing);
  File file = File::openToRead(session, source, call.io, Use::somePages);
  refuseAsOutput(file.fd(), call.first);
  const bool colour = wantsColour(STDOUT_FILENO);
  const std::size_t perLine = bytesPerLine();
  const AlignedBuffer bytes(static_cast<std::size_t>(source.geometry.pageSize));
  for (const PageRange& range : pagesOf(call, file)) {
    for (std::int64_t left = range.last - range.first + 1; left > 0; --left) {
      const std::int64_t page = range.last - left + 1;
      const std::int64_t offset = source.geometry.offsetOf(page);
      file.readMany(page, bytes.bytes());  // the pages may be in any order
      file.requireUncut();
      fmt::print("{}page {}, offset {}{}\n", colour ? "\x1b[1m" : "", page, offset,
                 colour ? "\x1b[0m" : "");
      fmt::print("{}", hexDump(bytes.bytes(), offset, perLine));
      checkInterrupt();
    }
  }
  return source.isPartial ? Exit::badData : Exit::good;
}

}  // namespace qzpfile
