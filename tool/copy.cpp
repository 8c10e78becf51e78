// qzpfile copy SRC DST: copies page by page; packed files also into pages of another size.
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "commands.hpp"
#include "newfile.hpp"
#include "payload.hpp"
#include "report.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

// Copies the payload into pages of the new size and checks it.
bool copyOwn(const Source& source, File& from, File& to, const OnDamage& onDamage,
             HolePuncher& holes, Progress& progress) {
  std::vector<std::byte> header = readHeader(source);
  header.resize(static_cast<std::size_t>(to.geometry().headerSize));
  PayloadWriter writer(to, progress);
  Progress reading(ProgressChoice::never, {}, std::nullopt);
  const std::int64_t pageSize = to.geometry().pageSize;
  std::int64_t position = 0;  // in the payload
  const bool good = readPayload(from, reading, onDamage, [&](std::span<const std::byte> bytes) {
    writer.append(bytes);
    while (!bytes.empty()) {
      const std::int64_t inPage = position % pageSize;
      const auto part =
          bytes.first(std::min(bytes.size(), static_cast<std::size_t>(pageSize - inPage)));
      holes.wrote(to.geometry().offsetOf(position / pageSize + 1) + inPage, part);
      position += static_cast<std::int64_t>(part.size());
      bytes = bytes.subspan(part.size());
    }
  });
  writer.finish(std::span(header).subspan(kHeaderBytes));
  return good;
}

// Copies header and pages as they are.
void copyForeign(const Source& source, File& from, File& to, HolePuncher& holes,
                 Progress& progress) {
  if (source.geometry.headerSize > 0) to.writeHeader(readHeader(source));
  EarlyWrites early(to.io().mode == IoChoice::buffered ? to.fd() : -1);
  for (std::int64_t page = 1; page <= from.pageCount(); ++page) {
    const qz::PageHold hold = from.read(page);
    to.write(page, bytesOf(hold));
    early.wroteUpTo(source.geometry.offsetOf(page + 1));
    holes.wrote(source.geometry.offsetOf(page), bytesOf(hold));
    progress.advance(source.geometry.pageSize);
  }
  to.finish();
}

Geometry targetGeometry(const Invocation& call, const Source& source) {
  if (!source.geometry.header) {
    if (!call.raw && (call.pageSize || call.headerSize)) {
      throw Failure(Exit::usage,
                    fmt::format("is a {}: its page and header sizes cannot be changed",
                                kindName(source.geometry.kind)),
                    call.first)
          .tryThis("leave out --page-size and --header-size");
    }
    return source.geometry;
  }
  return ownGeometry(call.formatVersion, call.pageSize.value_or(source.geometry.pageSize),
                     call.headerSize.value_or(source.geometry.headerSize), call.second);
}

// The changes that SQLite has logged since the last checkpoint are part of the database.
void warnOfLog(const std::string& database) {
  const std::string log = database + "-wal";
  struct stat info = {};
  if (stat(log.c_str(), &info) == 0 && info.st_size > 0) {
    warn(database,
         fmt::format("changes in {} are not in the copy: copy that file too, as the copy's "
                     "name plus -wal, while nobody writes to the database",
                     log));
  }
}

}  // namespace

Exit runCopy(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineToRead(session, call.first, rawGeometry(call), call.keepGoing);
  if (source.measured.found == 0) {
    throw Failure(Exit::badData, "is empty: there is nothing to copy", call.first);
  }
  const Geometry geometry = targetGeometry(call, source);
  Progress progress(call.progress, "copy", source.measured.found - source.geometry.headerSize);

  File from = File::openToRead(session, source, call.io, Use::wholeFile);
  NewFile target(call.second, call.force, originOf(from.handle().fd));
  File to =
      File::create(session, target.path(), call.second, geometry, call.io, source.measured.found);
  // The module and the payload writer both collect pages before they write them.
  const std::int64_t lag = 2 * std::int64_t{to.handle().blockBytes} + (1 << 20);
  HolePuncher holes(call.sparse ? target.fd() : -1, lag + 2 * std::int64_t{geometry.pageSize});
  bool good = true;
  if (source.geometry.header) {
    const OnDamage onDamage = call.keepGoing ? listDamage(call.first) : OnDamage();
    good = copyOwn(source, from, to, onDamage, holes, progress);
  } else {
    copyForeign(source, from, to, holes, progress);
  }
  holes.finish();
  const std::int64_t pages =
      source.geometry.header ? to.geometry().payloadPagesIn(to.pageCount()) : to.pageCount();
  target.commit();
  progress.end();
  const Exit exit = good && !source.isPartial ? Exit::good : Exit::badData;
  reportResult(call, exit, "copy", call.second,
               fmt::format("{} of {}, I/O {}", counted(pages, "page"),
                           counted(geometry.pageSize, "byte"), to.describeIo()),
               {{"pages", pages},
                {"page_size", geometry.pageSize},
                {"header_size", geometry.headerSize},
                {"io", to.io()}});
  if (!good)
    warn(call.second, "damaged pages were copied as they are, with new checksums that match them");
  if (source.geometry.kind == FileKind::sqliteDatabase) warnOfLog(call.first);
  return exit;
}

}  // namespace qzpfile
