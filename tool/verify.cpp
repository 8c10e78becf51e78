// qzpfile verify FILE: checks that a file has whole pages that match their checksums; with
// --every-mode, that every I/O mode gives the same bytes.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "commands.hpp"
#include "json.hpp"
#include "map.hpp"
#include "payload.hpp"
#include "terminal.hpp"
#include "text.hpp"
#include "walcheck.hpp"

namespace qzpfile {
namespace {

struct Finding {
  // "not_whole", "changing", "unreadable", "differs", "page" or "checksum_page": damaged, "frame":
  // of a SQLite write-ahead log, "checksum": of the whole
  std::string what;
  std::string text;
  std::int64_t page = 0;    // 0: not about a page
  std::int64_t offset = 0;  // of the page in the file
  std::string mode = {};
};

class Verification {
 public:
  Verification(Session& session, const Invocation& call, const Source& source)
      : session_(session), call_(call), source_(source), map_(source) {}

  void run();

  const std::vector<Finding>& findings() const { return findings_; }
  const std::vector<File>& files() const { return files_; }
  const std::vector<IoOutcome>& skipped() const { return skipped_; }
  std::int64_t pagesRead() const { return pagesRead_; }
  const std::optional<WalCheck>& wal() const { return wal_; }
  const PageMap& map() const { return map_; }
  // A page that could not be read is neither good nor damaged.
  Exit exit() const {
    if (failedToRead_) return Exit::ioError;
    return findings_.empty() ? Exit::good : Exit::different;
  }

 private:
  bool isDecided() const { return !findings_.empty() && !call_.keepGoing && !call_.map; }
  IoRequest request(IoChoice choice) const { return {choice, call_.io.blockBytes, std::nullopt}; }
  void open();
  void verifyPages();
  void noteDamage(const Damage& damage);
  void reopenIfClosed(File& file);
  void prepare(std::int64_t page);
  std::optional<qz::PageHold> readOrNote(File& file, std::int64_t page);
  void verifyPage(std::int64_t page);
  void note(std::int64_t page, const IoOutcome& io, const char* what, std::string text);

  Session& session_;
  const Invocation& call_;
  const Source& source_;
  std::vector<File> files_;  // one for each mode that was obtained
  std::vector<IoOutcome> skipped_;
  std::vector<Finding> findings_;
  std::int64_t pagesRead_ = 0;
  std::optional<PageChecker> checker_;
  std::optional<WalCheck> wal_;
  std::uint64_t checksum_ = 0;
  bool allRead_ = true;
  bool failedToRead_ = false;
  PageMap map_;
  PageState here_ = PageState::data;            // the page that is being verified
  PageState checksums_ = PageState::checksums;  // the checksum page of its group
};

void Verification::run() {
  const std::optional<Header>& header = source_.geometry.header;
  if (!source_.measured.isWhole()) {
    findings_.push_back(
        {.what = "not_whole", .text = notWholeText(source_.measured, source_.geometry)});
  }
  if (header && header->changing) {
    findings_.push_back(
        {.what = "changing", .text = "was left in the middle of a change to its pages"});
  }
  // The module opens a file that has a header or a whole page, or that is empty.
  const Measure& measured = source_.measured;
  const bool opens = !measured.inHeader && (source_.geometry.headerSize > 0 ||
                                            measured.storedPages > 0 || measured.leftOver == 0);
  if (!isDecided() && opens) verifyPages();
  map_.finish();
}

void Verification::verifyPages() {
  const std::optional<Header>& header = source_.geometry.header;
  open();
  std::int64_t pages = source_.measured.wholePages;
  if (header) pages = std::min(pages, header->pageCount());  // bytes after them are not pages
  Progress progress(call_.progress, "verify", pages * source_.geometry.pageSize);
  for (std::int64_t page = 1; page <= pages && !isDecided(); ++page) {
    verifyPage(page);
    progress.advance(source_.geometry.pageSize);
    ++pagesRead_;
  }
  if (header && !header->changing && source_.measured.isWhole() && allRead_ && checker_->isGood() &&
      !isDecided() && checksum_ != header->payloadChecksum) {
    findings_.push_back(
        {.what = "checksum",
         .text = fmt::format("checksum mismatch: the header has {:016x}, the pages have {:016x}",
                             header->payloadChecksum, checksum_)});
  }
}

void Verification::open() {
  if (!call_.everyMode) {
    files_.push_back(File::openToRead(session_, source_, call_.io, Use::wholeFile));
  } else {
    for (const IoChoice choice : {IoChoice::buffered, IoChoice::direct, IoChoice::block}) {
      IoOutcome refused;
      if (auto file = File::openInMode(session_, source_, request(choice), &refused)) {
        files_.push_back(*std::move(file));
      } else {
        skipped_.push_back(refused);
      }
    }
  }
  checker_.emplace(files_.front(), [this](const Damage& damage) { noteDamage(damage); });
  if (source_.geometry.kind != FileKind::sqliteWal) return;
  wal_.emplace(readHeader(source_));
  if (!wal_->isHeaderGood()) {
    findings_.push_back({.what = "checksum", .text = "the header does not match its checksum"});
  }
}

void Verification::noteDamage(const Damage& damage) {
  (damage.inChecksums ? checksums_ : here_) = PageState::damaged;
  findings_.push_back({.what = damage.inChecksums ? "checksum_page" : "page",
                       .text = damage.text(),
                       .page = damage.page,
                       .offset = damage.offset});
}

// Reopens a file that the module closed after a short read.
void Verification::reopenIfClosed(File& file) {
  if (!file.isOpen()) {
    file = File::openToRead(session_, source_, request(file.io().mode), Use::wholeFile);
  }
}

void Verification::prepare(std::int64_t page) {
  const Geometry& geometry = source_.geometry;
  const std::int64_t group = geometry.groupOf(page);
  checksums_ = PageState::checksums;
  try {
    checker_->prepare(page);
  } catch (const Failure& failure) {
    checksums_ = PageState::unread;
    failedToRead_ = failedToRead_ || failure.exit() == Exit::ioError;
    const std::int64_t offset = geometry.storedOffset(geometry.storedChecksums(group));
    findings_.push_back(
        {.what = "unreadable",
         .text = fmt::format("the checksum page before page {} (file offset {}): {}", page, offset,
                             failure.reason()),
         .page = page,
         .offset = offset});
    reopenIfClosed(files_.front());
  }
  const bool isFirst = page == geometry.firstOfGroup(group);
  if (call_.map && geometry.pagesPerGroup != 0 && isFirst) map_.add(checksums_);
}

std::optional<qz::PageHold> Verification::readOrNote(File& file, std::int64_t page) {
  try {
    return file.read(page);
  } catch (const Failure& failure) {
    here_ = PageState::unread;
    failedToRead_ = failedToRead_ || failure.exit() == Exit::ioError;
    note(page, file.io(), "unreadable", failure.reason());
    reopenIfClosed(file);
    return std::nullopt;
  }
}

void Verification::verifyPage(std::int64_t page) {
  prepare(page);
  here_ = PageState::data;
  const std::optional<qz::PageHold> first = readOrNote(files_.front(), page);
  allRead_ = allRead_ && first;
  if (first && source_.geometry.header) checksum_ += checker_->check(page, bytesOf(*first));
  if (first && wal_ && !wal_->take(bytesOf(*first))) {
    here_ = PageState::damaged;
    note(page, files_.front().io(), "frame", "the frame does not match the frames before it");
  }
  for (auto file = files_.begin() + 1; file != files_.end() && !isDecided(); ++file) {
    const std::optional<qz::PageHold> other = readOrNote(*file, page);
    if (first && other && !std::ranges::equal(bytesOf(*first), bytesOf(*other))) {
      here_ = PageState::damaged;
      note(page, file->io(), "differs",
           fmt::format("the bytes differ from mode {}", ioName(files_.front().io().mode)));
    }
  }
  if (!call_.map) return;
  if (here_ == PageState::data) {
    map_.addRead(bytesOf(*first));
  } else {
    map_.add(here_);
  }
}

void Verification::note(std::int64_t page, const IoOutcome& io, const char* what,
                        std::string text) {
  const std::int64_t offset = source_.geometry.offsetOf(page);
  findings_.push_back({.what = what,
                       .text = fmt::format("page {} (file offset {}) in mode {}: {}", page, offset,
                                           ioName(io.mode), text),
                       .page = page,
                       .offset = offset,
                       .mode = ioName(io.mode)});
}

const char* verdict(const Verification& verification) {
  const auto& findings = verification.findings();
  if (findings.empty()) return "good";
  const bool judged = std::ranges::any_of(
      findings, [](const Finding& finding) { return finding.what != "unreadable"; });
  return judged ? "damaged" : "not readable";
}

void printText(const Source& source, const Verification& verification) {
  fmt::print("{}: {}\n", printable(source.name), verdict(verification));
  for (const Finding& finding : verification.findings()) fmt::print("  {}\n", finding.text);
  if (verification.files().empty()) return;
  std::string modes;
  for (const File& file : verification.files()) {
    modes += fmt::format("{}{}", modes.empty() ? "" : ", ", ioName(file.io().mode));
  }
  fmt::print("  {} of {} read, in mode {}\n", counted(verification.pagesRead(), "page"),
             counted(source.geometry.pageSize, "byte"), modes);
  for (const IoOutcome& outcome : verification.skipped()) {
    fmt::print("  not in mode {}: {}\n", ioName(outcome.asked), outcome.why);
  }
  if (source.unfinished != Unfinished::no) {
    fmt::print("  change {}\n", describe(source.unfinished));
  }
  if (const auto& wal = verification.wal()) {
    fmt::print("  {} of this log, followed by {} from an earlier log\n",
               counted(wal->frames(), "frame"), wal->leftOver());
  } else if (!source.geometry.header) {
    fmt::print("  no checksum: a {} has none\n",
               source.geometry.kind == FileKind::raw ? "raw file" : kindName(source.geometry.kind));
  }
}

void printJson(const Source& source, const Verification& verification, bool map) {
  nlohmann::ordered_json document = jsonDocument("verify", verification.exit());
  document["file"] = source.name;
  document["kind"] = kindName(source.geometry.kind);
  document["good"] = verification.findings().empty();
  document["pages_read"] = verification.pagesRead();
  document["page_size"] = source.geometry.pageSize;
  document["bytes_expected"] = source.measured.expected;
  document["bytes_found"] = source.measured.found;
  document["whole_pages"] = source.measured.wholePages;
  document["left_over_bytes"] = source.measured.leftOver;
  if (source.unfinished != Unfinished::no) {
    document["unfinished_change"] = describe(source.unfinished);
  }
  if (const auto& wal = verification.wal()) {
    document["frames"] = wal->frames();
    document["frames_left_over"] = wal->leftOver();
  }
  auto& modes = document["modes"] = nlohmann::ordered_json::array();
  for (const File& file : verification.files()) modes.push_back(ioName(file.io().mode));
  auto& findings = document["findings"] = nlohmann::ordered_json::array();
  for (const Finding& finding : verification.findings()) {
    nlohmann::ordered_json entry;
    entry["what"] = finding.what;
    if (finding.page != 0) {
      entry["page"] = finding.page;
      entry["offset"] = finding.offset;
      if (!finding.mode.empty()) entry["mode"] = finding.mode;
    }
    entry["text"] = finding.text;
    findings.push_back(std::move(entry));
  }
  if (map) document["map"] = verification.map().runs();
  printJsonDocument(document);
}

}  // namespace

Exit runVerify(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examine(session, call.first, rawGeometry(call));
  Verification verification(session, call, source);
  verification.run();
  if (call.json) {
    printJson(source, verification, call.map);
  } else if (!call.quiet) {
    printText(source, verification);
    if (call.map) {
      fmt::print("{}", verification.map().drawing(terminalWidth(STDOUT_FILENO),
                                                  wantsColour(STDOUT_FILENO)));
    }
  }
  return verification.exit();
}

}  // namespace qzpfile
