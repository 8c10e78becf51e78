#include "edit.hpp"

#include <algorithm>

#include "signals.hpp"

namespace qzpfile {

// The header is read first: once the file is open for changing, nobody else may open it.
PageEditor::PageEditor(Session& session, const Source& source, const IoRequest& io)
    : headerArea_(source.geometry.header ? readHeader(session, source) : std::vector<std::byte>()),
      file_(File::openToChange(session, source, io)),
      before_(source.geometry.header),
      header_(source.geometry.header) {}

void PageEditor::write(std::int64_t page, std::span<const std::byte> bytes) {
  begin();
  const auto pageSize = static_cast<std::size_t>(file_.geometry().pageSize);
  const auto given = static_cast<std::int64_t>(bytes.size());
  if (bytes.size() < pageSize) {
    padded_.assign(bytes.begin(), bytes.end());
    padded_.resize(pageSize);
    bytes = padded_;
  }
  std::uint64_t oldShare = 0;
  if (header_ && page <= file_.pageCount()) {
    oldShare = pageChecksum(bytesOf(file_.read(page)), page);
  }
  file_.write(page, bytes);
  if (header_) {
    header_->payloadChecksum += pageChecksum(bytes, page) - oldShare;
    if (page == file_.pageCount()) {
      header_->payloadBytes = (page - 1) * header_->pageSize + given;
    }
  }
}

void PageEditor::truncate(std::int64_t pages) {
  if (header_) {
    for (std::int64_t page = pages + 1; page <= file_.pageCount(); ++page) {
      checkInterrupt();
      header_->payloadChecksum -= pageChecksum(bytesOf(file_.read(page)), page);
    }
    header_->payloadBytes = std::min(header_->payloadBytes, pages * header_->pageSize);
  }
  begin();
  file_.truncate(pages);
}

void PageEditor::finish() {
  if (!begun_) return;
  file_.flush();
  if (header_) {
    header_->changing = false;
    writeHeader();
  }
  file_.finish();
  begun_ = false;
}

void PageEditor::undoAppend(std::int64_t pages) {
  file_.truncate(pages);
  header_ = before_;
  finish();
}

// The mark must be on disk before the first page is.
void PageEditor::begin() {
  if (begun_) return;
  begun_ = true;
  if (header_) {
    header_->changing = true;
    writeHeader();
    file_.flush();
  }
}

void PageEditor::writeHeader() {
  std::ranges::copy(encodeHeader(*header_), headerArea_.begin());
  file_.writeHeader(headerArea_);
}

}  // namespace qzpfile
