#include "paged.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "report.hpp"
#include "signals.hpp"
#include "streams.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

// Prints one journal entry as a line of text; a file name in it may contain any bytes.
void printEntry(void* /*context*/, const qz::JournalEntry& entry) noexcept try {
  fmt::print(stderr, "{}: {}\n", entry.level == qz::JournalLevel::error ? "error" : "note",
             printable(entry.text));
} catch (const std::exception&) {
  // The journal cannot be shown. The operation reports the same failure.
}

qz::Module loadModule(qz::StandInHost& host, qz::Journal* journal, const std::string& path) {
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), journal, path);
  if (!module) {
    throw Failure(Exit::noInput, "cannot load the module: " + module.error().text)
        .tryThis("name libqziop.so with --module PATH");
  }
  return *std::move(module);
}

// Opens the file buffered under a shared lock and reads nothing yet.
std::shared_ptr<qz::PagedFile> openLook(Session& session, const std::string& name) {
  auto file = std::make_shared<qz::PagedFile>(session.newFile(name, Purpose::input));
  file->settings().openMode = qz::openOrKeep;
  file->settings().readAccess = qz::readRandom;
  std::byte none{};
  std::int32_t length = 0;
  if (const auto opened = file->preopen(&none, &length); !opened) {
    throw moduleFailure(Purpose::input, "cannot read", name, opened.error());
  }
  return file;
}

// Describes the file as it will be once its committed change is finished.
void takeCommitted(Source& source, const PlainFile& file, ChangeRecord record) {
  const auto header =
      std::ranges::find_if(record.pieces, [](const RecordedPiece& p) { return p.target == 0; });
  if (header == record.pieces.end()) return;
  std::vector<std::byte> start = readPiece(file, *header);
  start.resize(std::min(start.size(), std::size_t{kRecognitionBytes}));
  auto recognised = recognise(start);
  if (auto* geometry = std::get_if<Geometry>(&recognised)) {
    source.geometry = *geometry;
    source.measured = measure(source.geometry, record.finalBytes);
    source.unfinished = Unfinished::committed;
    source.change = std::move(record);
  }
}

// If a header cannot be written for lack of space, the module truncates the file to 0 pages through
// the operation table. While a KeepPages exists, that truncate does nothing.
class KeepPages {
 public:
  explicit KeepPages(qz::FileHandle& handle)
      : table_(handle.ops->operations), truncate_(table_.qzptruncate) {
    table_.qzptruncate = [](qz::FileHandle*, std::int64_t, qz::Journal*) { return qz::Status::ok; };
  }
  KeepPages(const KeepPages&) = delete;
  KeepPages& operator=(const KeepPages&) = delete;
  ~KeepPages() { table_.qzptruncate = truncate_; }

 private:
  qz::OperationTable& table_;
  decltype(qz::OperationTable::qzptruncate) truncate_;
};

}  // namespace

Session::Session(const std::string& modulePath, bool verbose)
    : host_({.hostPageSize = std::nullopt,
             .defaultJournal = qz::JournalSink::function,
             .journalFunction = printEntry,
             .journalContext = nullptr}),
      journal_(qz::JournalSink::function, printEntry),
      verbose_(verbose),
      module_(loadModule(host_, verbose ? &journal_ : nullptr, modulePath)) {}

qz::PagedFile Session::newFile(const std::string& name, Purpose purpose) {
  qz::Result<qz::PagedFile> file = module_.newFile(verbose_ ? &journal_ : nullptr);
  if (!file) throw moduleFailure(purpose, "cannot open", name, file.error());
  if (const auto named = file->setName(name); !named) {
    throw moduleFailure(purpose, "cannot open", name, named.error());
  }
  return *std::move(file);
}

const char* describe(Unfinished unfinished) {
  switch (unfinished) {
    case Unfinished::no:
      return "";
    case Unfinished::uncommitted:
      return "interrupted: the next change, or qzpfile repair, undoes it";
    case Unfinished::committed:
      return "interrupted: the next change, or qzpfile repair, finishes it";
  }
  return "";
}

Source inspect(const PlainFile& file, const std::optional<RawGeometry>& raw) {
  Source source{.name = file.name(), .geometry = {}, .measured = {}};
  source.actualBytes = file.size();
  if (raw) {
    source.geometry.pageSize = raw->pageSize;
    source.geometry.headerSize = raw->headerSize;
    source.measured = measure(source.geometry, source.actualBytes);
    return source;
  }
  std::vector<std::byte> start(
      static_cast<std::size_t>(std::min<std::int64_t>(source.actualBytes, kRecognitionBytes)));
  file.read(start, 0);
  std::variant<Geometry, std::string> recognised = recognise(start);
  const auto* geometry = std::get_if<Geometry>(&recognised);
  if (geometry != nullptr) {
    source.geometry = *geometry;
    source.measured = measure(source.geometry, source.actualBytes);
  }
  const bool own = isOwn(start);
  const bool prepared = own && geometry != nullptr && geometry->header->preparing;
  if (own && (geometry == nullptr || prepared || !source.measured.isWhole())) {
    if (auto record = readRecord(file)) takeCommitted(source, file, *std::move(record));
  }
  if (source.unfinished == Unfinished::no && geometry == nullptr) {
    throw Failure(Exit::badData, std::get<std::string>(recognised), source.name)
        .tryThis(advice(start));
  }
  if (source.unfinished == Unfinished::no && prepared &&
      source.actualBytes >= source.measured.expected) {
    source.unfinished = Unfinished::uncommitted;
    source.measured = measure(source.geometry, source.measured.expected);
  }
  return source;
}

Source examine(Session& session, const std::string& name, const std::optional<RawGeometry>& raw) {
  std::shared_ptr<qz::PagedFile> look = openLook(session, name);
  Source source = inspect(PlainFile(look->settings().fd, name, Purpose::input), raw);
  source.look = std::move(look);
  return source;
}

namespace {

// What to do about a file of the wrong length.
std::string remedy(const Source& source) {
  if (source.geometry.header) {
    return "get a complete copy of the file, or see what qzpfile repair can save of it";
  }
  const std::string readRest = "cat, dump and copy read its whole pages with --keep-going";
  if (source.geometry.kind != FileKind::raw) return "get a complete copy of the file; " + readRest;
  const std::int64_t fitting = likelyPageSize(source.measured.found - source.geometry.headerSize);
  return (fitting == 0
              ? std::string("give the file's real sizes")
              : fmt::format("give the file's real sizes: --page-size {} would fit", fitting)) +
         "; or, if bytes are missing, get a complete copy: " + readRest;
}

Failure notWhole(const Source& source) {
  return Failure(Exit::badData, notWholeText(source.measured, source.geometry), source.name)
      .tryThis(remedy(source));
}

// Reduces a file of the wrong length to its whole pages.
void takeWholePages(Source& source) {
  Geometry& geometry = source.geometry;
  std::int64_t pages = source.measured.wholePages;
  std::int64_t missing = 0;
  if (geometry.header) {
    pages = std::min(pages, geometry.header->pageCount());
    missing = geometry.header->pageCount() - pages;
  }
  if (pages == 0) throw notWhole(source);
  const std::int64_t leftOut = source.measured.found - geometry.offsetOf(pages) - geometry.pageSize;
  const auto are = [](std::int64_t count) { return count == 1 ? "is" : "are"; };
  std::string text = "has the wrong length";
  if (missing > 0) {
    text += fmt::format(": {} at the end {} missing", counted(missing, "page"), are(missing));
  }
  if (leftOut > 0) {
    text += fmt::format("{} {} after page {} {} left out", missing > 0 ? "," : ":",
                        counted(leftOut, "byte"), pages, are(leftOut));
  }
  warn(source.name, text);
  if (geometry.header) {
    Header& header = *geometry.header;
    header.payloadBytes = std::min(header.payloadBytes, pages * geometry.pageSize);
  }
  source.isPartial = true;
}

}  // namespace

void requireSound(const Source& source) {
  if (source.geometry.header && source.geometry.header->changing) {
    throw Failure(Exit::badData, "was left in the middle of a change to its pages", source.name)
        .tryThis(
            "get a complete copy of the file, or let qzpfile repair accept its pages as they are");
  }
  if (!source.measured.isWhole()) throw notWhole(source);
}

Source examineWhole(Session& session, const std::string& name,
                    const std::optional<RawGeometry>& raw) {
  Source source = examine(session, name, raw);
  requireSound(source);
  return source;
}

Source examineToRead(Session& session, const std::string& name,
                     const std::optional<RawGeometry>& raw, bool keepGoing) {
  Source source = examine(session, name, raw);
  const bool changing = source.geometry.header && source.geometry.header->changing;
  if (!keepGoing || changing || source.measured.isWhole()) {
    requireSound(source);
  } else {
    takeWholePages(source);
  }
  return source;
}

std::vector<std::byte> readHeader(const Source& source) {
  return readHeader(source, PlainFile(source.look->settings().fd, source.name, Purpose::input));
}

std::vector<std::byte> readHeader(const Source& source, const PlainFile& file) {
  std::vector<std::byte> header(static_cast<std::size_t>(source.geometry.headerSize));
  file.read(header, 0);
  for (const RecordedPiece& piece : source.change.pieces) {
    if (piece.target != 0) continue;
    const std::vector<std::byte> bytes = readPiece(file, piece);
    std::copy_n(bytes.begin(), std::min(bytes.size(), header.size()), header.begin());
  }
  if (source.geometry.header) {
    // The flag of an unfinished change does not belong to the header as its user knows it.
    Header clean = *source.geometry.header;
    clean.preparing = false;
    std::ranges::copy(encodeHeader(clean), header.begin());
  }
  return header;
}

File::File(qz::PagedFile paged, std::string name, const Geometry& geometry, IoOutcome io,
           Purpose purpose)
    : paged_(std::move(paged)),
      name_(std::move(name)),
      geometry_(geometry),
      io_(std::move(io)),
      purpose_(purpose) {
  paged_.settings().pageSize = geometry.pageSize;
  paged_.settings().headerSize = geometry.headerSize;
}

File File::openToRead(Session& session, const Source& source, const IoRequest& io, Use use) {
  IoOutcome mode = chooseMode(io, use, source.geometry, directAlignmentOf(source.name),
                              source.measured.found, source.name);
  File file(session.newFile(source.name, Purpose::input), source.name, source.geometry,
            std::move(mode), Purpose::input);
  qz::FileHandle& settings = file.paged_.settings();
  settings.openMode = qz::openOrKeep;
  // With direct I/O, the read hint chooses between page mode and block mode.
  settings.readAccess = file.io_.mode == IoChoice::direct ? qz::readRandom : qz::readOrdered;
  file.prepare(io);
  file.believe(source);
  file.open("cannot open");
  return file;
}

std::optional<File> File::openInMode(Session& session, const Source& source, const IoRequest& io,
                                     IoOutcome* refused) {
  std::string obstacle = whyNotDirect(source.geometry, directAlignmentOf(source.name));
  if (io.choice != IoChoice::buffered && !obstacle.empty()) {
    *refused = {.asked = io.choice, .mode = IoChoice::buffered, .why = std::move(obstacle)};
    return std::nullopt;
  }
  File file = openToRead(session, source, io, Use::wholeFile);
  if (file.io_.mode != io.choice) {
    *refused = file.io_;
    return std::nullopt;
  }
  return file;
}

File File::lockToChange(Session& session, const Source& look, const IoRequest& io) {
  IoOutcome mode = chooseMode(io, Use::somePages, look.geometry, directAlignmentOf(look.name),
                              look.measured.found, look.name);
  File file(session.newFile(look.name, Purpose::output), look.name, look.geometry, std::move(mode),
            Purpose::output);
  qz::FileHandle& settings = file.paged_.settings();
  settings.openMode = qz::openOrKeep;
  settings.readAccess = file.io_.mode == IoChoice::direct ? qz::readRandom : qz::readOrdered;
  settings.writeAccess = qz::rewritePages;
  file.prepare(io);
  file.lock("cannot open for writing");
  return file;
}

File File::lockToRead(Session& session, const Source& look) {
  File file(session.newFile(look.name, Purpose::input), look.name, look.geometry,
            IoOutcome{.asked = IoChoice::buffered, .mode = IoChoice::buffered, .why = {}},
            Purpose::input);
  file.paged_.settings().openMode = qz::openOrKeep;
  file.paged_.settings().readAccess = qz::readOrdered;
  file.lock("cannot open");
  return file;
}

void File::lock(const char* what) {
  const AlignedBuffer none(1);
  std::int32_t length = 0;
  if (const auto opened = paged_.preopen(none.data(), &length); !opened) {
    fail(what, opened.error());
  }
  // Closing a file before `settle` must not remove it, even if it is empty.
  paged_.settings().writeAccess = qz::noWrite;
}

void File::settle(const Source& source, const IoRequest& io) {
  chooseMode({io_.mode, io.blockBytes, io.buffers}, Use::somePages, source.geometry,
             directAlignmentOf(name_), source.measured.found, name_);
  geometry_ = source.geometry;
  believe(source);
  if (purpose_ == Purpose::output) paged_.settings().writeAccess = qz::rewritePages;
  open(purpose_ == Purpose::output ? "cannot open for writing" : "cannot open");
}

File File::create(Session& session, const std::string& path, const std::string& name,
                  const Geometry& geometry, const IoRequest& io,
                  std::optional<std::int64_t> fileBytes) {
  IoOutcome mode =
      chooseMode(io, Use::wholeFile, geometry, directAlignmentOf(path), fileBytes, name);
  File file(session.newFile(path, Purpose::output), name, geometry, std::move(mode),
            Purpose::output);
  qz::FileHandle& settings = file.paged_.settings();
  settings.openMode = qz::createOrReplace;
  settings.readAccess = file.io_.mode == IoChoice::direct ? qz::readMany : qz::noRead;
  // A checksum page is written before its group, and again when the group is complete.
  settings.writeAccess = geometry.pagesPerGroup != 0 ? qz::rewritePages : qz::writeNewPages;
  // Pages are written from the tool's memory: no page buffers are needed, in block mode only the
  // write block.
  settings.openOptions = qz::optionKeepBufferCount;
  file.prepare(io);
  file.open("cannot create");
  // Creating a file resets the header size.
  settings.headerSize = geometry.headerSize;
  return file;
}

void File::prepare(const IoRequest& request) {
  qz::FileHandle& settings = paged_.settings();
  if (io_.mode != IoChoice::buffered) settings.openOptions |= qz::optionDirectIo;
  if (io_.mode == IoChoice::block) {
    settings.requestedBlockBytes = blockBytesFor(request, geometry_.pageSize);
  }
  if (request.buffers) settings.bufferCount = *request.buffers;
}

// Sets the geometry and the length in whole pages. The file may end inside a page, or have another
// length than when it was locked. Pages of an unfinished change count here.
void File::believe(const Source& source) {
  qz::FileHandle& settings = paged_.settings();
  settings.pageSize = geometry_.pageSize;
  settings.headerSize = geometry_.headerSize;
  isPartial_ = source.isPartial;
  settings.pageCount = (source.actualBytes - geometry_.headerSize) / geometry_.pageSize;
  settings.fileSize = geometry_.headerSize + settings.pageCount * geometry_.pageSize;
  for (const RecordedPiece& piece : source.change.pieces) {
    if (piece.target < geometry_.headerSize || piece.length != geometry_.pageSize) continue;
    const auto pageAt = [this](std::int64_t offset) {
      return (offset - geometry_.headerSize) / geometry_.pageSize + 1;
    };
    moved_[pageAt(piece.target)] = pageAt(piece.at);
  }
}

void File::open(const char* what) {
  if (const auto opened = paged_.open(); !opened) fail(what, opened.error());
  noteObtained(&io_, paged_.settings());
}

std::int64_t File::pageCount() const {
  return geometry_.header ? geometry_.header->pageCount() : paged_.settings().pageCount;
}

std::int64_t File::placeOf(std::int64_t stored) const {
  const auto moved = moved_.find(stored);
  return moved == moved_.end() ? stored : moved->second;
}

std::string File::describeIo() const {
  std::string text = ioName(io_.mode);
  if (io_.asked != io_.mode) {
    text += fmt::format(" (asked: {}; {})", ioName(io_.asked), io_.why);
  }
  return text;
}

qz::PageHold File::read(std::int64_t page) {
  return readStored(geometry_.storedPage(page), geometry_.offsetOf(page), page);
}

qz::PageHold File::readChecksumPage(std::int64_t group) {
  const std::int64_t stored = geometry_.storedChecksums(group);
  return readStored(stored, geometry_.storedOffset(stored), geometry_.firstOfGroup(group));
}

qz::PageHold File::readStored(std::int64_t stored, std::int64_t offset, std::int64_t page) {
  qz::Result<qz::PageHold> hold = paged_.read(placeOf(stored));
  if (!hold) failAt("cannot read", page, offset, hold.error());
  return *std::move(hold);
}

void File::readMany(std::int64_t first, std::span<std::byte> area) {
  const auto pageSize = static_cast<std::size_t>(geometry_.pageSize);
  while (!area.empty()) {
    auto pages = static_cast<std::int64_t>(area.size() / pageSize);
    if (geometry_.pagesPerGroup != 0) {
      pages = std::min(pages, geometry_.firstOfGroup(geometry_.groupOf(first) + 1) - first);
    }
    if (!moved_.empty()) pages = 1;
    const auto run = area.first(static_cast<std::size_t>(pages) * pageSize);
    readRun(first, run);
    first += pages;
    area = area.subspan(run.size());
  }
}

// Reads consecutive stored pages.
void File::readRun(std::int64_t first, std::span<std::byte> area) {
  const auto count =
      static_cast<std::int32_t>(area.size() / static_cast<std::size_t>(geometry_.pageSize));
  const auto done = paged_.readMany(placeOf(geometry_.storedPage(first)), count, area.data());
  if (done) {
    return;
  }
  if (count == 1) failAt("cannot read", first, geometry_.offsetOf(first), done.error());
  // Reads the pages one by one to find the one that failed.
  const std::size_t pageSize = area.size() / static_cast<std::size_t>(count);
  for (std::int32_t i = 0; i < count; ++i) {
    readRun(first + i, area.subspan(static_cast<std::size_t>(i) * pageSize, pageSize));
  }
}

void File::requireUncut() const {
  struct stat info = {};
  const std::int64_t end =
      geometry_.header ? geometry_.header->fileBytes() : geometry_.offsetOf(pageCount() + 1);
  if (fstat(paged_.settings().fd, &info) != 0 || info.st_size < end) {
    throw Failure(Exit::badData, "became shorter while it was read", name_)
        .tryThis("discard what was read, and try again");
  }
}

void File::write(std::int64_t page, std::span<const std::byte> bytes) {
  if (const auto done = paged_.write(bytes.data(), geometry_.storedPage(page)); !done) {
    failAt("cannot write", page, geometry_.offsetOf(page), done.error());
  }
}

void File::writeChecksumPage(std::int64_t group, std::span<const std::byte> bytes) {
  const std::int64_t stored = geometry_.storedChecksums(group);
  if (const auto done = paged_.write(bytes.data(), stored); !done) {
    failAt("cannot write", geometry_.firstOfGroup(group), geometry_.storedOffset(stored),
           done.error());
  }
}

void File::truncate(std::int64_t stored) {
  if (const auto done = paged_.truncate(stored); !done) fail("cannot truncate", done.error());
}

void File::writeHeader(std::span<const std::byte> bytes) {
  // Aligned, so that direct I/O can write a header that fills its area.
  const AlignedBuffer area(bytes.size());
  std::ranges::copy(bytes, area.data());
  auto length = static_cast<std::int32_t>(bytes.size());
  const KeepPages keep(paged_.settings());
  if (const auto done = paged_.writeHeader(area.data(), &length); !done) {
    fail("cannot write the header", done.error());
  }
}

void File::flush() {
  if (const auto done = paged_.flush(); !done) fail("cannot write", done.error());
}

void File::finish() {
  flush();
  close();
}

void File::close() {
  keepEmpty();
  if (const auto done = paged_.close(); !done) fail("cannot close", done.error());
}

void File::keepEmpty() {
  if (paged_.settings().pageCount == 0) paged_.settings().writeAccess = qz::noWrite;
}

void File::fail(const char* what, const qz::Error& error) const {
  throw moduleFailure(purpose_, what, name_, error);
}

void File::failAt(const char* what, std::int64_t page, std::int64_t offset,
                  const qz::Error& error) const {
  checkInterrupt();
  throw moduleFailure(purpose_, what, name_, error).at(page, offset);
}

}  // namespace qzpfile
