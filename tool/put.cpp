// qzpfile put FILE PAGE, put --append FILE: writes pages from standard input.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "commands.hpp"
#include "edit.hpp"
#include "newfile.hpp"
#include "report.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

// Throws for a partial page, unless it can end the payload of a packed file.
void checkShortPage(const PageEditor& editor, std::int64_t page, std::int64_t bytes) {
  const File& file = editor.file();
  const std::int64_t pageSize = file.geometry().pageSize;
  if (bytes == pageSize || (editor.isOwn() && page >= editor.pageCount())) {
    return;
  }
  throw Failure(Exit::badData,
                fmt::format("standard input ends with a partial page: {} of {}", bytes,
                            counted(pageSize, "byte")),
                file.name())
      .at(page, file.geometry().offsetOf(page))
      .tryThis("give whole pages, padded with zeros if necessary");
}

// Checks what is known before the first page is written.
void checkBefore(const PageEditor& editor, std::int64_t first, std::optional<std::int64_t> bytes) {
  if (first > editor.pageCount() + 1) {
    throw Failure(
        Exit::usage,
        fmt::format("page {} would leave a gap: the last page is {}", first, editor.pageCount()),
        editor.file().name())
        .tryThis("use --append");
  }
  const std::int64_t pageSize = editor.file().geometry().pageSize;
  if (bytes && *bytes % pageSize != 0) {
    checkShortPage(editor, first + *bytes / pageSize, *bytes % pageSize);
  }
}

// A file that is its own input would grow until the disk is full.
void refuseItself(const Input& input, const PageEditor& editor) {
  if (isSameFile(input.fd(), editor.file().fd())) {
    throw Failure(Exit::usage, "standard input is the file itself", editor.file().name())
        .tryThis("write the pages to another file first");
  }
}

// Writes the input from page *next on, and sets *next to the page after the last one written.
void writePages(PageEditor& editor, Input& input, Progress& progress, std::int64_t* next) {
  const auto pageSize = static_cast<std::size_t>(editor.file().geometry().pageSize);
  const AlignedBuffer batch(batchBytes(editor.file().geometry().pageSize));
  while (const std::size_t got = input.read(batch.bytes(), progress)) {
    for (std::size_t at = 0; at < got; at += pageSize, ++*next) {
      const auto bytes = batch.bytes().subspan(at, std::min(pageSize, got - at));
      checkShortPage(editor, *next, static_cast<std::int64_t>(bytes.size()));
      editor.write(*next, bytes);
    }
    progress.advance(static_cast<std::int64_t>(got));
  }
}

std::optional<std::int64_t> pagesIn(std::optional<std::int64_t> bytes, std::int64_t pageSize) {
  if (!bytes) return std::nullopt;
  return *bytes / pageSize + (*bytes % pageSize == 0 ? 0 : 1);
}

// What a failed put has or has not changed.
std::string outcome(PageEditor& editor, bool appends, std::int64_t first, std::int64_t next) {
  const PageEditor::Rest rest = editor.giveUp();
  if (appends && rest == PageEditor::Rest::undone) return "nothing was appended";
  if (appends && rest == PageEditor::Rest::partial) return "pages may have been appended";
  if (editor.isOwn() || appends) return describe(rest);
  if (next == first) return {};
  return fmt::format("{} {} written before that", pagesBetween(first, next - 1),
                     next - first == 1 ? "was" : "were");
}

}  // namespace

Exit runPut(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  Input input("-");
  PageEditor editor(session, call.first, rawGeometry(call), call.io);
  const std::int64_t pagesBefore = editor.pageCount();
  if (pagesBefore == std::numeric_limits<std::int64_t>::max()) {
    throw systemFailure(Purpose::output, "cannot grow", call.first, EFBIG);
  }
  const std::int64_t first = call.append ? pagesBefore + 1 : *call.page;
  const bool appends = first > pagesBefore;
  refuseItself(input, editor);
  checkBefore(editor, first, input.size());
  Progress progress(call.progress, "put", input.size());
  std::int64_t next = first;
  try {
    // Replaced pages are stored after appended ones, so the number of pages must be known.
    if (editor.isOwn() && !appends) input.makeSizeKnown(folderOf(call.first), progress);
    checkBefore(editor, first, input.size());
    const std::optional<std::int64_t> count =
        pagesIn(input.size(), editor.file().geometry().pageSize);
    editor.beginWrite(first, count);
    writePages(editor, input, progress, &next);
    if (next == first) {
      throw Failure(Exit::noInput, "standard input is empty: nothing was written", call.first)
          .tryThis("give the pages on standard input, as in: qzpfile put FILE PAGE < pages");
    }
    editor.finish();
  } catch (Failure& failure) {
    failure.note(outcome(editor, appends, first, next));
    throw;
  }
  progress.end();
  reportResult(
      call, Exit::good, "put", call.first,
      fmt::format("{} written from page {} on, now {}", counted(next - first, "page"), first,
                  counted(editor.pageCount(), "page")),
      {{"first_page", first}, {"pages_written", next - first}, {"pages", editor.pageCount()}});
  return Exit::good;
}

}  // namespace qzpfile
