// A run of bytes cut into the pages of the tool's own files, and put together again.
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

// Writes a new file of the tool's own: header, pages, header again when all is known.
class PayloadWriter {
 public:
  // Writes a header that says that the file is in the making. file and progress must outlive it.
  PayloadWriter(File& file, Progress& progress);

  // Where the next bytes of the payload go; never empty. Then tell how many they are.
  std::span<std::byte> room();
  void filled(std::size_t bytes);
  // The same for bytes that lie elsewhere; whole pages are written from there.
  void append(std::span<const std::byte> bytes);
  // Pads the last page, completes the header, puts everything on disk and closes the file.
  // headerTail: what the header area holds after the header itself.
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

// A page that does not match its checksum, or a checksum page that is damaged itself.
struct Damage {
  std::int64_t page = 0;      // of a checksum page, the first of its group
  std::int64_t lastPage = 0;  // the same page, or of a checksum page the last of its group
  std::int64_t offset = 0;
  bool inChecksums = false;

  std::string text() const;
};

// Called for each damage; an empty one has the first thrown.
using OnDamage = std::function<void(const Damage&)>;

// Holds pages against their checksums, in ascending order.
class PageChecker {
 public:
  // file: must outlive this.
  PageChecker(File& file, OnDamage onDamage);

  // To be called before the page is read, while no page is held.
  void prepare(std::int64_t page);
  // The page's checksum, held against the one that it should have.
  std::uint64_t check(std::int64_t page, std::span<const std::byte> bytes);
  // Both for each of the pages from `first` on that `area` has.
  void checkMany(std::int64_t first, std::span<const std::byte> area);
  // False when damage was met.
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

// Lists damage on standard error: for --keep-going.
OnDamage listDamage(const std::string& file);

// Hands the payload of one of the tool's own files to `sink`, piece by piece, and then holds its
// checksum against the header's. Throws when it does not fit: what went to `sink` is then wrong.
// With onDamage returns false instead.
bool readPayload(File& file, Progress& progress, const OnDamage& onDamage,
                 const std::function<void(std::span<const std::byte>)>& sink);

// The part of a page that is payload; the rest is padding.
std::span<const std::byte> payloadOf(const Header& header, std::int64_t page,
                                     std::span<const std::byte> bytes);

}  // namespace qzpfile
