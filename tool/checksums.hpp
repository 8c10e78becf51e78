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
  // Starts an empty page for the group.
  void clear(std::int64_t group);
  // Loads the stored page of the group. Returns false if it does not match its own checksum.
  bool load(std::int64_t group, std::span<const std::byte> stored);
  // page: must be in the group.
  std::uint64_t of(std::int64_t page) const;
  void set(std::int64_t page, std::uint64_t checksum);
  // Updates the page's own checksum and returns the bytes to store.
  std::span<const std::byte> seal();

 private:
  std::size_t slotOf(std::int64_t page) const;
  std::uint64_t ownChecksum() const;

  Geometry geometry_;
  std::int64_t group_ = -1;
  AlignedBuffer bytes_;
};

// Looks up the checksums of a file's pages. Reads a checksum page when a new group begins; the
// caller must not hold a page then.
class PageChecksums {
 public:
  // file: must outlive this.
  explicit PageChecksums(File& file);

  // The checksum that the page should have. Nothing if the file has none for it, because of its
  // version or because the checksum page is damaged.
  std::optional<std::uint64_t> of(std::int64_t page);

 private:
  File& file_;
  std::optional<ChecksumPage> current_;  // none: the file has no checksum pages
  bool fits_ = false;
};

// Updates the checksum pages while pages are written in ascending order. The checksum page of a new
// group is written twice: before the group, to reserve its place, and when it is complete.
class ChecksumWriter {
 public:
  using Store = std::function<void(std::int64_t group, std::span<const std::byte> page)>;

  // geometry: of the finished file. oldGroups: the number of groups that the file already has.
  // storeOld: receives their checksum pages, which are not written in place. file: must outlive
  // this.
  ChecksumWriter(File& file, const Geometry& geometry, std::int64_t oldGroups, Store storeOld);

  // Call this before the page is written. Returns the page's old checksum, 0 for a new page.
  std::uint64_t note(std::int64_t page, std::uint64_t checksum);
  // Stores the checksum page of the last group.
  void finish();

 private:
  void enter(std::int64_t group);

  File& file_;
  std::optional<ChecksumPage> current_;  // none: the file has no checksum pages
  Geometry geometry_;
  std::int64_t oldGroups_;
  Store storeOld_;
};

// The failure to throw for a damaged checksum page.
Failure damagedChecksums(const File& file, std::int64_t group);

}  // namespace qzpfile
