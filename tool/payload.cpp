#include "payload.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "report.hpp"
#include "sizes.hpp"

namespace qzpfile {
namespace {

// True if direct I/O can use the memory.
bool isAligned(const std::byte* memory) {
  return reinterpret_cast<std::uintptr_t>(memory) % std::size_t{kDirectAlignment} == 0;
}

}  // namespace

PayloadWriter::PayloadWriter(File& file, Progress& progress)
    : file_(file),
      progress_(progress),
      header_{.version = file.geometry().pagesPerGroup == 0 ? 1 : kLatestVersion,
              .pageSize = file.geometry().pageSize,
              .headerSize = static_cast<std::int32_t>(file.geometry().headerSize),
              .changing = true},
      checksums_(file, file.geometry(), 0, {}),
      early_(file.io().mode == IoChoice::buffered ? file.fd() : -1),
      batch_(batchBytes(file.geometry().pageSize)) {
  file_.writeHeader(encodeHeader(header_));
}

std::span<std::byte> PayloadWriter::room() { return batch_.bytes().subspan(used_); }

void PayloadWriter::filled(std::size_t bytes) {
  used_ += bytes;
  header_.payloadBytes += static_cast<std::int64_t>(bytes);
  if (room().empty()) writePages();
}

void PayloadWriter::append(std::span<const std::byte> bytes) {
  const auto pageSize = static_cast<std::size_t>(header_.pageSize);
  while (!bytes.empty()) {
    std::size_t taken = 0;
    if (used_ == 0 && isAligned(bytes.data())) {
      for (; bytes.size() - taken >= pageSize; taken += pageSize) {
        writePage(bytes.subspan(taken, pageSize));
      }
      header_.payloadBytes += static_cast<std::int64_t>(taken);
      progress_.advance(static_cast<std::int64_t>(taken));
    }
    if (taken == 0) {
      taken = std::min(bytes.size(), room().size());
      std::memcpy(room().data(), bytes.data(), taken);
      filled(taken);
    }
    bytes = bytes.subspan(taken);
  }
}

void PayloadWriter::writePages() {
  const auto pageSize = static_cast<std::size_t>(header_.pageSize);
  for (std::size_t at = 0; at < used_; at += pageSize) {
    writePage(batch_.bytes().subspan(at, pageSize));
  }
  progress_.advance(static_cast<std::int64_t>(used_));
  used_ = 0;
}

void PayloadWriter::writePage(std::span<const std::byte> page) {
  const std::uint64_t checksum = pageChecksum(page, nextPage_);
  header_.payloadChecksum += checksum;
  checksums_.note(nextPage_, checksum);
  file_.write(nextPage_, page);
  ++nextPage_;
  early_.wroteUpTo(file_.geometry().offsetOf(nextPage_));
}

Header PayloadWriter::finish(std::span<const std::byte> headerTail) {
  const auto pageSize = static_cast<std::size_t>(header_.pageSize);
  if (const std::size_t beyond = used_ % pageSize; beyond != 0) {
    const auto padding = room().first(pageSize - beyond);
    std::ranges::fill(padding, std::byte{0});
    used_ += padding.size();
  }
  writePages();
  checksums_.finish();
  header_.changing = false;
  const auto fixed = encodeHeader(header_);
  std::vector<std::byte> area(fixed.begin(), fixed.end());
  area.insert(area.end(), headerTail.begin(), headerTail.end());
  file_.writeHeader(area);
  file_.finish();
  return header_;
}

std::string Damage::text() const {
  return inChecksums
             ? fmt::format("the checksum page of {} (file offset {}) is damaged",
                           pagesBetween(page, lastPage), offset)
             : fmt::format("page {} (file offset {}) is damaged: it does not match its checksum",
                           page, offset);
}

PageChecker::PageChecker(File& file, OnDamage onDamage)
    : file_(file), checksums_(file), onDamage_(std::move(onDamage)) {}

void PageChecker::prepare(std::int64_t page) {
  const Geometry& geometry = file_.geometry();
  const std::int64_t group = geometry.groupOf(page);
  wanted_.reset();
  try {
    wanted_ = checksums_.of(page);
  } catch (const Failure&) {
    lostGroup_ = group;
    throw;
  }
  if (wanted_ || geometry.pagesPerGroup == 0 || group == lostGroup_) return;
  lostGroup_ = group;
  const std::int64_t first = geometry.firstOfGroup(group);
  meet({.page = first,
        .lastPage = std::min(first + geometry.pagesPerGroup - 1, file_.pageCount()),
        .offset = geometry.storedOffset(geometry.storedChecksums(group)),
        .inChecksums = true});
}

std::uint64_t PageChecker::check(std::int64_t page, std::span<const std::byte> bytes) {
  const std::uint64_t checksum = pageChecksum(bytes, page);
  if (wanted_ && checksum != *wanted_) {
    meet({.page = page, .lastPage = page, .offset = file_.geometry().offsetOf(page)});
  }
  return checksum;
}

void PageChecker::checkMany(std::int64_t first, std::span<const std::byte> area) {
  const auto pageSize = static_cast<std::size_t>(file_.geometry().pageSize);
  for (std::size_t at = 0; at < area.size(); at += pageSize, ++first) {
    prepare(first);
    check(first, area.subspan(at, pageSize));
  }
}

void PageChecker::meet(const Damage& damage) {
  good_ = false;
  if (onDamage_) {
    onDamage_(damage);
    return;
  }
  if (damage.inChecksums) throw damagedChecksums(file_, file_.geometry().groupOf(damage.page));
  throw Failure(Exit::badData, "is damaged: a page does not match its checksum", file_.name())
      .at(damage.page, damage.offset)
      .tryThis(
          "replace the page with a good copy (qzpfile put), or continue past it with "
          "--keep-going");
}

OnDamage listDamage(const std::string& file) {
  return [file](const Damage& damage) { warn(file, damage.text()); };
}

bool readPayload(File& file, Progress& progress, const OnDamage& onDamage,
                 const std::function<void(std::span<const std::byte>)>& sink) {
  const Header& header = *file.geometry().header;
  PageChecker checker(file, onDamage);
  std::uint64_t checksum = 0;
  for (std::int64_t page = 1; page <= header.pageCount(); ++page) {
    checker.prepare(page);
    const qz::PageHold hold = file.read(page);
    checksum += checker.check(page, bytesOf(hold));
    sink(payloadOf(header, page, bytesOf(hold)));
    progress.advance(header.pageSize);
  }
  // The checksum of all pages cannot be checked against a part of them.
  if (checksum == header.payloadChecksum || !checker.isGood() || file.isPartial()) {
    return checker.isGood();
  }
  const std::string what =
      fmt::format("is damaged: checksum mismatch: the header has {:016x}, the pages have {:016x}",
                  header.payloadChecksum, checksum);
  if (onDamage) {
    warn(file.name(), what);
    return false;
  }
  throw Failure(Exit::badData, what, file.name())
      .tryThis("get a complete copy of the file; \"qzpfile cat\" reads its pages as they are");
}

std::span<const std::byte> payloadOf(const Header& header, std::int64_t page,
                                     std::span<const std::byte> bytes) {
  const std::int64_t before = (page - 1) * header.pageSize;
  return bytes.first(static_cast<std::size_t>(
      std::min<std::int64_t>(header.payloadBytes - before, header.pageSize)));
}

}  // namespace qzpfile
