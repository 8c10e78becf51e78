// A change of one of the tool's own files, recorded behind the end of the file before a byte in
// place changes; docs/file-format.md describes the record byte by byte and says what is on disk at
// each moment.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "plainfile.hpp"
#include "recordformat.hpp"

namespace qzpfile {

// The record that the file ends with; nothing when there is none that is valid.
std::optional<ChangeRecord> readRecord(const PlainFile& file);

// One piece's bytes.
std::vector<std::byte> readPiece(const PlainFile& file, const RecordedPiece& piece);

// Puts the pieces where they belong and cuts the file to its final length, all of it on disk. Can
// be done again after it was interrupted at any point.
void applyRecord(const PlainFile& file, const ChangeRecord& record);

// Writes a record.
class RecordWriter {
 public:
  // The first piece is written at `at`. file: must outlive this.
  RecordWriter(const PlainFile& file, std::int64_t at) : file_(file), end_(at) {}

  void add(std::int64_t target, std::span<const std::byte> bytes);
  // Puts everything on disk that the change consists of, then the record: the change is decided.
  ChangeRecord decide(std::int64_t finalBytes);

 private:
  const PlainFile& file_;
  std::int64_t end_;
  std::vector<RecordedPiece> pieces_;
};

}  // namespace qzpfile
