#include "record.hpp"

#include <algorithm>
#include <array>
#include <utility>

namespace qzpfile {

std::optional<ChangeRecord> readRecord(const PlainFile& file) {
  const std::int64_t footerAt = file.size() - kFooterBytes;
  std::array<std::byte, kFooterBytes> bytes{};
  if (footerAt < 0 || !file.read(bytes, footerAt)) return std::nullopt;
  const std::optional<RecordFooter> footer = decodeFooter(bytes, footerAt);
  if (!footer) return std::nullopt;
  std::vector<std::byte> table(static_cast<std::size_t>(footer->tableBytes));
  if (!file.read(table, footer->tableAt)) return std::nullopt;
  std::optional<ChangeRecord> record = decodeTable(table, *footer);
  const auto fits = [&file](const RecordedPiece& piece) {
    return pieceChecksum(readPiece(file, piece), piece.target) == piece.checksum;
  };
  return record && std::ranges::all_of(record->pieces, fits) ? record : std::nullopt;
}

std::vector<std::byte> readPiece(const PlainFile& file, const RecordedPiece& piece) {
  std::vector<std::byte> bytes(static_cast<std::size_t>(piece.length));
  file.read(bytes, piece.at);  // if the file became shorter meanwhile, the checksum does not match
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

ChangeRecord RecordWriter::commit(std::int64_t finalBytes) {
  file_.sync();
  ChangeRecord record{.pieces = std::move(pieces_), .finalBytes = finalBytes};
  file_.write(encodeRecord(record, end_), end_);
  file_.sync();
  return record;
}

}  // namespace qzpfile
