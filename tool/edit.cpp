#include "edit.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "report.hpp"
#include "signals.hpp"

namespace qzpfile {
namespace {

// The first look chooses the I/O mode. Its lock ends before the file is locked to be changed, so
// nothing else from the look is used.
File lockedFile(Session& session, const std::string& name, const std::optional<RawGeometry>& raw,
                const IoRequest& io) {
  Source look = examine(session, name, raw);
  look.look.reset();
  return File::lockToChange(session, look, io);
}

// Changes only the flag and the header's checksum.
void writeMarked(const PlainFile& file, Header header, bool preparing) {
  header.preparing = preparing;
  file.write(encodeHeader(header), 0);
  file.sync();
}

}  // namespace

void settleChange(const PlainFile& file, const Source& source) {
  if (source.unfinished == Unfinished::committed) {
    applyRecord(file, source.change);
  } else if (source.unfinished == Unfinished::uncommitted) {
    file.truncate(source.geometry.header->fileBytes());
    file.sync();
    writeMarked(file, *source.geometry.header, false);
  }
}

PageEditor::PageEditor(Session& session, const std::string& name,
                       const std::optional<RawGeometry>& raw, const IoRequest& io)
    : source_{.name = name, .geometry = {}, .measured = {}},
      file_(lockedFile(session, name, raw, io)) {
  PlainFile plain = PlainFile::openAgain(file_.fd(), name);
  source_ = inspect(plain, raw);
  if (source_.unfinished != Unfinished::no) {
    settleChange(plain, source_);
    warn(name, fmt::format("an interrupted change was {}",
                           source_.unfinished == Unfinished::committed ? "finished" : "undone"));
    source_ = inspect(plain, raw);
  }
  requireSound(source_);
  before_ = source_.geometry.header;
  header_ = before_;
  if (header_) plain_.emplace(std::move(plain));
  file_.settle(source_, io);
  pageCount_ = file_.pageCount();
}

// The mark must be on disk before any byte after the end of the file.
void PageEditor::prepare() {
  stage_ = Stage::begun;
  if (!before_) return;
  writeMarked(*plain_, *before_, true);
  // Existing checksum pages wait for the record, except those of whole groups that a truncate
  // removes.
  checksums_.emplace(file_, file_.geometry(),
                     groupCount(pageCount_, file_.geometry().pagesPerGroup),
                     [this](std::int64_t group, std::span<const std::byte> page) {
                       const Geometry& geometry = file_.geometry();
                       if (geometry.firstOfGroup(group) > pageCount_) return;
                       kept_.emplace_back(geometry.storedOffset(geometry.storedChecksums(group)),
                                          std::vector<std::byte>(page.begin(), page.end()));
                     });
}

void PageEditor::beginWrite(std::int64_t first, std::optional<std::int64_t> count) {
  appends_ = first > pageCount_;
  if (header_ && header_->version == 1 && !appends_) soundBefore_ = fitsChecksum();
  prepare();
  if (header_ && count) {
    lastPage_ = first + *count - 1;
    // Replaced pages wait in the record, after the appended pages.
    Header longest = *header_;
    longest.payloadBytes = std::max(pageCount_, *lastPage_) * longest.pageSize;
    record_.emplace(*plain_, longest.fileBytes());
  }
}

// Checks the whole file: version 1 has no checksums of single pages.
bool PageEditor::fitsChecksum() {
  std::uint64_t sum = 0;
  for (std::int64_t page = 1; page <= pageCount_; ++page) {
    checkInterrupt();
    sum += pageChecksum(bytesOf(file_.read(page)), page);
  }
  return sum == header_->payloadChecksum;
}

void PageEditor::write(std::int64_t page, std::span<const std::byte> bytes) {
  const auto pageSize = static_cast<std::size_t>(file_.geometry().pageSize);
  const auto given = static_cast<std::int64_t>(bytes.size());
  if (!header_) {
    file_.write(page, bytes);
    pageCount_ = std::max(pageCount_, page);
    return;
  }
  if (lastPage_ && page > *lastPage_) {
    throw Failure(Exit::badData, "standard input grew while it was read", file_.name());
  }
  if (bytes.size() < pageSize) {
    padded_.assign(bytes.begin(), bytes.end());
    padded_.resize(pageSize);
    bytes = padded_;
  }
  const std::uint64_t checksum = pageChecksum(bytes, page);
  std::uint64_t oldChecksum = checksums_->note(page, checksum);
  if (page <= before_->pageCount()) {
    if (header_->version == 1) oldChecksum = pageChecksum(bytesOf(file_.read(page)), page);
    record_->add(file_.geometry().offsetOf(page), bytes);
    if (soundBefore_) header_->payloadChecksum += checksum - oldChecksum;
  } else {
    file_.write(page, bytes);
    header_->payloadChecksum += checksum;
  }
  pageCount_ = std::max(pageCount_, page);
  if (page == pageCount_) header_->payloadBytes = (page - 1) * header_->pageSize + given;
}

void PageEditor::truncate(std::int64_t pages) {
  const std::int64_t pagesBefore = std::exchange(pageCount_, pages);
  if (!header_) {
    prepare();
    file_.truncate(pages);
    return;
  }
  pageCount_ = pagesBefore;
  prepare();
  pageCount_ = pages;
  for (std::int64_t page = pages + 1; page <= pagesBefore; ++page) {
    checkInterrupt();
    const std::uint64_t oldChecksum = header_->version == 1
                                          ? pageChecksum(bytesOf(file_.read(page)), page)
                                          : checksums_->note(page, 0);
    header_->payloadChecksum -= oldChecksum;
  }
  header_->payloadBytes = std::min(header_->payloadBytes, pages * header_->pageSize);
}

void PageEditor::replaceHeader(std::vector<std::byte> area) {
  prepare();
  if (!header_) {
    file_.writeHeader(area);
    return;
  }
  header_ = std::get<Header>(decodeHeader(area));
  headerArea_ = std::move(area);
  headerArea_.resize(static_cast<std::size_t>(header_->headerSize));
}

void PageEditor::finish() {
  file_.flush();
  if (header_) {
    checksums_->finish();
    file_.flush();
    if (!record_) {
      record_.emplace(*plain_, std::max(before_->fileBytes(), header_->fileBytes()));
    }
    for (const auto& [target, bytes] : kept_) record_->add(target, bytes);
    if (headerArea_.empty()) {
      record_->add(0, encodeHeader(*header_));
    } else {
      record_->add(0, headerArea_);
    }
    const ChangeRecord change = record_->commit(header_->fileBytes());
    stage_ = Stage::committed;
    applyRecord(*plain_, change);
  }
  stage_ = Stage::made;
  file_.close();
}

PageEditor::~PageEditor() {
  giveUp();
  file_.keepEmpty();
}

PageEditor::Rest PageEditor::giveUp() noexcept {
  if (stage_ == Stage::made) return Rest::made;
  if (stage_ == Stage::committed) return Rest::committed;
  if (std::exchange(stage_, Stage::none) == Stage::none) return Rest::undone;
  try {
    undo();
    return before_ || appends_ ? Rest::undone : Rest::partial;
  } catch (const std::exception&) {
    // The earlier failure is the one to report. The record may be on the disk although its flush
    // failed, so only the next change can tell whether this one was committed.
    return before_ ? Rest::unknown : Rest::partial;
  }
}

const char* describe(PageEditor::Rest rest) {
  switch (rest) {
    case PageEditor::Rest::undone:
      return "nothing was changed";
    case PageEditor::Rest::partial:
      return "the change may have been made in part";
    case PageEditor::Rest::unknown:
      return "it is not known whether the file has the whole change or nothing of it: the next "
             "change, or qzpfile repair, finishes or undoes it";
    case PageEditor::Rest::committed:
      return "the change is safe after the end of the file: the next change, or qzpfile repair, "
             "finishes it";
    case PageEditor::Rest::made:
      return "the change was made";
  }
  return "";
}

// In other files only appended pages can be removed; replaced pages stay.
void PageEditor::undo() {
  if (!before_) {
    if (appends_) file_.truncate(source_.measured.wholePages);
    file_.flush();
    return;
  }
  file_.truncate(before_->storedPages());  // the module discards pages that it has not written yet
  plain_->truncate(before_->fileBytes());
  plain_->sync();
  writeMarked(*plain_, *before_, false);
}

}  // namespace qzpfile
