#include "paged.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "signals.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

qz::Module loadModule(qz::StandInHost& host, qz::Journal* journal, const std::string& path) {
  qz::Result<qz::Module> module = qz::Module::load(host.handle(), journal, path);
  if (!module) {
    throw Failure(Exit::noInput, "cannot load the module: " + module.error().text)
        .tryThis("name libqziop.so with --module PATH");
  }
  return *std::move(module);
}

struct FirstBytes {
  std::vector<std::byte> bytes;  // as many as were wanted, or all that the file has
  std::int64_t fileBytes = 0;
};

// Reads the start of a file through a pre-open, buffered: direct I/O could not read a few bytes.
FirstBytes readStart(Session& session, const std::string& name, std::int32_t wanted) {
  qz::PagedFile file = session.newFile(name, Purpose::input);
  file.settings().openMode = qz::openOrKeep;
  file.settings().readAccess = qz::readRandom;
  FirstBytes start{.bytes = std::vector<std::byte>(static_cast<std::size_t>(wanted)),
                   .fileBytes = 0};
  std::int32_t length = wanted;
  if (const auto opened = file.preopen(start.bytes.data(), &length)) {
    start.fileBytes = file.settings().hostFile->fileInfo->size;
  } else if (opened.status() == qz::Status::shorterThanHeader && length >= 0) {
    start.bytes.resize(static_cast<std::size_t>(length));
    start.fileBytes = length;
  } else {
    throw moduleFailure(Purpose::input, "cannot read", name, opened.error());
  }
  return start;
}

}  // namespace

Session::Session(const std::string& modulePath, bool verbose)
    : journal_(qz::JournalSink::standardError),
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

Source examine(Session& session, const std::string& name, const std::optional<RawGeometry>& raw) {
  const FirstBytes start = readStart(session, name, kRecognitionBytes);
  Source source{.name = name, .geometry = {}, .measured = {}};
  if (raw) {
    source.geometry.pageSize = raw->pageSize;
    source.geometry.headerSize = raw->headerSize;
  } else {
    std::variant<Geometry, std::string> recognised = recognise(start.bytes);
    if (const auto* why = std::get_if<std::string>(&recognised)) {
      throw Failure(Exit::badData, *why, name).tryThis(advice(start.bytes));
    }
    source.geometry = std::get<Geometry>(recognised);
  }
  source.measured = measure(source.geometry, start.fileBytes);
  return source;
}

void requireWhole(const Source& source) {
  if (!source.measured.isWhole()) {
    throw Failure(Exit::badData, "is not whole: " + describe(source.measured, source.geometry),
                  source.name)
        .tryThis("get a whole copy of the file");
  }
}

Source examineWhole(Session& session, const std::string& name,
                    const std::optional<RawGeometry>& raw) {
  Source source = examine(session, name, raw);
  if (source.geometry.header && source.geometry.header->changing) {
    throw Failure(Exit::badData, "was left in the middle of a change of its pages", source.name)
        .tryThis("get a whole copy of the file; its pages can still be read with --raw");
  }
  requireWhole(source);
  return source;
}

std::vector<std::byte> readHeader(Session& session, const Source& source) {
  const auto wanted = static_cast<std::int32_t>(source.geometry.headerSize);
  return readStart(session, source.name, wanted).bytes;
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
  // With direct I/O the read hint tells page from block mode.
  settings.readAccess = file.io_.mode == IoChoice::direct ? qz::readRandom : qz::readOrdered;
  file.open(io, "cannot open");
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

File File::openToChange(Session& session, const Source& source, const IoRequest& io) {
  IoOutcome mode = chooseMode(io, Use::somePages, source.geometry, directAlignmentOf(source.name),
                              source.measured.found, source.name);
  File file(session.newFile(source.name, Purpose::output), source.name, source.geometry,
            std::move(mode), Purpose::output);
  qz::FileHandle& settings = file.paged_.settings();
  settings.openMode = qz::openOrKeep;
  settings.readAccess = file.io_.mode == IoChoice::direct ? qz::readRandom : qz::readOrdered;
  settings.writeAccess = qz::rewritePages;
  file.open(io, "cannot open for writing");
  return file;
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
  settings.writeAccess = qz::writeNewPages;
  // Pages come from our own memory: no buffers to hold, in block mode only the write block.
  settings.openOptions = qz::optionKeepBufferCount;
  file.open(io, "cannot create");
  // Creating a file forgets the header size.
  settings.headerSize = geometry.headerSize;
  return file;
}

void File::open(const IoRequest& request, const char* what) {
  qz::FileHandle& settings = paged_.settings();
  if (io_.mode != IoChoice::buffered) settings.openOptions |= qz::optionDirectIo;
  if (io_.mode == IoChoice::block) {
    settings.requestedBlockBytes = blockBytesFor(request, geometry_.pageSize);
  }
  if (request.buffers) settings.bufferCount = *request.buffers;
  if (const auto opened = paged_.open(); !opened) fail(what, opened.error());
  noteObtained(&io_, settings);
}

std::string File::describeIo() const {
  std::string text = ioName(io_.mode);
  if (io_.asked != io_.mode) {
    text += fmt::format(" (asked: {}; {})", ioName(io_.asked), io_.why);
  }
  return text;
}

qz::PageHold File::read(std::int64_t page) {
  qz::Result<qz::PageHold> hold = paged_.read(page);
  if (!hold) failAt("cannot read", page, hold.error());
  return *std::move(hold);
}

void File::readMany(std::int64_t first, std::span<std::byte> area) {
  const auto count =
      static_cast<std::int32_t>(area.size() / static_cast<std::size_t>(geometry_.pageSize));
  const auto done = paged_.readMany(first, count, area.data());
  if (done) {
    return;
  }
  if (count == 1) failAt("cannot read", first, done.error());
  // One by one, to tell which.
  const std::size_t pageSize = area.size() / static_cast<std::size_t>(count);
  for (std::int32_t i = 0; i < count; ++i) {
    readMany(first + i, area.subspan(static_cast<std::size_t>(i) * pageSize, pageSize));
  }
}

void File::requireUncut() const {
  struct stat info = {};
  const std::int64_t end = geometry_.offsetOf(pageCount() + 1);
  if (fstat(paged_.settings().fd, &info) != 0 || info.st_size < end) {
    throw Failure(Exit::badData, "was cut while it was read", name_)
        .tryThis("discard what was read, and try again");
  }
}

void File::write(std::int64_t page, std::span<const std::byte> bytes) {
  if (const auto done = paged_.write(bytes.data(), page); !done) {
    failAt("cannot write", page, done.error());
  }
}

void File::truncate(std::int64_t pages) {
  if (const auto done = paged_.truncate(pages); !done) fail("cannot truncate", done.error());
}

void File::writeHeader(std::span<const std::byte> bytes) {
  // A header that fills its area is written as it lies in memory, by direct I/O as well.
  const AlignedBuffer area(bytes.size());
  std::ranges::copy(bytes, area.data());
  auto length = static_cast<std::int32_t>(bytes.size());
  if (const auto done = paged_.writeHeader(area.data(), &length); !done) {
    fail("cannot write the header of", done.error());
  }
}

void File::flush() {
  if (const auto done = paged_.flush(); !done) fail("cannot write", done.error());
}

void File::finish() {
  flush();
  keepEmpty();
  if (const auto done = paged_.close(); !done) fail("cannot close", done.error());
}

void File::keepEmpty() {
  if (pageCount() == 0) paged_.settings().writeAccess = qz::noWrite;
}

void File::fail(const char* what, const qz::Error& error) const {
  throw moduleFailure(purpose_, what, name_, error);
}

void File::failAt(const char* what, std::int64_t page, const qz::Error& error) const {
  checkInterrupt();
  throw moduleFailure(purpose_, what, name_, error).at(page, geometry_.offsetOf(page));
}

}  // namespace qzpfile
