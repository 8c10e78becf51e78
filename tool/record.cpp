#include "record.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "header.hpp"

namespace qzpfile {
namespace {

constexpr std::string_view kMagic = "QZPREDO\x1A";
constexpr std::size_t kEntryBytes = 24;
constexpr std::size_t kFooterBytes = 64;

// Offsets in the footer.
constexpr std::size_t kOwnOffsetAt = 8;
constexpr std::size_t kFirstPieceAt = 16;
constexpr std::size_t kPiecesAt = 24;
constexpr std::size_t kFinalBytesAt = 32;
constexpr std::size_t kTableChecksumAt = 40;
constexpr std::size_t kFooterChecksumAt = 56;

using Footer = std::array<std::byte, kFooterBytes>;

std::uint64_t bits(std::int64_t number) { return static_cast<std::uint64_t>(number); }

std::int64_t number(std::span<const std::byte> bytes, std::size_t at) {
  return static_cast<std::int64_t>(loadNumber(bytes, at));
}

Footer encodeFooter(std::int64_t offset, std::int64_t firstPiece, std::span<const std::byte> table,
                    std::int64_t finalBytes) {
  Footer footer{};
  std::ranges::copy(std::as_bytes(std::span(kMagic)), footer.begin());
  storeNumber(footer, kOwnOffsetAt, bits(offset));
  storeNumber(footer, kFirstPieceAt, bits(firstPiece));
  storeNumber(footer, kPiecesAt, table.size() / kEntryBytes);
  storeNumber(footer, kFinalBytesAt, bits(finalBytes));
  storeNumber(footer, kTableChecksumAt, checksumOf(table));
  storeNumber(footer, kFooterChecksumAt, checksumOf(std::span(footer).first(kFooterChecksumAt)));
  return footer;
}

bool isFooter(const Footer& footer, std::int64_t offset) {
  return std::ranges::equal(std::span(footer).first(kMagic.size()),
                            std::as_bytes(std::span(kMagic))) &&
         loadNumber(footer, kFooterChecksumAt) ==
             checksumOf(std::span(footer).first(kFooterChecksumAt)) &&
         number(footer, kOwnOffsetAt) == offset;
}

std::vector<std::byte> encodeTable(const std::vector<RecordedPiece>& pieces) {
  std::vector<std::byte> table(pieces.size() * kEntryBytes);
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    storeNumber(table, i * kEntryBytes, bits(pieces[i].target));
    storeNumber(table, i * kEntryBytes + 8, bits(pieces[i].length));
    storeNumber(table, i * kEntryBytes + 16, pieces[i].checksum);
  }
  return table;
}

// The table's entries, if they fill the space between the first piece and the table exactly.
bool decodeTable(std::span<const std::byte> table, std::int64_t firstPiece, std::int64_t tableAt,
                 std::vector<RecordedPiece>* pieces) {
  std::int64_t at = firstPiece;
  for (; !table.empty(); table = table.subspan(kEntryBytes)) {
    const RecordedPiece piece{.target = number(table, 0),
                              .length = number(table, 8),
                              .checksum = loadNumber(table, 16),
                              .at = at};
    if (piece.target < 0 || piece.length < 0 || piece.length > tableAt - at) return false;
    pieces->push_back(piece);
    at += piece.length;
  }
  return at == tableAt;
}

std::uint64_t pieceChecksum(std::span<const std::byte> bytes, std::int64_t target) {
  return checksumOf(bytes, bits(target));
}

}  // namespace

std::optional<ChangeRecord> readRecord(const PlainFile& file) {
  const std::int64_t footerAt = file.size() - static_cast<std::int64_t>(kFooterBytes);
  Footer footer{};
  if (footerAt < 0 || !file.read(footer, footerAt) || !isFooter(footer, footerAt)) {
    return std::nullopt;
  }
  const std::int64_t firstPiece = number(footer, kFirstPieceAt);
  const std::int64_t count = number(footer, kPiecesAt);
  if (firstPiece < 0 || firstPiece > footerAt || count < 0 ||
      count > (footerAt - firstPiece) / static_cast<std::int64_t>(kEntryBytes)) {
    return std::nullopt;
  }
  std::vector<std::byte> table(static_cast<std::size_t>(count) * kEntryBytes);
  const std::int64_t tableAt = footerAt - static_cast<std::int64_t>(table.size());
  ChangeRecord record{.pieces = {}, .finalBytes = number(footer, kFinalBytesAt)};
  if (!file.read(table, tableAt) || checksumOf(table) != loadNumber(footer, kTableChecksumAt) ||
      !decodeTable(table, firstPiece, tableAt, &record.pieces)) {
    return std::nullopt;
  }
  const bool sound = std::ranges::all_of(record.pieces, [&](const RecordedPiece& piece) {
    return pieceChecksum(readPiece(file, piece), piece.target) == piece.checksum;
  });
  return sound ? std::optional(std::move(record)) : std::nullopt;
}

std::vector<std::byte> readPiece(const PlainFile& file, const RecordedPiece& piece) {
  std::vector<std::byte> bytes(static_cast<std::size_t>(piece.length));
  file.read(bytes, piece.at);  // a file that was cut meanwhile does not fit the checksum
  return bytes;
}

void applyRecord(const PlainFile& file, const ChangeRecord& record) {
  for (const RecordedPiece& piece : record.pieces) {
    file.write(readPiece(file, piece), piece.target);
  }
  file.sync();
  file.truncate(record.finalBytes);
  file.sync();
}

void RecordWriter::add(std::int64_t target, std::span<const std::byte> bytes) {
  file_.write(bytes, end_);
  const auto length = static_cast<std::int64_t>(bytes.size());
  pieces_.push_back(
      {.target = target, .length = length, .checksum = pieceChecksum(bytes, target), .at = end_});
  end_ += length;
}

ChangeRecord RecordWriter::decide(std::int64_t finalBytes) {
  file_.sync();
  const std::int64_t firstPiece = pieces_.empty() ? end_ : pieces_.front().at;
  std::vector<std::byte> table = encodeTable(pieces_);
  const std::int64_t footerAt = end_ + static_cast<std::int64_t>(table.size());
  const Footer footer = encodeFooter(footerAt, firstPiece, table, finalBytes);
  table.insert(table.end(), footer.begin(), footer.end());
  file_.write(table, end_);
  file_.sync();
  return {.pieces = std::move(pieces_), .finalBytes = finalBytes};
}

}  // namespace qzpfile
