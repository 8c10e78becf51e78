#include "text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <numeric>

namespace qzpfile {
namespace {

struct Character {
  std::int32_t code;  // -1: the byte is not UTF-8
  std::size_t bytes;
};

// The first character of a text that is not empty.
Character firstOf(std::string_view text) {
  constexpr Character kWrong = {.code = -1, .bytes = 1};
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return {.code = static_cast<std::int32_t>(lead), .bytes = 1};
  const std::size_t bytes = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < bytes) return kWrong;
  std::uint32_t code = lead & (0x7FU >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) return kWrong;
    code = code << 6U | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kLeast[bytes] || code > 0x10FFFF || surrogate) return kWrong;
  return {.code = static_cast<std::int32_t>(code), .bytes = bytes};
}

bool isControl(std::int32_t code) { return code < 0x20 || (code >= 0x7F && code <= 0x9F); }

// Marks that change the writing direction, and line separators.
bool isMark(std::int32_t code) {
  return code == 0x61C || code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

// The edit distance: letters to insert, remove or replace to turn one word into the other.
std::size_t editsBetween(std::string_view one, std::string_view other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < other.size(); ++j) {
      const std::size_t exchanged = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({exchanged, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const Character character = firstOf(text);
    if (character.code < 0) return false;
    text.remove_prefix(character.bytes);
  }
  return true;
}

std::string printable(std::string_view text) {
  std::string out;
  const auto to = std::back_inserter(out);
  while (!text.empty()) {
    const Character character = firstOf(text);
    const std::string_view bytes = text.substr(0, character.bytes);
    if (character.code == '\n') {
      out += "\\n";
    } else if (character.code == '\r') {
      out += "\\r";
    } else if (character.code == '\t') {
      out += "\\t";
    } else if (bytes.size() == 1 && isControl(character.code)) {
      fmt::format_to(to, "\\x{:02x}", static_cast<unsigned char>(bytes.front()));
    } else if (isControl(character.code) || isMark(character.code)) {
      fmt::format_to(to, "\\u{:04x}", character.code);
    } else {
      out += bytes;
    }
    text.remove_prefix(bytes.size());
  }
  return out;
}

std::string hexOf(std::string_view bytes) {
  std::string out;
  for (const char byte : bytes) {
    fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(byte));
  }
  return out;
}

std::string closest(std::string_view word, const std::vector<std::string>& known) {
  std::string best;
  std::size_t fewest = word.size() / 3 + 2;  // a word with more edits is another word
  for (const std::string& candidate : known) {
    if (const std::size_t edits = editsBetween(word, candidate); edits < fewest) {
      fewest = edits;
      best = candidate;
    }
  }
  return best;
}

}  // namespace qzpfile
