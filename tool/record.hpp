// The record of a change to a packed file. It is written after the end of the file before any byte
// in place changes. docs/file-format.md describes the record byte by byte and says what is on disk
// at each moment.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "plainfile.hpp"
#include "recordformat.hpp"

namespace qzpfile {

// The record at the end of the file; nothing if there is no valid one.
std::optional<ChangeRecord> readRecord(const PlainFile& file);

// Reads the bytes of one piece.
std::vector<std::byte> readPiece(const PlainFile& file, const RecordedPiece& piece);

// Writes the pieces to their targets, truncates the file to its final length, and flushes. Can be
// repeated after an interruption at any point.
void applyRecord(const PlainFile& file, const ChangeRecord& record);

class RecordWriter {
 public:
  // at: the file offset of the first piece. file: must outlive this.
  RecordWriter(const PlainFile& file, std::int64_t at) : file_(file), end_(at) {}

  void add(std::int64_t target, std::span<const std::byte> bytes);
  // Flushes everything that the change consists of, then writes and flushes the record: the change
  // is committed.
  ChangeRecord commit(std::int64_t finalBytes);

 private:
  const PlainFile& file_;
  std::int64_t end_;
  std::vector<RecordedPiece> pieces_;
};

}  // namespace qzpfile
