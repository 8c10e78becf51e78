// qzpfile put FILE PAGE, put --append FILE: pages from standard input.
#include <fmt/format.h>

#include <algorithm>

#include "commands.hpp"
#include "edit.hpp"
#include "signals.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

// A page that is not whole is refused, unless it can end the payload of a file of the tool's own.
void checkShortPage(const File& file, std::int64_t page, std::int64_t bytes) {
  const std::int64_t pageSize = file.geometry().pageSize;
  if (bytes == pageSize || (file.geometry().header && page >= file.pageCount())) {
    return;
  }
  throw Failure(
      Exit::badData,
      fmt::format("standard input ends with {} of a page of {}", bytes, counted(pageSize, "byte")),
      file.name())
      .at(page, file.geometry().offsetOf(page))
      .tryThis("give whole pages, padded with zeros if need be");
}

// Looks at what is known before the first page is written.
void checkBefore(const File& file, std::int64_t first, std::optional<std::int64_t> bytes) {
  if (first > file.pageCount() + 1) {
    throw Failure(
        Exit::usage,
        fmt::format("page {} would leave a gap: the last page is {}", first, file.pageCount()),
        file.name())
        .tryThis("use --append");
  }
  const std::int64_t pageSize = file.geometry().pageSize;
  if (bytes && *bytes % pageSize != 0) {
    checkShortPage(file, first + *bytes / pageSize, *bytes % pageSize);
  }
}

// Writes what the input holds from page *next on, and moves *next behind the last page written.
void writePages(PageEditor& editor, Input& input, Progress& progress, std::int64_t* next) {
  const auto pageSize = static_cast<std::size_t>(editor.file().geometry().pageSize);
  const AlignedBuffer batch(batchBytes(editor.file().geometry().pageSize));
  while (const std::size_t got = input.read(batch.bytes(), progress)) {
    for (std::size_t at = 0; at < got; at += pageSize, ++*next) {
      const auto bytes = batch.bytes().subspan(at, std::min(pageSize, got - at));
      checkShortPage(editor.file(), *next, static_cast<std::int64_t>(bytes.size()));
      editor.write(*next, bytes);
    }
    progress.advance(static_cast<std::int64_t>(got));
  }
}

// After a failure: appended pages go away again; pages that were replaced stay, and the header
// tells what the file now holds. The failure that led here is the one to report.
void cleanUp(PageEditor& editor, bool append, std::int64_t pagesBefore) noexcept {
  try {
    if (append) {
      editor.undoAppend(pagesBefore);
    } else {
      editor.finish();
    }
  } catch (const std::exception&) {
    return;  // the header goes on saying that the file is half changed
  }
}

}  // namespace

Exit runPut(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  Input input("-");
  PageEditor editor(session, source, call.io);
  const std::int64_t pagesBefore = editor.file().pageCount();
  const std::int64_t first = call.append ? pagesBefore + 1 : *call.page;
  checkBefore(editor.file(), first, input.size());
  Progress progress(call.progress, "put", input.size());
  std::int64_t next = first;
  const bool append = first > pagesBefore;
  try {
    writePages(editor, input, progress, &next);
    if (next == first) {
      throw Failure(Exit::noInput, "standard input is empty: nothing was written", call.first)
          .tryThis("give the pages on standard input, as in: qzpfile put FILE PAGE < pages");
    }
    editor.finish();
  } catch (Failure& failure) {
    cleanUp(editor, append, pagesBefore);
    if (append) {
      failure.note("nothing was appended");
    } else if (next > first) {
      failure.note(fmt::format("pages {} to {} were written before that", first, next - 1));
    }
    throw;
  } catch (const Interrupted&) {
    cleanUp(editor, append, pagesBefore);
    throw;
  }
  fmt::print("{}: {} written from page {} on, now {}\n", call.first, counted(next - first, "page"),
             first, counted(editor.file().pageCount(), "page"));
  return Exit::good;
}

}  // namespace qzpfile
