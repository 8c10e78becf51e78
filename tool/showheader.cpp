// qzpfile header FILE, header --set INPUT FILE: the bytes before page 1.
#include <fmt/format.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "commands.hpp"
#include "hexdump.hpp"
#include "streams.hpp"
#include "terminal.hpp"

namespace qzpfile {
namespace {

void showHeader(Session& session, const Source& source) {
  const std::vector<std::byte> header = readHeader(session, source);
  if (isTerminal(STDOUT_FILENO)) {
    fmt::print("{}", hexDump(header, 0, bytesPerLine()));
    return;
  }
  Output output(STDOUT_FILENO, "standard output");
  output.write(header);
  output.flush();
}

// Reads the new header; refuses more bytes than there is room for.
std::vector<std::byte> readNewHeader(const std::string& from, std::int64_t room) {
  Input input(from);
  Progress quiet(ProgressChoice::never, {}, std::nullopt);
  std::vector<std::byte> bytes(static_cast<std::size_t>(room) + 1);
  bytes.resize(input.read(bytes, quiet));
  if (bytes.empty()) {
    throw Failure(Exit::noInput, "is empty: there is no header in it", input.name());
  }
  if (static_cast<std::int64_t>(bytes.size()) > room) {
    throw Failure(Exit::badData,
                  fmt::format("is too long: the header has room for {}", counted(room, "byte")),
                  input.name());
  }
  return bytes;
}

// The header of a file of the tool's own must go on telling the truth.
void checkFits(const std::vector<std::byte>& bytes, const Source& source) {
  const Header& now = *source.geometry.header;
  const auto decoded = decodeHeader(bytes);
  const Header* const header = std::get_if<Header>(&decoded);
  if (header == nullptr || header->changing || header->pageSize != now.pageSize ||
      header->headerSize != now.headerSize || header->pageCount() != now.pageCount()) {
    throw Failure(Exit::badData, "takes only a header that fits its pages, and this one does not",
                  source.name)
        .tryThis("to write any header, describe the file: --raw --page-size N --header-size N");
  }
}

}  // namespace

Exit runHeader(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source source = examineWhole(session, call.first, rawGeometry(call));
  const std::int64_t room = source.geometry.headerSize;
  if (room == 0) {
    throw Failure(Exit::badData, "has no header: its pages begin at its first byte", call.first);
  }
  if (!call.setFrom) {
    showHeader(session, source);
    return Exit::good;
  }
  const std::vector<std::byte> bytes = readNewHeader(*call.setFrom, room);
  if (source.geometry.header) checkFits(bytes, source);
  File file = File::openToChange(session, source, call.io);
  file.writeHeader(bytes);
  file.finish();
  fmt::print("{}: header replaced, {}\n", call.first,
             counted(static_cast<std::int64_t>(bytes.size()), "byte"));
  return Exit::good;
}

}  // namespace qzpfile
