// qzpfile truncate FILE PAGES: truncates a paged file.
#include <fmt/format.h>

#include "commands.hpp"
#include "edit.hpp"
#include "report.hpp"

namespace qzpfile {

Exit runTruncate(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  PageEditor editor(session, call.first, rawGeometry(call), call.io);
  const std::int64_t pages = *call.page;
  const std::int64_t pagesBefore = editor.pageCount();
  if (pages > pagesBefore) {
    throw Failure(Exit::usage,
                  fmt::format("has {}: truncate cannot lengthen it to {}",
                              counted(pagesBefore, "page"), pages),
                  call.first)
        .tryThis("use put --append to add pages");
  }
  if (pages == 0 && editor.file().geometry().headerSize == 0) {
    throw Failure(Exit::usage, "has no header, so it must keep at least one page", call.first)
        .tryThis("use rm to remove it");
  }
  try {
    editor.truncate(pages);
    editor.finish();
  } catch (Failure& failure) {
    failure.note(describe(editor.giveUp()));
    throw;
  }
  reportResult(call, Exit::good, "truncate", call.first,
               fmt::format("{}, were {}", counted(pages, "page"), pagesBefore),
               {{"pages", pages}, {"pages_before", pagesBefore}});
  return Exit::good;
}

}  // namespace qzpfile
