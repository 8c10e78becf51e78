// qzpfile repair FILE: repairs a packed file.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "checksums.hpp"
#include "commands.hpp"
#include "edit.hpp"
#include "json.hpp"
#include "numbers.hpp"
#include "payload.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

struct Step {
  // "finish", "undo": of a change; "header", "flag", "cut", "lost_pages", "damaged_page",
  // "checksum_page", "checksum"
  std::string what;
  std::string text;
  bool loses = false;     // needs --yes, because data is lost
  std::int64_t page = 0;  // 0: not about pages
  std::int64_t lastPage = 0;
};

// The state of a file's pages, compared with its header and checksum pages.
struct Survey {
  std::int64_t pages = 0;  // pages that are present
  std::uint64_t sum = 0;   // the sum of their checksums
  std::vector<std::int64_t> damaged;
  std::vector<std::int64_t> lostGroups;  // groups whose checksum pages are damaged
  // Checksum pages that need a correction: their groups and the correct bytes.
  std::vector<std::pair<std::int64_t, std::vector<std::byte>>> corrected;
};

// Compares the file's checksum pages with those that its pages need.
class Surveyor {
 public:
  explicit Surveyor(File& file) : file_(file), stored_(file.geometry()), fresh_(file.geometry()) {}

  Survey run(std::int64_t pages, Progress& progress) {
    survey_.pages = pages;
    for (std::int64_t page = 1; page <= pages; ++page) {
      if (hasGroups() && file_.geometry().groupOf(page) != fresh_.group()) begin(page);
      const qz::PageHold hold = file_.read(page);
      const std::uint64_t checksum = pageChecksum(bytesOf(hold), page);
      survey_.sum += checksum;
      if (hasGroups()) {
        fresh_.set(page, checksum);
        if (fits_ && stored_.of(page) != checksum) survey_.damaged.push_back(page);
      }
      progress.advance(file_.geometry().pageSize);
    }
    end();
    return std::move(survey_);
  }

 private:
  bool hasGroups() const { return file_.geometry().pagesPerGroup != 0; }

  void begin(std::int64_t page) {
    end();
    const std::int64_t group = file_.geometry().groupOf(page);
    fresh_.clear(group);
    fits_ = stored_.load(group, bytesOf(file_.readChecksumPage(group)));
    if (!fits_) survey_.lostGroups.push_back(group);
  }

  void end() {
    if (!hasGroups() || fresh_.group() < 0) return;
    const auto fresh = fresh_.seal();
    if (fits_ && std::ranges::equal(fresh, stored_.seal())) return;
    survey_.corrected.emplace_back(fresh_.group(),
                                   std::vector<std::byte>(fresh.begin(), fresh.end()));
  }

  File& file_;
  ChecksumPage stored_;
  ChecksumPage fresh_;
  bool fits_ = false;
  Survey survey_;
};

// A header whose fields are valid but whose checksum or reserved bytes are not.
std::optional<Header> sealedAnew(const PlainFile& file) {
  std::array<std::byte, kHeaderBytes> bytes{};
  if (!file.read(bytes, 0) || !isOwn(bytes)) return std::nullopt;
  constexpr std::size_t kReservedAt = 40;
  std::fill(bytes.begin() + kReservedAt, bytes.end(), std::byte{0});
  storeNumber(bytes, kHeaderBytes - 8, checksumOf(std::span(bytes).first(kHeaderBytes - 8)));
  const auto decoded = decodeHeader(bytes);
  const auto* header = std::get_if<Header>(&decoded);
  return header != nullptr ? std::optional(*header) : std::nullopt;
}

class Repair {
 public:
  Repair(const PlainFile& plain, File& file, const Invocation& call)
      : plain_(plain), file_(file), call_(call) {}

  void run();

  const std::vector<Step>& steps() const { return steps_; }
  bool changed() const { return changed_; }

 private:
  void add(Step step) { steps_.push_back(std::move(step)); }
  bool loses() const { return std::ranges::any_of(steps_, &Step::loses); }
  bool mayWrite() const { return !call_.dryRun && (call_.yes || !loses()); }
  Source look();
  void settle();
  void judgeLength();
  void judgeChecksums(const Survey& survey);
  void write(const Survey& survey);
  ChangeRecord commit(const Survey& survey, const Header& header);
  void removeFrom(std::int64_t end) noexcept;

  const PlainFile& plain_;
  File& file_;
  const Invocation& call_;
  Source source_{.name = {}, .geometry = {}, .measured = {}};
  bool headerSealed_ = true;
  std::vector<Step> steps_;
  bool changed_ = false;
};

// The file as it describes itself. The fields of a damaged header are used until the pages show
// whether they are right.
Source Repair::look() {
  try {
    return inspect(plain_, std::nullopt);
  } catch (const Failure&) {
    const std::optional<Header> header = sealedAnew(plain_);
    if (!header) throw;
    headerSealed_ = false;
    Source source{.name = plain_.name(), .geometry = geometryOf(*header), .measured = {}};
    source.actualBytes = plain_.size();
    source.measured = measure(source.geometry, source.actualBytes);
    return source;
  }
}

void Repair::settle() {
  const bool committed = source_.unfinished == Unfinished::committed;
  add({.what = committed ? "finish" : "undo",
       .text = committed ? "a change was interrupted after it was committed: it is finished"
                         : "a change was interrupted before it was committed: it is undone"});
  if (call_.dryRun) return;
  settleChange(plain_, source_);
  changed_ = true;
  source_ = look();
}

void Repair::judgeLength() {
  const Header& header = *source_.geometry.header;
  const std::int64_t pages = header.pageCount();
  if (const std::int64_t found = std::min(source_.measured.wholePages, pages); found < pages) {
    const std::int64_t kept = found * header.pageSize;
    add({.what = "lost_pages",
         .text = fmt::format("{} {} missing: bytes {} to {} of the payload are lost",
                             pagesBetween(found + 1, pages), pages - found == 1 ? "is" : "are",
                             kept, header.payloadBytes - 1),
         .loses = true,
         .page = found + 1,
         .lastPage = pages});
  } else if (source_.measured.found > source_.measured.expected) {
    add({.what = "cut",
         .text = fmt::format("{} after the end belong to no page",
                             counted(source_.measured.found - source_.measured.expected, "byte")),
         .loses = true});
  }
}

void Repair::judgeChecksums(const Survey& survey) {
  const Header& header = *source_.geometry.header;
  const Geometry& geometry = source_.geometry;
  const bool complete = survey.pages == header.pageCount();
  // If the sum of all pages matches the header, each page is as it was written.
  const bool proven = complete && survey.sum == header.payloadChecksum;
  if (!headerSealed_) {
    if (!proven) inspect(plain_, std::nullopt);  // throws
    add({.what = "header", .text = "the header's checksum is wrong, but its fields are right"});
  }
  if (header.changing) {
    add({.what = "flag",
         .text = proven ? "the header says that a change is in progress, but all pages match"
                        : "an earlier version of the program left a change unfinished: the pages "
                          "are accepted as they are",
         .loses = !proven});
  }
  for (const std::int64_t page : survey.damaged) {
    add({.what = "damaged_page",
         .text = fmt::format("page {} (file offset {}) is damaged: it does not match its checksum",
                             page, geometry.offsetOf(page)),
         .loses = !proven,
         .page = page,
         .lastPage = page});
  }
  for (const std::int64_t group : survey.lostGroups) {
    const std::int64_t first = geometry.firstOfGroup(group);
    const std::int64_t last = std::min(first + geometry.pagesPerGroup - 1, survey.pages);
    add({.what = "checksum_page",
         .text = fmt::format(
             "the checksum page of {} (file offset {}) is damaged; {}", pagesBetween(first, last),
             geometry.storedOffset(geometry.storedChecksums(group)),
             proven ? "the pages are good" : "whether the pages are good is unknown"),
         .loses = !proven,
         .page = first,
         .lastPage = last});
  }
  const bool pagesFit = survey.damaged.empty() && survey.lostGroups.empty();
  if (complete && !proven && pagesFit) {
    const bool known = geometry.pagesPerGroup != 0;  // each page matches its own checksum
    add({.what = "checksum",
         .text = known
                     ? "the payload checksum is wrong, but each page matches its own"
                     : "the pages do not match the payload checksum; version 1 does not say which",
         .loses = !known});
  }
  if (steps_.empty() && !survey.corrected.empty()) {
    add({.what = "checksum_page",
         .text = "checksum pages have entries for pages that do not exist"});
  }
}

// Makes all corrections in one change, committed like a change by put. The bytes of a record that
// could not be committed are removed if possible: repair would not remove them without --yes.
void Repair::write(const Survey& survey) {
  Header header = *source_.geometry.header;
  header.changing = false;
  header.preparing = false;
  header.payloadBytes = std::min(header.payloadBytes, survey.pages * header.pageSize);
  header.payloadChecksum = survey.sum;
  applyRecord(plain_, commit(survey, header));
  changed_ = true;
}

ChangeRecord Repair::commit(const Survey& survey, const Header& header) {
  const std::int64_t before = plain_.size();
  // If the file ends inside its header, the record starts after a complete header.
  RecordWriter record(plain_, std::max(before, header.fileBytes()));
  try {
    for (const auto& [group, page] : survey.corrected) {
      record.add(source_.geometry.storedOffset(source_.geometry.storedChecksums(group)), page);
    }
    record.add(0, encodeHeader(header));
    return record.commit(header.fileBytes());
  } catch (const Failure&) {
    removeFrom(before);
    throw;
  }
}

void Repair::removeFrom(std::int64_t end) noexcept {
  try {
    plain_.truncate(end);
  } catch (const Failure&) {
    // The earlier failure is the one to report.
  }
}

void Repair::run() {
  source_ = look();
  if (!source_.geometry.header) {
    throw Failure(Exit::badData,
                  fmt::format("is a {}, not a file made by pack", kindName(source_.geometry.kind)),
                  plain_.name());
  }
  if (source_.unfinished != Unfinished::no) settle();
  const std::size_t settled = steps_.size();
  judgeLength();
  const std::int64_t pages =
      std::min(source_.measured.wholePages, source_.geometry.header->pageCount());
  Survey survey;
  if (pages > 0) {
    file_.settle(source_, {});
    Progress progress(call_.progress, "repair", pages * source_.geometry.pageSize);
    survey = Surveyor(file_).run(pages, progress);
  }
  judgeChecksums(survey);
  if (steps_.size() > settled && mayWrite()) write(survey);
}

void printText(const Repair& repair, const std::string& name, bool good) {
  for (const Step& step : repair.steps()) {
    fmt::print("{}: {}{}\n", printable(name), step.text,
               step.loses && !good ? " (lost for good)" : "");
  }
  if (repair.steps().empty()) {
    fmt::print("{}: good, nothing to repair\n", printable(name));
  } else {
    const char* const rest = repair.changed() ? "nothing else was changed" : "not changed";
    fmt::print("{}: {}\n", printable(name), good ? "repaired" : rest);
  }
}

void printJson(const Repair& repair, const std::string& name, Exit exit) {
  nlohmann::ordered_json document = jsonDocument("repair", exit);
  document["file"] = name;
  document["good"] = exit == Exit::good;
  document["changed"] = repair.changed();
  auto& steps = document["steps"] = nlohmann::ordered_json::array();
  for (const Step& step : repair.steps()) {
    nlohmann::ordered_json entry;
    entry["what"] = step.what;
    entry["text"] = step.text;
    entry["loses"] = step.loses;
    if (step.page != 0) {
      entry["page"] = step.page;
      entry["last_page"] = step.lastPage;
    }
    steps.push_back(std::move(entry));
  }
  printJsonDocument(document);
}

}  // namespace

Exit runRepair(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  // Pages of one byte fit every file, whatever its header.
  Source anything = examine(session, call.first, RawGeometry{.pageSize = 1, .headerSize = 0});
  if (!call.dryRun) anything.look.reset();
  File file =
      call.dryRun ? File::lockToRead(session, anything) : File::lockToChange(session, anything, {});
  const PlainFile plain = call.dryRun ? PlainFile(file.fd(), call.first, Purpose::input)
                                      : PlainFile::openAgain(file.fd(), call.first);
  Repair repair(plain, file, call);
  repair.run();
  const bool loses = std::ranges::any_of(repair.steps(), &Step::loses);
  const bool good = repair.steps().empty() || (!call.dryRun && (call.yes || !loses));
  const Exit exit = good ? Exit::good : Exit::different;
  if (call.json) {
    printJson(repair, call.first, exit);
    return exit;
  }
  if (call.quiet) return exit;
  printText(repair, call.first, good);
  if (!good && !call.dryRun) {
    fmt::print("  try:    get a good copy, or accept the loss with --yes\n");
  }
  return exit;
}

}  // namespace qzpfile
