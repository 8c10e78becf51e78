// qzpfile truncate FILE PAGES.
#include <fmt/format.h>

#include "commands.hpp"
#include "edit.hpp"

namespace qzpfile {

Exit runTruncate(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  const std::int64_t pages = *call.page;
  if (pages > source.measured.wholePages) {
    throw Failure(Exit::usage,
                  fmt::format("has {}: it can be cut, not lengthened to {}",
                              counted(source.measured.wholePages, "page"), pages),
                  call.first)
        .tryThis("use put --append to add pages");
  }
  if (pages == 0 && source.geometry.headerSize == 0) {
    throw Failure(Exit::usage, "has no header: without pages there would be no file", call.first)
        .tryThis("use rm to remove it");
  }
  PageEditor editor(session, source, call.io);
  editor.truncate(pages);
  editor.finish();
  fmt::print("{}: {}, were {}\n", call.first, counted(pages, "page"), source.measured.wholePages);
  return Exit::good;
}

}  // namespace qzpfile
