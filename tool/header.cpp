#include "header.hpp"

#ifdef __x86_64__
#include <xxh_x86dispatch.h>  // with the widest vectors that the processor has
#else
#define XXH_INLINE_ALL
#include <xxhash.h>
#endif

#include <algorithm>

#include "numbers.hpp"

namespace qzpfile {
namespace {

// The 0x1A ends the text for programs that treat the file as text.
constexpr std::array<unsigned char, 8> kMagic = {'Q', 'Z', 'P', 'F', 'I', 'L', 'E', 0x1A};
constexpr std::uint32_t kChanging = 0x1;
constexpr std::uint32_t kPreparing = 0x2;

// Offsets of the fields, little-endian.
constexpr std::size_t kVersionAt = 8;
constexpr std::size_t kFlagsAt = 12;
constexpr std::size_t kPageSizeAt = 16;
constexpr std::size_t kHeaderSizeAt = 20;
constexpr std::size_t kPayloadBytesAt = 24;
constexpr std::size_t kPayloadChecksumAt = 32;
constexpr std::size_t kReservedAt = 40;
constexpr std::size_t kHeaderChecksumAt = 56;  // over all bytes before it

std::uint64_t headerChecksum(std::span<const std::byte> bytes) {
  return XXH3_64bits(bytes.data(), kHeaderChecksumAt);
}

bool beginsWithMagic(std::span<const std::byte> bytes) {
  return bytes.size() >= kMagic.size() &&
         std::equal(kMagic.begin(), kMagic.end(), bytes.begin(),
                    [](unsigned char m, std::byte b) { return std::byte{m} == b; });
}

bool within(std::uint64_t value, std::int64_t least, std::int64_t most) {
  return value >= static_cast<std::uint64_t>(least) && value <= static_cast<std::uint64_t>(most);
}

// True when setting or clearing kPreparing was interrupted: each byte of the flag and of the
// header's checksum is either old or new.
bool isFlaggedInPart(std::span<const std::byte> bytes) {
  std::array<std::byte, kHeaderBytes> other{};
  std::ranges::copy(bytes.first(kHeaderBytes), other.begin());
  other[kFlagsAt] ^= std::byte{kPreparing};
  std::array<std::byte, 16> either{};
  storeNumber(either, 0, headerChecksum(bytes));
  storeNumber(either, 8, headerChecksum(other));
  for (std::size_t i = 0; i < 8; ++i) {
    const std::byte stored = bytes[kHeaderChecksumAt + i];
    if (stored != either[i] && stored != either[8 + i]) return false;
  }
  return true;
}

}  // namespace

std::array<std::byte, kHeaderBytes> encodeHeader(const Header& header) {
  std::array<std::byte, kHeaderBytes> bytes{};
  std::transform(kMagic.begin(), kMagic.end(), bytes.begin(),
                 [](unsigned char m) { return std::byte{m}; });
  storeNumber<std::uint32_t>(bytes, kVersionAt, static_cast<std::uint32_t>(header.version));
  storeNumber<std::uint32_t>(
      bytes, kFlagsAt, (header.changing ? kChanging : 0U) | (header.preparing ? kPreparing : 0U));
  storeNumber<std::uint32_t>(bytes, kPageSizeAt, static_cast<std::uint32_t>(header.pageSize));
  storeNumber<std::uint32_t>(bytes, kHeaderSizeAt, static_cast<std::uint32_t>(header.headerSize));
  storeNumber(bytes, kPayloadBytesAt, static_cast<std::uint64_t>(header.payloadBytes));
  storeNumber(bytes, kPayloadChecksumAt, header.payloadChecksum);
  storeNumber(bytes, kHeaderChecksumAt, headerChecksum(bytes));
  return bytes;
}

std::variant<Header, HeaderFault> decodeHeader(std::span<const std::byte> bytes) {
  if (!beginsWithMagic(bytes)) return HeaderFault::foreign;
  if (bytes.size() < kHeaderBytes) return HeaderFault::cut;
  const auto version = loadNumber<std::uint32_t>(bytes, kVersionAt);
  if (version == 0) return HeaderFault::noVersion;
  if (version > kLatestVersion) return HeaderFault::version;
  auto flags = loadNumber<std::uint32_t>(bytes, kFlagsAt);
  if (loadNumber(bytes, kHeaderChecksumAt) != headerChecksum(bytes)) {
    if (!isFlaggedInPart(bytes)) return HeaderFault::checksum;
    flags |= kPreparing;
  }
  if ((flags & ~(kChanging | kPreparing)) != 0) return HeaderFault::flags;
  if (loadNumber(bytes, kReservedAt) != 0 || loadNumber(bytes, kReservedAt + 8) != 0) {
    return HeaderFault::reserved;
  }
  const auto pageSize = loadNumber<std::uint32_t>(bytes, kPageSizeAt);
  const auto headerSize = loadNumber<std::uint32_t>(bytes, kHeaderSizeAt);
  const auto payloadBytes = loadNumber(bytes, kPayloadBytesAt);
  if (!within(pageSize, kMinPageSize, kMaxPageSize) ||
      !within(headerSize, kHeaderBytes, kMaxHeaderSize) || !within(payloadBytes, 0, kMaxPayload)) {
    return HeaderFault::values;
  }
  return Header{.version = static_cast<int>(version),
                .pageSize = static_cast<std::int32_t>(pageSize),
                .headerSize = static_cast<std::int32_t>(headerSize),
                .changing = (flags & kChanging) != 0,
                .preparing = (flags & kPreparing) != 0,
                .payloadBytes = static_cast<std::int64_t>(payloadBytes),
                .payloadChecksum = loadNumber(bytes, kPayloadChecksumAt)};
}

std::uint64_t pageChecksum(std::span<const std::byte> page, std::int64_t pageNumber) {
  return checksumOf(page, static_cast<std::uint64_t>(pageNumber));
}

std::uint64_t checksumOf(std::span<const std::byte> bytes, std::uint64_t seed) {
  return XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed);
}

}  // namespace qzpfile
