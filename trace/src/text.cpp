#include "text.h"

namespace qz::trace {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

}  // namespace

// One UTF-16 code unit: half of a surrogate pair, or a whole character.
void Text::escape(char32_t unit) {
  constexpr char digits[] = "0123456789abcdef";
  const char escaped[] = {'\\',
                          'u',
                          digits[unit >> 12 & 0xF],
                          digits[unit >> 8 & 0xF],
                          digits[unit >> 4 & 0xF],
                          digits[unit & 0xF]};
  add({escaped, sizeof escaped});
}

void Text::character(char32_t c) {
  if (c >= 0x20 && c < 0x7F && c != U'"' && c != U'\\') {
    const char plain = static_cast<char>(c);
    add({&plain, 1});
  } else if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
    escape(kReplacement);
  } else if (c < 0x10000) {
    escape(c);
  } else {
    escape(0xD800 + ((c - 0x10000) >> 10));
    escape(0xDC00 + (c & 0x3FF));
  }
}

void Text::string(const char32_t* text, std::size_t length) {
  add("\"");
  for (std::size_t i = 0; i < length; ++i) character(text[i]);
  add("\"");
}

void Text::string(const char* path) {
  add("\"");
  for (; *path != '\0'; ++path) {
    const auto value = static_cast<unsigned char>(*path);
    character(value < 0x80 ? value : kReplacement);
  }
  add("\"");
}

}  // namespace qz::trace
