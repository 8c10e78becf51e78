// The header that the tool gives its own files; docs/file-format.md describes it byte by byte.
// Encoding and decoding are pure functions over bytes: decode accepts anything.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

namespace qzpfile {

// Bytes of the header that mean something; the rest, up to `headerSize`, is free.
inline constexpr std::size_t kHeaderBytes = 64;

// Limits of the tool's own files, in bytes. A header fits one qzpwritehdr call.
inline constexpr std::int64_t kMinPageSize = 512;
inline constexpr std::int64_t kMaxPageSize = 0x40000000;
inline constexpr std::int64_t kMaxHeaderSize = 0x40000000;

struct Header {
  std::int32_t pageSize = 0;    // bytes
  std::int32_t headerSize = 0;  // bytes; where page 1 begins
  // A change of pages has begun and not ended: payload and checksum are not to be trusted.
  bool changing = false;
  std::int64_t payloadBytes = 0;
  std::uint64_t payloadChecksum = 0;  // the sum of pageChecksum over all pages

  // Pages that hold the payload, the last one padded with zeros.
  std::int64_t pageCount() const {
    return payloadBytes / pageSize + (payloadBytes % pageSize == 0 ? 0 : 1);
  }
  std::int64_t fileBytes() const { return headerSize + pageCount() * pageSize; }

  friend bool operator==(const Header&, const Header&) = default;
};

// Why bytes are not a header.
enum class HeaderFault {
  foreign,   // they do not begin with the magic: another kind of file
  cut,       // the magic is there, but fewer than kHeaderBytes
  version,   // written by a later version
  checksum,  // the header's own checksum does not fit: damaged
  values,    // a field is out of its range
};

std::array<std::byte, kHeaderBytes> encodeHeader(const Header& header);
std::variant<Header, HeaderFault> decodeHeader(std::span<const std::byte> bytes);

// One page's share of the payload checksum: XXH3 (64 bits) of its bytes, seeded with its number
// so that pages that changed places do not go unnoticed. Shares are added without carry out.
std::uint64_t pageChecksum(std::span<const std::byte> page, std::int64_t pageNumber);

}  // namespace qzpfile
