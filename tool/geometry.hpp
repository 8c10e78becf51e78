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
  // Pages that follow each checksum page; 0: there are no checksum pages.
  std::int64_t pagesPerGroup = 0;

  // The group of a page, counted from 0.
  std::int64_t groupOf(std::int64_t page) const {
    return pagesPerGroup == 0 ? 0 : (page - 1) / pagesPerGroup;
  }
  std::int64_t firstOfGroup(std::int64_t group) const { return group * pagesPerGroup + 1; }

  // Where a page, or the checksum page of a group, stands among all pages that the file stores,
  // counted from 1: the page number that the module knows it by.
  std::int64_t storedPage(std::int64_t page) const {
    return pagesPerGroup == 0 ? page : page + groupOf(page) + 1;
  }
  std::int64_t storedChecksums(std::int64_t group) const { return group * (pagesPerGroup + 1) + 1; }

  // How many of the first `stored` pages are payload pages.
  std::int64_t payloadPagesIn(std::int64_t stored) const {
    return pagesPerGroup == 0 ? stored : stored - groupCount(stored, pagesPerGroup + 1);
  }

  // File offsets. Pages are counted from 1, as everywhere but in the module.
  std::int64_t offsetOf(std::int64_t page) const { return storedOffset(storedPage(page)); }
  std::int64_t storedOffset(std::int64_t stored) const {
    return headerSize + (stored - 1) * pageSize;
  }
};

// The geometry of one of the tool's own files.
Geometry geometryOf(const Header& header);

// First bytes of a file that suffice to recognise it.
inline constexpr std::int32_t kRecognitionBytes = kHeaderBytes;

// The geometry that the first bytes tell (all of them when the file is shorter than
// kRecognitionBytes), or in words why they tell none.
std::variant<Geometry, std::string> recognise(std::span<const std::byte> firstBytes);

// True when the bytes begin like the header of one of the tool's own files, sound or not.
bool isOwn(std::span<const std::byte> firstBytes);

// What to do about a file that is not recognised by these first bytes.
const char* advice(std::span<const std::byte> firstBytes);

// "qzpfile", "SQLite database", ...
const char* kindName(FileKind kind);

// A file's length held against its geometry.
struct Measure {
  std::int64_t found = 0;        // bytes
  std::int64_t expected = 0;     // bytes: as the own header promises, else header and whole pages
  std::int64_t storedPages = 0;  // whole pages found after the header
  std::int64_t wholePages = 0;   // the same without checksum pages
  std::int64_t leftOver = 0;     // bytes found after the last whole page
  bool inHeader = false;         // the file ends before its header does

  bool isWhole() const { return found == expected; }
};

Measure measure(const Geometry& geometry, std::int64_t fileBytes);

// What a file that is not whole lacks or has too much, in words.
std::string notWholeText(const Measure& measured, const Geometry& geometry);

// A usual page size, a power of two from 512 bytes to 64 KiB, of which `bytes` are whole pages: the
// largest. 0: there is none.
std::int64_t likelyPageSize(std::int64_t bytes);

// Direct I/O moves whole multiples of this many bytes to offsets that are multiples of it on every
// usual device. Sizes that the tool picks fit it, so that a file can be copied anywhere.
inline constexpr std::int64_t kDirectAlignment = 4096;

}  // namespace qzpfile
