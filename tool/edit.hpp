// Changes to a file's pages. A packed file survives an interruption at any point: the change is
// prepared after the end of the file, committed by a record, and then carried out.
// docs/file-format.md says what is on disk at each moment. Other files are changed in place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "checksums.hpp"
#include "paged.hpp"

namespace qzpfile {

// Opens a file to change it and holds a lock from the first look to the end.
class PageEditor {
 public:
  // Finishes or undoes a change that was interrupted.
  PageEditor(Session& session, const std::string& name, const std::optional<RawGeometry>& raw,
             const IoRequest& io);
  PageEditor(const PageEditor&) = delete;
  PageEditor& operator=(const PageEditor&) = delete;
  ~PageEditor();  // gives up a change that is not finished

  const File& file() const { return file_; }
  // The file as it was before the change.
  const Source& source() const { return source_; }
  std::int64_t pageCount() const { return pageCount_; }
  // False for files that are changed in place.
  bool isOwn() const { return before_.has_value(); }

  // Begins a write of `count` pages from `first` on, in ascending order. `count` may be nothing
  // only if the pages are appended.
  void beginWrite(std::int64_t first, std::optional<std::int64_t> count);
  // A page may be short only if it is the last page of a packed file; it ends the payload.
  void write(std::int64_t page, std::span<const std::byte> bytes);
  // Truncates the file to `pages` pages.
  void truncate(std::int64_t pages);
  // Replaces the header area; missing bytes become zeros.
  void replaceHeader(std::vector<std::byte> area);
  // Commits the change, carries it out, flushes and closes the file.
  void finish();

  // What becomes of a change that failed.
  enum class Rest {
    undone,     // or nothing was begun
    partial,    // of a file that is changed in place: what was written stays
    unknown,    // of a packed file: undoing it failed; the next change finishes or undoes it
    committed,  // of a packed file: the next change finishes it
    made,       // only the close failed
  };
  // After a failure: undoes a change that was begun and not committed. A packed file is restored;
  // in other files appended pages are removed.
  Rest giveUp() noexcept;

 private:
  void prepare();
  bool fitsChecksum();
  void undo();

  Source source_;
  File file_;
  std::optional<PlainFile> plain_;  // packed files only, like the next two
  std::optional<Header> before_;
  std::optional<Header> header_;
  std::int64_t pageCount_ = 0;
  std::optional<std::int64_t> lastPage_;  // the last page that this change may write
  enum class Stage { none, begun, committed, made } stage_ = Stage::none;
  bool appends_ = false;     // only after the last page
  bool soundBefore_ = true;  // version 1: the payload checksum matched
  std::optional<ChecksumWriter> checksums_;
  std::optional<RecordWriter> record_;
  std::vector<std::pair<std::int64_t, std::vector<std::byte>>> kept_;  // targets and pieces
  std::vector<std::byte> headerArea_;                                  // the new header
  std::vector<std::byte> padded_;                                      // a short page
};

// For Failure::note(): what the file has of a change that failed.
const char* describe(PageEditor::Rest rest);

// Finishes or undoes the interrupted change of a locked packed file.
void settleChange(const PlainFile& file, const Source& source);

}  // namespace qzpfile
