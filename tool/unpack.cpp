// qzpfile unpack INPUT OUTPUT: a packed file becomes what it was made from.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "commands.hpp"
#include "newfile.hpp"
#include "payload.hpp"
#include "streams.hpp"

namespace qzpfile {

Exit runUnpack(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, std::nullopt);
  if (!source.geometry.header) {
    throw Failure(Exit::badData,
                  fmt::format("is a {}, which pack did not make", kindName(source.geometry.kind)),
                  call.first)
        .tryThis("use copy for a copy of it, or cat for its pages");
  }
  File file = File::openToRead(session, source, call.io, Use::wholeFile);
  const bool toStandardOutput = call.second == "-";
  Progress progress(call.progress, "unpack", source.geometry.header->payloadBytes);

  std::optional<NewFile> target;
  if (!toStandardOutput) target.emplace(call.second, call.force);
  Output output(target ? target->fd() : STDOUT_FILENO,
                target ? call.second : std::string("standard output"));
  readPayload(file, progress, [&](std::span<const std::byte> bytes) { output.write(bytes); });
  output.flush();
  if (!target) {
    return Exit::good;
  }
  if (fsync(target->fd()) != 0) {
    throw systemFailure(Purpose::output, "cannot write", call.second, errno);
  }
  target->commit();
  fmt::print("{}: {}, checksum good, I/O {}\n", call.second,
             counted(source.geometry.header->payloadBytes, "byte"), file.describeIo());
  return Exit::good;
}

}  // namespace qzpfile
