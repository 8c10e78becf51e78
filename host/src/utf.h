// UTF-8 of one code point at a time, shared by names, the converter and the journal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace qz {

// The most bytes that one code point takes.
inline constexpr std::size_t kUtf8Bytes = 4;

// encodeUtf8 for code points outside ASCII.
std::size_t encodeLong(char32_t point, char* bytes) noexcept;

// Stores the UTF-8 of one code point (`bytes` needs room for kUtf8Bytes) and returns its length; 0
// if the code point has no UTF-8. U+DC80 to U+DCFF stand for the single bytes 0x80 to 0xFF.
inline std::size_t encodeUtf8(char32_t point, char* bytes) noexcept {
  if (point >= 0x80) return encodeLong(point, bytes);
  *bytes = static_cast<char>(point);
  return 1;
}

// Appends the UTF-8 of `text`; returns false if a code point has none. May throw std::bad_alloc.
bool appendUtf8(std::u32string_view text, std::string* output);

}  // namespace qz
