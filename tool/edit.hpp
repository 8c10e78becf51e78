// Changes of a file's pages. Files of the tool's own survive an interruption at any point: the
// change is prepared behind the end of the file, decided by a record, and then carried out;
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

// Opens a file for changing and holds the lock from the first look to the end.
class PageEditor {
 public:
  // Finishes or undoes a change that was interrupted.
  PageEditor(Session& session, const std::string& name, const std::optional<RawGeometry>& raw,
             const IoRequest& io);
  PageEditor(const PageEditor&) = delete;
  PageEditor& operator=(const PageEditor&) = delete;
  // Undoes a change that was begun and not decided: a file of the tool's own is left as it was, of
  // others appended pages are taken away. What fails then is left to the next change.
  ~PageEditor();

  const File& file() const { return file_; }
  // The file as it was before the change.
  const Source& source() const { return source_; }
  std::int64_t pageCount() const { return pageCount_; }
  // False for files that are changed in place.
  bool isOwn() const { return before_.has_value(); }
  // True once the change is sure to be carried out, by the next change if not by this one.
  bool isDecided() const { return decided_; }

  // Begins to write pages from `first` on, in ascending order: `count` of them, which only a write
  // behind the last page may leave open.
  void beginWrite(std::int64_t first, std::optional<std::int64_t> count);
  // Fewer bytes than a page are only for the last page of a file of the tool's own: they end its
  // payload.
  void write(std::int64_t page, std::span<const std::byte> bytes);
  // Cuts the file to `pages` pages.
  void truncate(std::int64_t pages);
  // Replaces the header area; what is not given becomes zeros.
  void replaceHeader(std::vector<std::byte> area);
  // Decides the change and carries it out, all of it on disk, and closes the file.
  void finish();

 private:
  void prepare();
  bool fitsChecksum();
  void undo();

  Source source_;
  File file_;
  std::optional<PlainFile> plain_;  // files of the tool's own, as the next
  std::optional<Header> before_;
  std::optional<Header> header_;
  std::int64_t pageCount_ = 0;
  std::optional<std::int64_t> lastPage_;  // that this change may write
  bool begun_ = false;
  bool decided_ = false;
  bool appends_ = false;     // behind the last page, and nothing else
  bool soundBefore_ = true;  // version 1: the payload checksum fitted
  std::optional<ChecksumWriter> checksums_;
  std::optional<RecordWriter> record_;
  std::vector<std::pair<std::int64_t, std::vector<std::byte>>> kept_;  // targets and pieces
  std::vector<std::byte> headerArea_;  // of a header that is replaced
  std::vector<std::byte> padded_;      // a short page
};

// Finishes or undoes the interrupted change of a locked file of the tool's own.
void settleChange(const PlainFile& file, const Source& source);

}  // namespace qzpfile
