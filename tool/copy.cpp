// qzpfile copy SRC DST: page by page; the tool's own files also into pages of another size.
#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "commands.hpp"
#include "newfile.hpp"
#include "payload.hpp"

namespace qzpfile {
namespace {

// The payload, checked on the way, in pages of the new size.
bool copyOwn(const Source& source, File& from, File& to, const OnDamage& onDamage,
             Progress& progress) {
  std::vector<std::byte> header = readHeader(source);
  header.resize(static_cast<std::size_t>(to.geometry().headerSize));
  PayloadWriter writer(to, progress);
  Progress reading(ProgressChoice::never, {}, std::nullopt);
  const bool good = readPayload(from, reading, onDamage,
                                [&](std::span<const std::byte> bytes) { writer.append(bytes); });
  writer.finish(std::span(header).subspan(kHeaderBytes));
  return good;
}

// Header and pages as they are.
void copyForeign(const Source& source, File& from, File& to, Progress& progress) {
  if (source.geometry.headerSize > 0) to.writeHeader(readHeader(source));
  for (std::int64_t page = 1; page <= from.pageCount(); ++page) {
    const qz::PageHold hold = from.read(page);
    to.write(page, bytesOf(hold));
    progress.advance(source.geometry.pageSize);
  }
  to.finish();
}

Geometry targetGeometry(const Invocation& call, const Source& source) {
  if (!source.geometry.header) {
    if (!call.raw && (call.pageSize || call.headerSize)) {
      throw Failure(Exit::usage,
                    fmt::format("is a {}: its sizes are part of it and cannot be changed",
                                kindName(source.geometry.kind)),
                    call.first)
          .tryThis("leave out --page-size and --header-size");
    }
    return source.geometry;
  }
  return ownGeometry(call.formatVersion, call.pageSize.value_or(source.geometry.pageSize),
                     call.headerSize.value_or(source.geometry.headerSize), call.second);
}

}  // namespace

Exit runCopy(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  if (source.measured.found == 0) {
    throw Failure(Exit::badData, "is empty: there is nothing to copy", call.first);
  }
  const Geometry geometry = targetGeometry(call, source);
  Progress progress(call.progress, "copy", source.measured.found - source.geometry.headerSize);

  File from = File::openToRead(session, source, call.io, Use::wholeFile);
  NewFile target(call.second, call.force, originOf(from.handle().fd));
  File to =
      File::create(session, target.path(), call.second, geometry, call.io, source.measured.found);
  bool good = true;
  if (source.geometry.header) {
    const OnDamage onDamage = call.keepGoing ? listDamage(call.first) : OnDamage();
    good = copyOwn(source, from, to, onDamage, progress);
  } else {
    copyForeign(source, from, to, progress);
  }
  const std::int64_t pages =
      source.geometry.header ? to.geometry().payloadPagesIn(to.pageCount()) : to.pageCount();
  target.commit();
  fmt::print("{}: {} of {} bytes, I/O {}\n", call.second, counted(pages, "page"), geometry.pageSize,
             to.describeIo());
  if (good) return Exit::good;
  fmt::print("{}: damaged pages were copied as they are, with checksums that fit them\n",
             call.second);
  return Exit::badData;
}

}  // namespace qzpfile
