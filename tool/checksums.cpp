#include "checksums.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "numbers.hpp"
#include "paged.hpp"
#include "sizes.hpp"

namespace qzpfile {

ChecksumPage::ChecksumPage(const Geometry& geometry)
    : geometry_(geometry), bytes_(static_cast<std::size_t>(geometry.pageSize)) {}

void ChecksumPage::clear(std::int64_t group) {
  group_ = group;
  std::ranges::fill(bytes_.bytes(), std::byte{0});
}

bool ChecksumPage::load(std::int64_t group, std::span<const std::byte> stored) {
  group_ = group;
  std::memcpy(bytes_.data(), stored.data(), bytes_.bytes().size());
  return loadNumber(bytes_.bytes(), bytes_.bytes().size() - 8) == ownChecksum();
}

std::uint64_t ChecksumPage::of(std::int64_t page) const {
  return loadNumber(bytes_.bytes(), slotOf(page));
}

void ChecksumPage::set(std::int64_t page, std::uint64_t checksum) {
  storeNumber(bytes_.bytes(), slotOf(page), checksum);
}

std::span<const std::byte> ChecksumPage::seal() {
  storeNumber(bytes_.bytes(), bytes_.bytes().size() - 8, ownChecksum());
  return bytes_.bytes();
}

std::size_t ChecksumPage::slotOf(std::int64_t page) const {
  return static_cast<std::size_t>(page - geometry_.firstOfGroup(group_)) * 8;
}

std::uint64_t ChecksumPage::ownChecksum() const {
  return checksumOf(bytes_.bytes().first(bytes_.bytes().size() - 8),
                    std::numeric_limits<std::uint64_t>::max() - static_cast<std::uint64_t>(group_));
}

PageChecksums::PageChecksums(File& file) : file_(file) {
  if (file.geometry().pagesPerGroup != 0) current_.emplace(file.geometry());
}

std::optional<std::uint64_t> PageChecksums::of(std::int64_t page) {
  if (!current_) return std::nullopt;
  if (const std::int64_t group = file_.geometry().groupOf(page); group != current_->group()) {
    current_->clear(group);
    fits_ = false;  // stays false if the checksum page cannot be read
    fits_ = current_->load(group, bytesOf(file_.readChecksumPage(group)));
  }
  return fits_ ? std::optional(current_->of(page)) : std::nullopt;
}

ChecksumWriter::ChecksumWriter(File& file, const Geometry& geometry, std::int64_t oldGroups,
                               Store storeOld)
    : file_(file), geometry_(geometry), oldGroups_(oldGroups), storeOld_(std::move(storeOld)) {
  if (geometry.pagesPerGroup != 0) current_.emplace(geometry);
}

std::uint64_t ChecksumWriter::note(std::int64_t page, std::uint64_t checksum) {
  if (!current_) return 0;
  if (const std::int64_t group = geometry_.groupOf(page); group != current_->group()) enter(group);
  const std::uint64_t before = current_->of(page);
  current_->set(page, checksum);
  return before;
}

void ChecksumWriter::finish() {
  if (!current_ || current_->group() < 0) return;
  if (current_->group() < oldGroups_) {
    storeOld_(current_->group(), current_->seal());
  } else {
    file_.writeChecksumPage(current_->group(), current_->seal());
  }
}

void ChecksumWriter::enter(std::int64_t group) {
  finish();
  if (group >= oldGroups_) {
    current_->clear(group);
    file_.writeChecksumPage(group, current_->seal());
  } else if (!current_->load(group, bytesOf(file_.readChecksumPage(group)))) {
    throw damagedChecksums(file_, group);
  }
}

Failure damagedChecksums(const File& file, std::int64_t group) {
  const Geometry& geometry = file.geometry();
  const std::int64_t first = geometry.firstOfGroup(group);
  const std::int64_t last = std::min(first + geometry.pagesPerGroup - 1, file.pageCount());
  return Failure(Exit::badData,
                 fmt::format("the checksum page of {} is damaged", pagesBetween(first, last)),
                 file.name())
      .at(first, geometry.storedOffset(geometry.storedChecksums(group)))
      .tryThis("qzpfile repair recomputes the checksums and says whether the pages are good");
}

}  // namespace qzpfile
