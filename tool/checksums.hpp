// The checksum pages of version 2: one before each group of payload pages.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>

#include "failure.hpp"
#include "geometry.hpp"
#include "streams.hpp"

namespace qzpfile {

class File;

// One checksum page in memory.
class ChecksumPage {
 public:
  explicit ChecksumPage(const Geometry& geometry);

  std::int64_t group() const { return group_; }
  // Becomes the page of a group without pages.
  void clear(std::int64_t group);
  // Becomes what is stored for the group. False when that does not match its own checksum.
  bool load(std::int64_t group, std::span<const std::byte> stored);
  // page: one of the group.
  std::uint64_t of(std::int64_t page) const;
  void set(std::int64_t page, std::uint64_t checksum);
  // As it is to be stored.
  std::span<const std::byte> seal();

 private:
  std::size_t slotOf(std::int64_t page) const;
  std::uint64_t ownChecksum() const;

  Geometry geometry_;
  std::int64_t group_ = -1;
  AlignedBuffer bytes_;
};

// Looks up the checksums of a file's pages. Reads a checksum page where a new group begins: the
// caller must not hold a page then.
class PageChecksums {
 public:
  // file: must outlive this.
  explicit PageChecksums(File& file);

  // The checksum that the page should have; nothing when the file has none for it, because of
  // its version or because the checksum page is damaged.
  std::optional<std::uint64_t> of(std::int64_t page);

 private:
  File& file_;
  std::optional<ChecksumPage> current_;  // none: the file has no checksum pages
  bool fits_ = false;
};

// Keeps the checksum pages true while pages are written in ascending order. The checksum page of a
// new group is written twice: before the group, to keep its place, and complete.
class ChecksumWriter {
 public:
  using Store = std::function<void(std::int64_t group, std::span<const std::byte> page)>;

  // geometry: of the file as it will be. oldGroups: groups that the file has already; storeOld:
  // takes their pages, which are not written in place. file: must outlive this.
  ChecksumWriter(File& file, const Geometry& geometry, std::int64_t oldGroups, Store storeOld);

  // To be called before the page is written; returns the checksum that it had, 0 for a new page.
  std::uint64_t note(std::int64_t page, std::uint64_t checksum);
  // Stores the checksum page that is not complete yet.
  void finish();

 private:
  void enter(std::int64_t group);

  File& file_;
  std::optional<ChecksumPage> current_;  // none: the file has no checksum pages
  Geometry geometry_;
  std::int64_t oldGroups_;
  Store storeOld_;
};

// The failure that a damaged checksum page is.
Failure damagedChecksums(const File& file, std::int64_t group);

}  // namespace qzpfile
