// How a file is divided into header and pages: recognised by its first bytes, checked against its
// length. Pure functions, safe on any bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>

#include "header.hpp"

namespace qzpfile {

enum class FileKind {
  own,             // packed by this tool
  sqliteDatabase,  // no header of its own: page 1 begins the file
  sqliteWal,       // 32 bytes, then frames of 24 bytes and a page
  raw,             // anything, as the command line describes it
};

struct Geometry {
  FileKind kind = FileKind::raw;
  std::int32_t pageSize = 0;     // bytes, at least 1
  std::int64_t headerSize = 0;   // bytes, at least 0
  std::optional<Header> header;  // the tool's own files only

  // File offset of a page, counted from 1.
  std::int64_t offsetOf(std::int64_t page) const { return headerSize + (page - 1) * pageSize; }
};

// First bytes of a file that suffice to recognise it.
inline constexpr std::int32_t kRecognitionBytes = kHeaderBytes;

// The geometry that the first bytes tell (all of them when the file is shorter than
// kRecognitionBytes), or in words why they tell none.
std::variant<Geometry, std::string> recognise(std::span<const std::byte> firstBytes);

// What to do about a file that is not recognised by these first bytes.
const char* advice(std::span<const std::byte> firstBytes);

// "qzpfile", "SQLite database", ...
const char* kindName(FileKind kind);

// A file's length held against its geometry.
struct Measure {
  std::int64_t found = 0;       // bytes
  std::int64_t expected = 0;    // bytes: as the own header promises, else header and whole pages
  std::int64_t wholePages = 0;  // found after the header
  std::int64_t leftOver = 0;    // bytes found after the last whole page
  bool inHeader = false;        // the file ends before its header does

  bool isWhole() const { return found == expected; }
};

Measure measure(const Geometry& geometry, std::int64_t fileBytes);

// What a file that is not whole lacks or has too much, in words.
std::string describe(const Measure& measured, const Geometry& geometry);

// Direct I/O moves whole multiples of this many bytes to offsets that are multiples of it on every
// usual device. Sizes that the tool picks fit it, so that a file can be copied anywhere.
inline constexpr std::int64_t kDirectAlignment = 4096;

}  // namespace qzpfile
