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
void copyOwn(Session& session, const Source& source, File& from, File& to, Progress& progress) {
  std::vector<std::byte> header = readHeader(session, source);
  header.resize(static_cast<std::size_t>(to.geometry().headerSize));
  PayloadWriter writer(to, progress);
  Progress reading(ProgressChoice::never, {}, std::nullopt);
  readPayload(from, reading, [&](std::span<const std::byte> bytes) { writer.append(bytes); });
  writer.finish(std::span(header).subspan(kHeaderBytes));
}

// Header and pages as they are.
void copyForeign(Session& session, const Source& source, File& from, File& to, Progress& progress) {
  if (source.geometry.headerSize > 0) to.writeHeader(readHeader(session, source));
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
  return ownGeometry(call.pageSize.value_or(source.geometry.pageSize),
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
  NewFile target(call.second, call.force);
  File to = File::create(session, target.temporaryName(), call.second, geometry, call.io,
                         source.measured.found);
  if (source.geometry.header) {
    copyOwn(session, source, from, to, progress);
  } else {
    copyForeign(session, source, from, to, progress);
  }
  target.commit();
  fmt::print("{}: {} of {} bytes, I/O {}\n", call.second, counted(to.pageCount(), "page"),
             geometry.pageSize, to.describeIo());
  return Exit::good;
}

}  // namespace qzpfile
