// qzpfile unpack INPUT OUTPUT: restores what was packed.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "commands.hpp"
#include "newfile.hpp"
#include "payload.hpp"
#include "report.hpp"
#include "streams.hpp"

namespace qzpfile {

Exit runUnpack(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineToRead(session, call.first, std::nullopt, call.keepGoing);
  if (!source.geometry.header) {
    throw Failure(Exit::badData,
                  fmt::format("is a {}, not a file made by pack", kindName(source.geometry.kind)),
                  call.first)
        .tryThis("use copy to copy it, or cat to read its pages");
  }
  File file = File::openToRead(session, source, call.io, Use::wholeFile);
  const bool toStandardOutput = call.second == "-";
  if (toStandardOutput) refuseAsOutput(file.fd(), call.first);
  Progress progress(call.progress, "unpack", source.geometry.header->payloadBytes);

  std::optional<NewFile> target;
  if (!toStandardOutput) target.emplace(call.second, call.force, originOf(file.handle().fd));
  Output output(target ? target->fd() : STDOUT_FILENO,
                target ? call.second : std::string("standard output"), call.sparse,
                target.has_value());
  const bool good =
      readPayload(file, progress, call.keepGoing ? listDamage(call.first) : OnDamage(),
                  [&](std::span<const std::byte> bytes) { output.write(bytes); });
  output.finish();
  const Exit exit = good && !source.isPartial ? Exit::good : Exit::badData;
  if (!target) {
    return exit;
  }
  if (fsync(target->fd()) != 0) {
    throw systemFailure(Purpose::output, "cannot write", call.second, errno);
  }
  target->commit();
  progress.end();
  const Header& header = *source.geometry.header;
  const char* const state = !good              ? "damaged pages as they are"
                            : source.isPartial ? "missing pages left out"
                                               : "checksum good";
  reportResult(
      call, exit, "unpack", call.second,
      fmt::format("{}, {}, I/O {}", counted(header.payloadBytes, "byte"), state, file.describeIo()),
      {{"payload_size", header.payloadBytes},
       {"payload_checksum", fmt::format("{:016x}", header.payloadChecksum)},
       {"io", file.io()}});
  return exit;
}

}  // namespace qzpfile
