#include "hexdump.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "terminal.hpp"

namespace qzpfile {
namespace {

void appendLine(std::string& out, std::span<const std::byte> bytes, std::int64_t offset,
                std::size_t perLine) {
  auto to = std::back_inserter(out);
  fmt::format_to(to, "{:08x} ", offset);
  for (std::size_t i = 0; i < perLine; ++i) {
    if (i % 8 == 0) out += ' ';
    if (i < bytes.size()) {
      fmt::format_to(to, "{:02x} ", std::to_integer<unsigned>(bytes[i]));
    } else {
      out += "   ";
    }
  }
  out += " |";
  for (const std::byte byte : bytes) {
    const char c = std::to_integer<char>(byte);
    out += c >= ' ' && c <= '~' ? c : '.';
  }
  out += "|\n";
}

}  // namespace

std::string hexDump(std::span<const std::byte> bytes, std::int64_t offset, std::size_t perLine) {
  std::string out;
  std::span<const std::byte> above;
  bool starred = false;
  for (std::size_t at = 0; at < bytes.size(); at += perLine) {
    const auto line = bytes.subspan(at, std::min(perLine, bytes.size() - at));
    const bool last = at + perLine >= bytes.size();
    if (!last && std::ranges::equal(line, above)) {
      if (!starred) out += "*\n";
      starred = true;
      continue;
    }
    starred = false;
    appendLine(out, line, offset + static_cast<std::int64_t>(at), perLine);
    above = line;
  }
  return out;
}

std::size_t bytesPerLine() {
  const std::size_t width = isTerminal(STDOUT_FILENO) ? terminalWidth(STDOUT_FILENO) : 80;
  std::size_t perLine = 16;
  // Eight offset digits, four columns per byte, and separators.
  while (perLine > 4 && 13 + 4 * perLine + perLine / 8 > width) perLine /= 2;
  return perLine;
}

}  // namespace qzpfile
