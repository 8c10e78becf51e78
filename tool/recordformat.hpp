// The record of a change as bytes; docs/file-format.md describes it byte by byte. Pure functions:
// decoding accepts anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace qzpfile {

// Bytes that a change writes elsewhere in the file.
struct RecordedPiece {
  std::int64_t target = 0;  // the file offset where they belong
  std::int64_t length = 0;
  std::uint64_t checksum = 0;
  std::int64_t at = 0;  // the file offset where they are now

  friend bool operator==(const RecordedPiece&, const RecordedPiece&) = default;
};

// A committed change.
struct ChangeRecord {
  std::vector<RecordedPiece> pieces;
  std::int64_t finalBytes = 0;  // the file's length after the change
};

inline constexpr std::int64_t kFooterBytes = 64;

// What a footer says about the table before it. All offsets lie within the file, in this order:
// 0 <= finalBytes <= firstPiece <= tableAt.
struct RecordFooter {
  std::int64_t firstPiece = 0;  // file offset, as tableAt
  std::int64_t tableAt = 0;
  std::int64_t tableBytes = 0;
  std::int64_t finalBytes = 0;
  std::uint64_t tableChecksum = 0;
};

// Seeded with the offset where the piece belongs.
std::uint64_t pieceChecksum(std::span<const std::byte> bytes, std::int64_t target);

// The table of the pieces and the footer. Both follow the last piece, which ends at `end`.
std::vector<std::byte> encodeRecord(const ChangeRecord& record, std::int64_t end);

// bytes: kFooterBytes bytes from file offset `at`. Nothing if they are not a footer.
std::optional<RecordFooter> decodeFooter(std::span<const std::byte> bytes, std::int64_t at);

// table: the footer's tableBytes bytes. Nothing if they are not that table, or if a piece belongs
// outside the final file.
std::optional<ChangeRecord> decodeTable(std::span<const std::byte> table,
                                        const RecordFooter& footer);

}  // namespace qzpfile
