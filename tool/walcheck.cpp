#include "walcheck.hpp"

#include <algorithm>

namespace qzpfile {
namespace {

constexpr std::size_t kHeaderChecksumAt = 24;
constexpr std::size_t kHeaderSaltsAt = 16;
constexpr std::size_t kFrameSaltsAt = 8;
constexpr std::size_t kFrameChecksumAt = 16;
constexpr std::size_t kFrameHeaderBytes = 24;

std::uint32_t wordAt(std::span<const std::byte> bytes, std::size_t at, bool bigEndian) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    word = word << 8 | std::to_integer<std::uint32_t>(bytes[at + (bigEndian ? i : 3 - i)]);
  }
  return word;
}

}  // namespace

// The lowest bit of the magic gives the byte order of the words that are summed; the sums
// themselves are stored big-endian.
WalCheck::WalCheck(std::span<const std::byte> header)
    : bigEndian_((header[3] & std::byte{1}) != std::byte{0}) {
  std::ranges::copy(header.subspan(kHeaderSaltsAt, salts_.size()), salts_.begin());
  sum_ = sumOf({}, header.first(kHeaderChecksumAt));
  headerGood_ = sum_ == Sum{wordAt(header, kHeaderChecksumAt, true),
                            wordAt(header, kHeaderChecksumAt + 4, true)};
}

bool WalCheck::take(std::span<const std::byte> frame) {
  if (!std::ranges::equal(frame.subspan(kFrameSaltsAt, salts_.size()), salts_)) {
    ++leftOver_;
    return true;
  }
  if (leftOver_ > 0) return false;  // the frames skipped so far belong to this log and are damaged
  ++frames_;
  const Sum stored = {wordAt(frame, kFrameChecksumAt, true),
                      wordAt(frame, kFrameChecksumAt + 4, true)};
  const Sum sum = sumOf(sumOf(sum_, frame.first(8)), frame.subspan(kFrameHeaderBytes));
  sum_ = stored;
  return sum == stored;
}

WalCheck::Sum WalCheck::sumOf(Sum sum, std::span<const std::byte> bytes) const {
  for (std::size_t at = 0; at + 8 <= bytes.size(); at += 8) {
    sum[0] += wordAt(bytes, at, bigEndian_) + sum[1];
    sum[1] += wordAt(bytes, at + 4, bigEndian_) + sum[0];
  }
  return sum;
}

}  // namespace qzpfile
