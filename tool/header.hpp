// The header of packed files and the checksums of their pages. docs/file-format.md describes both
// byte by byte. Encoding and decoding are pure functions over bytes: decode accepts anything.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

namespace qzpfile {

// Bytes of the header that have a meaning; the rest, up to `headerSize`, is free.
inline constexpr std::size_t kHeaderBytes = 64;

// Limits of packed files, in bytes. One qzpwritehdr call can write the largest header.
inline constexpr std::int64_t kMinPageSize = 512;
inline constexpr std::int64_t kMaxPageSize = 0x40000000;
inline constexpr std::int64_t kMaxHeaderSize = 0x40000000;
inline constexpr std::int64_t kMaxPayload = std::int64_t{1} << 62;

inline constexpr int kLatestVersion = 2;

// Payload pages that share a checksum page; 0: the version has no checksum pages.
constexpr std::int64_t pagesPerGroup(int version, std::int64_t pageSize) {
  return version == 1 ? 0 : pageSize / 8 - 1;
}

// The number of groups, and so of checksum pages, for `pages` payload pages.
constexpr std::int64_t groupCount(std::int64_t pages, std::int64_t perGroup) {
  return perGroup == 0 ? 0 : pages / perGroup + (pages % perGroup == 0 ? 0 : 1);
}

struct Header {
  int version = kLatestVersion;
  std::int32_t pageSize = 0;    // bytes
  std::int32_t headerSize = 0;  // bytes; where the pages begin
  // The pages are being written: payload size and checksum are not valid yet.
  bool changing = false;
  // A change is being prepared after the end of the file; what the header describes is intact.
  bool preparing = false;
  std::int64_t payloadBytes = 0;
  std::uint64_t payloadChecksum = 0;  // the sum of pageChecksum over all pages

  // Pages that hold the payload, the last one padded with zeros.
  std::int64_t pageCount() const {
    return payloadBytes / pageSize + (payloadBytes % pageSize == 0 ? 0 : 1);
  }
  // Payload pages and checksum pages.
  std::int64_t storedPages() const {
    return pageCount() + groupCount(pageCount(), pagesPerGroup(version, pageSize));
  }
  std::int64_t fileBytes() const { return headerSize + storedPages() * pageSize; }

  friend bool operator==(const Header&, const Header&) = default;
};

// Why bytes are not a header.
enum class HeaderFault {
  foreign,    // they do not begin with the magic: another kind of file
  cut,        // the magic is there, but fewer than kHeaderBytes
  noVersion,  // version 0, which never existed
  version,    // written in a later version
  checksum,   // the header's own checksum does not match: damaged
  flags,      // a flag that this version does not know
  reserved,   // reserved bytes are not 0
  values,     // a field is out of its range
};

std::array<std::byte, kHeaderBytes> encodeHeader(const Header& header);
std::variant<Header, HeaderFault> decodeHeader(std::span<const std::byte> bytes);

// One page's share of the payload checksum: XXH3 (64 bits) of its bytes, seeded with its number so
// that swapped pages are found. Shares are added modulo 2^64.
std::uint64_t pageChecksum(std::span<const std::byte> page, std::int64_t pageNumber);

// XXH3 (64 bits) of any bytes.
std::uint64_t checksumOf(std::span<const std::byte> bytes, std::uint64_t seed = 0);

}  // namespace qzpfile
