#include "geometry.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <string_view>

#include "sizes.hpp"

namespace qzpfile {
namespace {

std::uint32_t bigEndian(std::span<const std::byte> bytes) {
  std::uint32_t value = 0;
  for (const std::byte byte : bytes) value = value << 8 | std::to_integer<std::uint32_t>(byte);
  return value;
}

bool isSqlitePageSize(std::uint32_t size) {
  return size >= 512 && size <= 65536 && std::has_single_bit(size);
}

std::optional<Geometry> recogniseDatabase(std::span<const std::byte> bytes) {
  constexpr std::string_view kMagic("SQLite format 3\0", 16);
  if (bytes.size() < kMagic.size() + 2 ||
      !std::equal(kMagic.begin(), kMagic.end(), bytes.begin(),
                  [](char m, std::byte b) { return std::byte(m) == b; })) {
    return std::nullopt;
  }
  const std::uint32_t stored = bigEndian(bytes.subspan(16, 2));
  const std::uint32_t pageSize = stored == 1 ? 65536 : stored;
  if (!isSqlitePageSize(pageSize)) {
    return std::nullopt;
  }
  return Geometry{.kind = FileKind::sqliteDatabase,
                  .pageSize = static_cast<std::int32_t>(pageSize),
                  .headerSize = 0,
                  .header = std::nullopt,
                  .pagesPerGroup = 0};
}

std::optional<Geometry> recogniseWal(std::span<const std::byte> bytes) {
  constexpr std::size_t kWalHeaderBytes = 32;
  constexpr std::uint32_t kFrameHeaderBytes = 24;
  constexpr std::uint32_t kMagic = 0x377F0682;  // the lowest bit tells the checksums' byte order
  if (bytes.size() < kWalHeaderBytes || (bigEndian(bytes.first(4)) & ~1U) != kMagic) {
    return std::nullopt;
  }
  const std::uint32_t pageSize = bigEndian(bytes.subspan(8, 4));
  if (!isSqlitePageSize(pageSize)) {
    return std::nullopt;
  }
  return Geometry{.kind = FileKind::sqliteWal,
                  .pageSize = static_cast<std::int32_t>(kFrameHeaderBytes + pageSize),
                  .headerSize = kWalHeaderBytes,
                  .header = std::nullopt,
                  .pagesPerGroup = 0};
}

const char* faultText(HeaderFault fault) {
  switch (fault) {
    case HeaderFault::foreign:
      return "is not a paged file of a known kind";
    case HeaderFault::cut:
      return "ends inside its header";
    case HeaderFault::noVersion:
      return "has a damaged header: there is no version 0 of the file format";
    case HeaderFault::version:
      return "was written in a later version of the file format";
    case HeaderFault::checksum:
      return "has a damaged header: its checksum does not match";
    case HeaderFault::flags:
      return "has flags that this program does not know";
    case HeaderFault::reserved:
      return "has a header whose reserved bytes are not 0";
    case HeaderFault::values:
      return "has a header with impossible sizes";
  }
  return "";
}

}  // namespace

Geometry geometryOf(const Header& header) {
  return Geometry{.kind = FileKind::own,
                  .pageSize = header.pageSize,
                  .headerSize = header.headerSize,
                  .header = header,
                  .pagesPerGroup = pagesPerGroup(header.version, header.pageSize)};
}

std::variant<Geometry, std::string> recognise(std::span<const std::byte> firstBytes) {
  if (firstBytes.empty()) {
    return std::string("is empty");
  }
  if (const auto database = recogniseDatabase(firstBytes)) return *database;
  if (const auto wal = recogniseWal(firstBytes)) return *wal;
  const std::variant<Header, HeaderFault> own = decodeHeader(firstBytes);
  if (const auto* fault = std::get_if<HeaderFault>(&own)) {
    return std::string(faultText(*fault));
  }
  return geometryOf(std::get<Header>(own));
}

bool isOwn(std::span<const std::byte> firstBytes) {
  const std::variant<Header, HeaderFault> own = decodeHeader(firstBytes);
  const auto* const fault = std::get_if<HeaderFault>(&own);
  return fault == nullptr || *fault != HeaderFault::foreign;
}

const char* advice(std::span<const std::byte> firstBytes) {
  const std::variant<Header, HeaderFault> own = decodeHeader(firstBytes);
  const auto* const fault = std::get_if<HeaderFault>(&own);
  if (firstBytes.empty() || (fault != nullptr && *fault == HeaderFault::cut)) {
    return "get a complete copy of the file";
  }
  if (fault != nullptr && (*fault == HeaderFault::version || *fault == HeaderFault::flags ||
                           *fault == HeaderFault::reserved)) {
    return "use a later version of this program";
  }
  if (fault != nullptr && *fault != HeaderFault::foreign) {
    return "qzpfile repair; or write a valid header: qzpfile header --raw --page-size N "
           "--header-size N --set INPUT; --raw reads the pages as they are";
  }
  return "if it is a paged file anyway, give its sizes: --raw --page-size N --header-size N";
}

const char* kindName(FileKind kind) {
  switch (kind) {
    case FileKind::own:
      return "qzpfile";
    case FileKind::sqliteDatabase:
      return "SQLite database";
    case FileKind::sqliteWal:
      return "SQLite write-ahead log";
    case FileKind::raw:
      return "raw";
  }
  return "";
}

Measure measure(const Geometry& geometry, std::int64_t fileBytes) {
  Measure result{.found = fileBytes, .inHeader = fileBytes < geometry.headerSize};
  const std::int64_t afterHeader = std::max<std::int64_t>(fileBytes - geometry.headerSize, 0);
  result.storedPages = afterHeader / geometry.pageSize;
  result.wholePages = geometry.payloadPagesIn(result.storedPages);
  result.leftOver = afterHeader % geometry.pageSize;
  result.expected = geometry.header ? geometry.header->fileBytes()
                                    : geometry.headerSize + result.wholePages * geometry.pageSize;
  return result;
}

std::string notWholeText(const Measure& measured, const Geometry& geometry) {
  const std::string found =
      measured.inHeader
          ? fmt::format("found {}, which ends inside the header of {}",
                        counted(measured.found, "byte"), counted(geometry.headerSize, "byte"))
          : fmt::format("found {}: a header of {}, {} of {} and {}",
                        counted(measured.found, "byte"), geometry.headerSize,
                        counted(measured.wholePages, "whole page"), geometry.pageSize,
                        counted(measured.leftOver, "left-over byte"));
  if (geometry.header) {
    return fmt::format("has the wrong length: expected {} ({}), {}",
                       counted(measured.expected, "byte"),
                       counted(geometry.header->pageCount(), "page"), found);
  }
  const std::string cause = geometry.kind == FileKind::raw
                                ? fmt::format("does not fit --page-size {} --header-size {}",
                                              geometry.pageSize, geometry.headerSize)
                                : std::string("has the wrong length");
  if (measured.inHeader) return fmt::format("{}: {}", cause, found);
  // The next page may end past the largest possible offset.
  const auto next =
      static_cast<std::uint64_t>(measured.expected) + static_cast<std::uint64_t>(geometry.pageSize);
  return fmt::format("{}: expected {} or {} bytes, {}", cause, measured.expected, next, found);
}

std::int64_t likelyPageSize(std::int64_t bytes) {
  for (std::int64_t size = 64 << 10; size >= 512; size /= 2) {
    if (bytes >= size && bytes % size == 0) return size;
  }
  return 0;
}

}  // namespace qzpfile
