// How a file is divided into header and pages. The first bytes identify the file, and its length is
// checked. Pure functions, safe on any bytes.
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
  own,             // packed by this tool: a packed file
  sqliteDatabase,  // no separate header: page 1 begins the file
  sqliteWal,       // 32 bytes, then frames of 24 bytes and a page
  raw,             // any file, as the command line describes it
};

struct Geometry {
  FileKind kind = FileKind::raw;
  std::int32_t pageSize = 0;     // bytes, at least 1
  std::int64_t headerSize = 0;   // bytes, at least 0
  std::optional<Header> header;  // packed files only
  // Pages that follow each checksum page; 0: there are no checksum pages.
  std::int64_t pagesPerGroup = 0;

  // The group of a page, counted from 0.
  std::int64_t groupOf(std::int64_t page) const {
    return pagesPerGroup == 0 ? 0 : (page - 1) / pagesPerGroup;
  }
  std::int64_t firstOfGroup(std::int64_t group) const { return group * pagesPerGroup + 1; }

  // The position of a page, or of a group's checksum page, among all stored pages, counted from 1:
  // the module's page number.
  std::int64_t storedPage(std::int64_t page) const {
    return pagesPerGroup == 0 ? page : page + groupOf(page) + 1;
  }
  std::int64_t storedChecksums(std::int64_t group) const { return group * (pagesPerGroup + 1) + 1; }

  // How many of the first `stored` stored pages are payload pages.
  std::int64_t payloadPagesIn(std::int64_t stored) const {
    return pagesPerGroup == 0 ? stored : stored - groupCount(stored, pagesPerGroup + 1);
  }

  // File offsets. `page` is a payload page, counted from 1.
  std::int64_t offsetOf(std::int64_t page) const { return storedOffset(storedPage(page)); }
  std::int64_t storedOffset(std::int64_t stored) const {
    return headerSize + (stored - 1) * pageSize;
  }
};

// The geometry of a packed file.
Geometry geometryOf(const Header& header);

// The number of first bytes that suffice to recognise a file.
inline constexpr std::int32_t kRecognitionBytes = kHeaderBytes;

// The geometry that the first bytes describe (all bytes if the file is shorter than
// kRecognitionBytes), or the reason why they describe none.
std::variant<Geometry, std::string> recognise(std::span<const std::byte> firstBytes);

// True when the bytes begin like the header of a packed file, valid or not.
bool isOwn(std::span<const std::byte> firstBytes);

// What to do about a file that is not recognised by these first bytes.
const char* advice(std::span<const std::byte> firstBytes);

// "qzpfile", "SQLite database", ...
const char* kindName(FileKind kind);

// A file's length compared with its geometry.
struct Measure {
  std::int64_t found = 0;     // bytes
  std::int64_t expected = 0;  // bytes: as a packed file's header says, else header and whole pages
  std::int64_t storedPages = 0;  // whole pages found after the header
  std::int64_t wholePages = 0;   // payload pages among them
  std::int64_t leftOver = 0;     // bytes found after the last whole page
  bool inHeader = false;         // the file ends before its header does

  bool isWhole() const { return found == expected; }
};

Measure measure(const Geometry& geometry, std::int64_t fileBytes);

// Describes what is missing from, or left over in, a file of the wrong length.
std::string notWholeText(const Measure& measured, const Geometry& geometry);

// The largest usual page size (a power of two from 512 bytes to 64 KiB) that divides `bytes`. 0:
// none does.
std::int64_t likelyPageSize(std::int64_t bytes);

// On every usual device, direct I/O accepts sizes and offsets that are multiples of this many
// bytes. Sizes that the tool chooses are multiples of it, so that a file can be copied anywhere.
inline constexpr std::int64_t kDirectAlignment = 4096;

}  // namespace qzpfile
