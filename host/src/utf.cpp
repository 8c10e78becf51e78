// UTF-32 to UTF-8 and back; bytes that are not UTF-8 become U+DC80 to U+DCFF.
#include "utf.h"

#include <algorithm>
#include <cstdint>

#include "qzstandin.h"

namespace qz {
namespace {

constexpr char32_t kByteEscapes = 0xDC00;  // plus the byte
constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLastPoint = 0x10FFFF;

bool isSurrogate(char32_t point) { return point >= 0xD800 && point <= 0xDFFF; }

char byteOf(char32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); }

// The length of the sequence that a lead byte starts, and the smallest code point of that length.
struct Lead {
  std::size_t length;
  char32_t bits;
  char32_t smallest;
};

Lead leadOf(unsigned char byte) {
  if (byte < 0x80) return {1, byte, 0};
  if (byte >= 0xC0 && byte < 0xE0) return {2, byte & 0x1FU, 0x80};
  if (byte >= 0xE0 && byte < 0xF0) return {3, byte & 0x0FU, 0x800};
  if (byte >= 0xF0 && byte < 0xF8) return {4, byte & 0x07U, 0x10000};
  return {0, 0, 0};
}

// The code point at the start of `bytes`, and its length; length 0: not UTF-8.
Lead decodeUtf8(std::string_view bytes) {
  Lead lead = leadOf(static_cast<unsigned char>(bytes.front()));
  if (lead.length > bytes.size()) return {0, 0, 0};
  for (std::size_t i = 1; i < lead.length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0U) != 0x80U) return {0, 0, 0};
    lead.bits = (lead.bits << 6U) | (byte & 0x3FU);
  }
  const bool valid =
      lead.bits >= lead.smallest && lead.bits <= kLastPoint && !isSurrogate(lead.bits);
  return valid ? lead : Lead{0, 0, 0};
}

}  // namespace

std::size_t encodeLong(char32_t point, char* bytes) noexcept {
  if (point < 0x800) {
    bytes[0] = byteOf(0xC0U | (point >> 6U));
    bytes[1] = byteOf(0x80U | (point & 0x3FU));
    return 2;
  }
  if (isSurrogate(point)) {
    if (point < kByteEscapes + 0x80 || point > kByteEscapes + 0xFF) return 0;
    bytes[0] = byteOf(point - kByteEscapes);
    return 1;
  }
  if (point < 0x10000) {
    bytes[0] = byteOf(0xE0U | (point >> 12U));
    bytes[1] = byteOf(0x80U | ((point >> 6U) & 0x3FU));
    bytes[2] = byteOf(0x80U | (point & 0x3FU));
    return 3;
  }
  if (point > kLastPoint) return 0;
  bytes[0] = byteOf(0xF0U | (point >> 18U));
  bytes[1] = byteOf(0x80U | ((point >> 12U) & 0x3FU));
  bytes[2] = byteOf(0x80U | ((point >> 6U) & 0x3FU));
  bytes[3] = byteOf(0x80U | (point & 0x3FU));
  return 4;
}

bool appendUtf8(std::u32string_view text, std::string* output) {
  std::size_t used = output->size();
  output->resize(used + text.size() * kUtf8Bytes);
  std::size_t length = 1;
  for (std::size_t i = 0; i < text.size() && length != 0; ++i) {
    length = encodeUtf8(text[i], output->data() + used);
    used += length;
  }
  output->resize(used);
  return length != 0;
}

std::string toUtf8(std::u32string_view text) {
  std::string result;
  result.reserve(text.size());
  char bytes[kUtf8Bytes];
  for (const char32_t point : text) {
    std::size_t length = encodeUtf8(point, bytes);
    if (length == 0) length = encodeUtf8(kReplacement, bytes);
    result.append(bytes, length);
  }
  return result;
}

std::u32string toUtf32(std::string_view text) {
  std::u32string result;
  result.reserve(text.size());
  const auto* const asciiEnd = std::find_if(text.begin(), text.end(),
                                            [](char c) { return static_cast<signed char>(c) < 0; });
  result.assign(text.begin(), asciiEnd);
  text.remove_prefix(result.size());
  while (!text.empty()) {
    const Lead point = decodeUtf8(text);
    if (point.length == 0) {
      result.push_back(kByteEscapes + static_cast<unsigned char>(text.front()));
      text.remove_prefix(1);
    } else {
      result.push_back(point.bits);
      text.remove_prefix(point.length);
    }
  }
  return result;
}

}  // namespace qz
