// qzpfile header FILE, header --set INPUT FILE: reads or replaces the bytes before page 1.
#include <fmt/format.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.hpp"
#include "edit.hpp"
#include "hexdump.hpp"
#include "report.hpp"
#include "streams.hpp"
#include "terminal.hpp"

namespace qzpfile {
namespace {

void showHeader(const Source& source) {
  const std::vector<std::byte> header = readHeader(source);
  if (isTerminal(STDOUT_FILENO)) {
    fmt::print("{}", hexDump(header, 0, bytesPerLine()));
    return;
  }
  Output output(STDOUT_FILENO, "standard output");
  output.write(header);
  output.flush();
}

// Reads the new header; throws if it is longer than `room`.
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

// The header of a packed file must describe its pages.
void checkFits(const std::vector<std::byte>& bytes, const Source& source) {
  const Header& now = *source.geometry.header;
  const auto decoded = decodeHeader(bytes);
  const Header* const header = std::get_if<Header>(&decoded);
  if (header == nullptr || header->changing || header->preparing ||
      header->version != now.version || header->pageSize != now.pageSize ||
      header->headerSize != now.headerSize || header->pageCount() != now.pageCount()) {
    throw Failure(Exit::badData, "needs a header that matches its pages; the new one does not",
                  source.name)
        .tryThis("to write any header, give the file's sizes: --raw --page-size N --header-size N");
  }
}

void requireRoom(const Source& source) {
  if (source.geometry.headerSize == 0) {
    throw Failure(Exit::badData, "has no header: its pages begin at its first byte", source.name);
  }
}

}  // namespace

Exit runHeader(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  if (!call.setFrom) {
    const Source source = examineWhole(session, call.first, rawGeometry(call));
    requireRoom(source);
    refuseAsOutput(source.look->settings().fd, call.first);
    showHeader(source);
    return Exit::good;
  }
  PageEditor editor(session, call.first, rawGeometry(call), call.io);
  requireRoom(editor.source());
  std::vector<std::byte> bytes = readNewHeader(*call.setFrom, editor.source().geometry.headerSize);
  if (editor.isOwn()) checkFits(bytes, editor.source());
  const auto length = static_cast<std::int64_t>(bytes.size());
  try {
    editor.replaceHeader(std::move(bytes));
    editor.finish();
  } catch (Failure& failure) {
    failure.note(describe(editor.giveUp()));
    throw;
  }
  reportResult(call, Exit::good, "header", call.first,
               fmt::format("header replaced, {}", counted(length, "byte")), {{"bytes", length}});
  return Exit::good;
}

}  // namespace qzpfile
