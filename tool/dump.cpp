// qzpfile dump FILE: pages in hexadecimal and text.
#include <fmt/format.h>
#include <unistd.h>

#include "commands.hpp"
#include "hexdump.hpp"
#include "signals.hpp"
#include "terminal.hpp"

namespace qzpfile {

Exit runDump(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  File file = File::openToRead(session, source, call.io, Use::somePages);
  const PageRange range = pagesOf(call, file);
  const bool colour = wantsColour(STDOUT_FILENO);
  const std::size_t perLine = bytesPerLine();
  for (std::int64_t page = range.first; page <= range.last; ++page) {
    const qz::PageHold hold = file.read(page);
    const std::int64_t offset = source.geometry.offsetOf(page);
    fmt::print("{}page {}, offset {}{}\n", colour ? "\x1b[1m" : "", page, offset,
               colour ? "\x1b[0m" : "");
    fmt::print("{}", hexDump(bytesOf(hold), offset, perLine));
    checkInterrupt();
  }
  return Exit::good;
}

}  // namespace qzpfile
