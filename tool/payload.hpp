// Splits a run of bytes into the pages of a packed file, and joins them again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "checksums.hpp"
#include "paged.hpp"
#include "progress.hpp"
#include "streams.hpp"

namespace qzpfile {

// Writes a new packed file: header, pages, and the header again when its values are known.
class PayloadWriter {
 public:
  // Writes a header that marks the file as incomplete. file and progress must outlive this.
  PayloadWriter(File& file, Progress& progress);

  // The memory for the next bytes of the payload; never empty. Then call `filled` with their
  // number.
  std::span<std::byte> room();
  void filled(std::size_t bytes);
  // The same for bytes that are already in memory; whole pages are written from there.
  void append(std::span<const std::byte> bytes);
  // Pads the last page, completes the header, flushes and closes the file. headerTail: the bytes of
  // the header area after the header itself.
  Header finish(std::span<const std::byte> headerTail);

 private:
  void writePages();
  void writePage(std::span<const std::byte> page);

  File& file_;
  Progress& progress_;
  Header header_;
  ChecksumWriter checksums_;
  EarlyWrites early_;
  AlignedBuffer batch_;
  std::size_t used_ = 0;
  std::int64_t nextPage_ = 1;
};

// A page that does not match its checksum, or a damaged checksum page.
struct Damage {
  std::int64_t page = 0;      // for a checksum page, the first page of its group
  std::int64_t lastPage = 0;  // for a checksum page, the last page of its group; else `page`
  std::int64_t offset = 0;
  bool inChecksums = false;

  std::string text() const;
};

// Called for each damage. If empty, the first damage is thrown.
using OnDamage = std::function<void(const Damage&)>;

// Checks pages against their checksums, in ascending order.
class PageChecker {
 public:
  // file: must outlive this.
  PageChecker(File& file, OnDamage onDamage);

  // Call this before the page is read, while no page is held.
  void prepare(std::int64_t page);
  // Compares the page's checksum with the expected one, and returns it.
  std::uint64_t check(std::int64_t page, std::span<const std::byte> bytes);
  // Prepares and checks each of the pages in `area`, from `first` on.
  void checkMany(std::int64_t first, std::span<const std::byte> area);
  // False once damage was found.
  bool isGood() const { return good_; }

 private:
  void meet(const Damage& damage);

  File& file_;
  PageChecksums checksums_;
  OnDamage onDamage_;
  std::optional<std::uint64_t> wanted_;
  std::int64_t lostGroup_ = -1;  // the last whose checksum page was damaged
  bool good_ = true;
};

// Lists damage on standard error for --keep-going.
OnDamage listDamage(const std::string& file);

// Passes the payload of a packed file to `sink` piece by piece, then compares its checksum with the
// header's. Throws on a mismatch: what `sink` received is then wrong. With onDamage, returns false
// instead.
bool readPayload(File& file, Progress& progress, const OnDamage& onDamage,
                 const std::function<void(std::span<const std::byte>)>& sink);

// The part of a page that is payload; the rest is padding.
std::span<const std::byte> payloadOf(const Header& header, std::int64_t page,
                                     std::span<const std::byte> bytes);

}  // namespace qzpfile
