// qzpfile pack INPUT OUTPUT: makes a paged file of a file or pipe.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "commands.hpp"
#include "newfile.hpp"
#include "payload.hpp"
#include "report.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

// The page size, so that each page lies at a multiple of its size and the page cache can keep it in
// one piece; at most 64 KiB, because more would be much for a header. If the page size is not
// aligned for direct I/O, the header size is.
std::int64_t defaultHeaderSize(std::int64_t pageSize) {
  constexpr std::int64_t kLargest = 64 << 10;
  return pageSize % kDirectAlignment == 0 ? std::min(pageSize, kLargest) : kDirectAlignment;
}

// The largest size that the module chooses by itself: good for moving whole files.
std::int64_t defaultPageSize(Session& session, const std::string& name) {
  qz::PagedFile file = session.newFile(name, Purpose::output);
  qz::PageSizeRequest request{};
  request.minimumSize = kDirectAlignment;
  if (const auto chosen = file.choosePageSize(request); !chosen) {
    throw moduleFailure(Purpose::output, "cannot choose a page size", name, chosen.error());
  }
  return file.settings().pageSize;
}

}  // namespace

Exit runPack(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  Input input(call.first);
  const std::int64_t pageSize =
      call.pageSize ? *call.pageSize : defaultPageSize(session, call.second);
  const std::int64_t headerSize = call.headerSize ? *call.headerSize : defaultHeaderSize(pageSize);
  const Geometry geometry = ownGeometry(call.formatVersion, pageSize, headerSize, call.second);
  const std::optional<std::int64_t> total = input.size();
  Progress progress(call.progress, "pack", total);

  NewFile target(call.second, call.force, originOf(input.fd()));
  File file = File::create(session, target.path(), call.second, geometry, call.io, total);
  PayloadWriter writer(file, progress);
  while (const std::size_t bytes = input.read(writer.room(), progress)) writer.filled(bytes);
  const Header header = writer.finish({});
  target.commit();

  progress.end();
  reportResult(
      call, Exit::good, "pack", call.second,
      fmt::format("{} of {} bytes, {} of payload, I/O {}", counted(header.pageCount(), "page"),
                  header.pageSize, counted(header.payloadBytes, "byte"), file.describeIo()),
      {{"pages", header.pageCount()},
       {"page_size", header.pageSize},
       {"header_size", header.headerSize},
       {"payload_size", header.payloadBytes},
       {"payload_checksum", fmt::format("{:016x}", header.payloadChecksum)},
       {"io", file.io()}});
  return Exit::good;
}

}  // namespace qzpfile
