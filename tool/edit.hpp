// Changes of a file's pages that keep the header of the tool's own files true to them. While a
// change goes on, the header says so: a program that dies in the middle leaves a file that is
// known to be half changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "paged.hpp"

namespace qzpfile {

class PageEditor {
 public:
  // Opens the file for changing.
  PageEditor(Session& session, const Source& source, const IoRequest& io);
  PageEditor(const PageEditor&) = delete;
  PageEditor& operator=(const PageEditor&) = delete;
  ~PageEditor() { file_.keepEmpty(); }

  File& file() { return file_; }

  // Writes an existing page or the one after the last. Fewer bytes than a page are only for the
  // last page of a file of the tool's own: they end its payload.
  void write(std::int64_t page, std::span<const std::byte> bytes);
  // Cuts the file to `pages` pages.
  void truncate(std::int64_t pages);
  // Completes the header and puts everything on disk. Once nothing was begun, does nothing.
  void finish();
  // Cuts the file back to its first `pages` pages, none of which was written, with its old header.
  void undoAppend(std::int64_t pages);

 private:
  void begin();
  void writeHeader();

  std::vector<std::byte> headerArea_;  // empty for foreign files
  File file_;
  std::optional<Header> before_;
  std::optional<Header> header_;
  std::vector<std::byte> padded_;  // a short page
  bool begun_ = false;
};

}  // namespace qzpfile
