#include "recordformat.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "header.hpp"
#include "numbers.hpp"

namespace qzpfile {
namespace {

constexpr std::string_view kMagic = "QZPREDO\x1A";
constexpr std::size_t kEntryBytes = 24;

// Offsets in the footer.
constexpr std::size_t kOwnOffsetAt = 8;
constexpr std::size_t kFirstPieceAt = 16;
constexpr std::size_t kPiecesAt = 24;
constexpr std::size_t kFinalBytesAt = 32;
constexpr std::size_t kTableChecksumAt = 40;
constexpr std::size_t kFooterChecksumAt = 56;

// Offsets in an entry of the table.
constexpr std::size_t kTargetAt = 0;
constexpr std::size_t kLengthAt = 8;
constexpr std::size_t kPieceChecksumAt = 16;

std::uint64_t bits(std::int64_t number) { return static_cast<std::uint64_t>(number); }

std::int64_t number(std::span<const std::byte> bytes, std::size_t at) {
  return static_cast<std::int64_t>(loadNumber(bytes, at));
}

std::array<std::byte, kFooterBytes> encodeFooter(const RecordFooter& footer) {
  std::array<std::byte, kFooterBytes> bytes{};
  std::ranges::copy(std::as_bytes(std::span(kMagic)), bytes.begin());
  storeNumber(bytes, kOwnOffsetAt, bits(footer.tableAt + footer.tableBytes));
  storeNumber(bytes, kFirstPieceAt, bits(footer.firstPiece));
  storeNumber(bytes, kPiecesAt, static_cast<std::uint64_t>(footer.tableBytes) / kEntryBytes);
  storeNumber(bytes, kFinalBytesAt, bits(footer.finalBytes));
  storeNumber(bytes, kTableChecksumAt, footer.tableChecksum);
  storeNumber(bytes, kFooterChecksumAt, checksumOf(std::span(bytes).first(kFooterChecksumAt)));
  return bytes;
}

}  // namespace

std::uint64_t pieceChecksum(std::span<const std::byte> bytes, std::int64_t target) {
  return checksumOf(bytes, bits(target));
}

std::vector<std::byte> encodeRecord(const ChangeRecord& record, std::int64_t end) {
  std::vector<std::byte> bytes(record.pieces.size() * kEntryBytes);
  std::size_t at = 0;
  for (const RecordedPiece& piece : record.pieces) {
    storeNumber(bytes, at + kTargetAt, bits(piece.target));
    storeNumber(bytes, at + kLengthAt, bits(piece.length));
    storeNumber(bytes, at + kPieceChecksumAt, piece.checksum);
    at += kEntryBytes;
  }
  const auto footer =
      encodeFooter({.firstPiece = record.pieces.empty() ? end : record.pieces.front().at,
                    .tableAt = end,
                    .tableBytes = static_cast<std::int64_t>(bytes.size()),
                    .finalBytes = record.finalBytes,
                    .tableChecksum = checksumOf(bytes)});
  bytes.insert(bytes.end(), footer.begin(), footer.end());
  return bytes;
}

std::optional<RecordFooter> decodeFooter(std::span<const std::byte> bytes, std::int64_t at) {
  if (!std::ranges::equal(bytes.first(kMagic.size()), std::as_bytes(std::span(kMagic))) ||
      loadNumber(bytes, kFooterChecksumAt) != checksumOf(bytes.first(kFooterChecksumAt)) ||
      number(bytes, kOwnOffsetAt) != at) {
    return std::nullopt;
  }
  const std::int64_t firstPiece = number(bytes, kFirstPieceAt);
  const std::int64_t pieces = number(bytes, kPiecesAt);
  const std::int64_t finalBytes = number(bytes, kFinalBytesAt);
  if (finalBytes < 0 || firstPiece < finalBytes || at < firstPiece || pieces < 0 ||
      pieces > (at - firstPiece) / std::int64_t{kEntryBytes}) {
    return std::nullopt;
  }
  const std::int64_t tableBytes = pieces * std::int64_t{kEntryBytes};
  return RecordFooter{.firstPiece = firstPiece,
                      .tableAt = at - tableBytes,
                      .tableBytes = tableBytes,
                      .finalBytes = finalBytes,
                      .tableChecksum = loadNumber(bytes, kTableChecksumAt)};
}

// The pieces must fill the space between the first one and the table exactly.
std::optional<ChangeRecord> decodeTable(std::span<const std::byte> table,
                                        const RecordFooter& footer) {
  if (checksumOf(table) != footer.tableChecksum) return std::nullopt;
  ChangeRecord record{.pieces = {}, .finalBytes = footer.finalBytes};
  std::int64_t at = footer.firstPiece;
  for (; !table.empty(); table = table.subspan(kEntryBytes)) {
    const RecordedPiece piece{.target = number(table, kTargetAt),
                              .length = number(table, kLengthAt),
                              .checksum = loadNumber(table, kPieceChecksumAt),
                              .at = at};
    if (piece.length < 0 || piece.length > footer.tableAt - at || piece.target < 0 ||
        piece.target > footer.finalBytes || piece.length > footer.finalBytes - piece.target) {
      return std::nullopt;
    }
    record.pieces.push_back(piece);
    at += piece.length;
  }
  return at == footer.tableAt ? std::optional(std::move(record)) : std::nullopt;
}

}  // namespace qzpfile
