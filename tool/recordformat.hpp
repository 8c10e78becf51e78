// The record of a change as bytes; docs/file-format.md describes it byte by byte. Pure functions:
// decoding accepts anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace qzpfile {

// Bytes that belong elsewhere.
struct RecordedPiece {
  std::int64_t target = 0;  // where they belong; file offset, as `at`
  std::int64_t length = 0;
  std::uint64_t checksum = 0;
  std::int64_t at = 0;  // where they are

  friend bool operator==(const RecordedPiece&, const RecordedPiece&) = default;
};

// A change that is decided.
struct ChangeRecord {
  std::vector<RecordedPiece> pieces;
  std::int64_t finalBytes = 0;  // the file's length after the change
};

inline constexpr std::int64_t kFooterBytes = 64;

// What a footer says of the table before it. All offsets lie within the file, in this order:
// 0 <= finalBytes <= firstPiece <= tableAt.
struct RecordFooter {
  std::int64_t firstPiece = 0;  // file offset, as tableAt
  std::int64_t tableAt = 0;
  std::int64_t tableBytes = 0;
  std::int64_t finalBytes = 0;
  std::uint64_t tableChecksum = 0;
};

// Seeded with the place where the piece belongs.
std::uint64_t pieceChecksum(std::span<const std::byte> bytes, std::int64_t target);

// The table of the pieces and the footer, which follow the last piece at `end`.
std::vector<std::byte> encodeRecord(const ChangeRecord& record, std::int64_t end);

// bytes: kFooterBytes of them, which a file has at `at`. Nothing when they are no footer.
std::optional<RecordFooter> decodeFooter(std::span<const std::byte> bytes, std::int64_t at);

// table: the footer's tableBytes of them. Nothing when they are not that table, or when a piece
// does not belong within the file as it will be.
std::optional<ChangeRecord> decodeTable(std::span<const std::byte> table,
                                        const RecordFooter& footer);

}  // namespace qzpfile
