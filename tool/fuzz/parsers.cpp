// Passes arbitrary bytes to all parsers of the tool: recognition of a file by its first bytes, the
// file header, redo records, sizes and page ranges. Each input goes to all of them.
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "../geometry.hpp"
#include "../header.hpp"
#include "../numbers.hpp"
#include "../recordformat.hpp"
#include "../sizes.hpp"

namespace {

using namespace qzpfile;

void require(bool condition) {
  if (!condition) std::abort();
}

void checkGeometry(const Geometry& geometry, std::int64_t fileBytes) {
  require(geometry.pageSize >= 1 && geometry.headerSize >= 0);
  const Measure measured = measure(geometry, fileBytes);
  require(measured.wholePages >= 0 && measured.leftOver >= 0 && measured.expected >= 0);
  require(measured.leftOver < geometry.pageSize);
  require(!notWholeText(measured, geometry).empty());
}

void checkRecognition(std::span<const std::byte> bytes) {
  const auto recognised = recognise(bytes);
  if (const auto* geometry = std::get_if<Geometry>(&recognised)) {
    checkGeometry(*geometry, static_cast<std::int64_t>(bytes.size()));
    checkGeometry(*geometry, std::numeric_limits<std::int64_t>::max());
  } else {
    require(!std::get<std::string>(recognised).empty());
  }
}

// Replaces magic, version and checksum by valid ones, so that the checks after them are reached.
void checkSealedHeader(std::span<const std::byte> bytes) {
  std::array<std::byte, kHeaderBytes> sealed{};
  std::ranges::copy(bytes.first(std::min(bytes.size(), sealed.size())), sealed.begin());
  const auto sound = encodeHeader(Header{.pageSize = 4096, .headerSize = 4096});
  std::copy_n(sound.begin(), 12, sealed.begin());
  storeNumber(sealed, 56, checksumOf(std::span(sealed).first(56)));
  checkRecognition(sealed);
  const auto decoded = decodeHeader(sealed);
  if (const auto* header = std::get_if<Header>(&decoded)) {
    require(header->fileBytes() >= header->headerSize);
    const auto again = decodeHeader(encodeHeader(*header));
    require(std::get<Header>(again) == *header);
  }
}

// Takes numbers from an input. After its end each number is 0.
class Numbers {
 public:
  explicit Numbers(std::span<const std::byte> bytes) : bytes_(bytes) {}

  bool isEmpty() const { return bytes_.empty(); }
  std::uint64_t next(std::size_t size) {
    std::array<std::byte, 8> number{};
    const auto taken = bytes_.first(std::min(bytes_.size(), size));
    std::ranges::copy(taken, number.begin());
    bytes_ = bytes_.subspan(taken.size());
    return loadNumber(number, 0);
  }

 private:
  std::span<const std::byte> bytes_;
};

// Decodes a record as readRecord does, as if its table began at offset `end` of a file.
std::optional<ChangeRecord> decodeRecord(std::span<const std::byte> bytes, std::int64_t end) {
  const std::size_t tableBytes = bytes.size() - kFooterBytes;
  const auto footer =
      decodeFooter(bytes.subspan(tableBytes), end + static_cast<std::int64_t>(tableBytes));
  if (!footer) return std::nullopt;
  require(footer->finalBytes >= 0 && footer->finalBytes <= footer->firstPiece);
  require(footer->firstPiece <= footer->tableAt && footer->tableBytes >= 0);
  // The footer has another table size. In a file such a table cannot be read, or its checksum does
  // not match.
  if (footer->tableBytes != static_cast<std::int64_t>(tableBytes)) return std::nullopt;
  auto record = decodeTable(bytes.first(tableBytes), *footer);
  std::int64_t at = footer->firstPiece;
  for (const RecordedPiece& piece : record ? record->pieces : std::vector<RecordedPiece>()) {
    require(piece.at == at && piece.length >= 0 && piece.target >= 0);
    require(piece.target <= footer->finalBytes - piece.length);
    at += piece.length;
  }
  return record;
}

void seal(std::span<std::byte> record) {
  const auto footer = record.last(kFooterBytes);
  storeNumber(footer, 40, checksumOf(record.first(record.size() - footer.size())));
  storeNumber(footer, 56, checksumOf(footer.first(56)));
}

// A valid record must decode to itself. With one number changed it must be refused. If the
// checksums are then recomputed, it may be accepted, but its pieces must lie within the file.
void checkRecord(std::span<const std::byte> bytes) {
  Numbers numbers(bytes);
  const std::uint64_t where = numbers.next(2);
  const std::uint64_t change = numbers.next(8) | 1U << numbers.next(1) % 32;
  ChangeRecord record{.pieces = {}, .finalBytes = static_cast<std::int64_t>(numbers.next(6))};
  std::int64_t end = record.finalBytes + static_cast<std::int64_t>(numbers.next(2));
  while (!numbers.isEmpty()) {
    const auto length = static_cast<std::int64_t>(numbers.next(2));
    const auto target = static_cast<std::int64_t>(numbers.next(6));
    if (length > record.finalBytes || target > record.finalBytes - length) continue;
    record.pieces.push_back(
        {.target = target, .length = length, .checksum = numbers.next(8), .at = end});
    end += length;
  }
  std::vector<std::byte> encoded = encodeRecord(record, end);
  const auto decoded = decodeRecord(encoded, end);
  require(decoded && decoded->pieces == record.pieces && decoded->finalBytes == record.finalBytes);
  const std::size_t at = where % (encoded.size() / 8) * 8;
  storeNumber(encoded, at, loadNumber(encoded, at) ^ change);
  require(!decodeRecord(encoded, end));
  seal(encoded);
  decodeRecord(encoded, end);
}

void checkText(std::string_view text) {
  if (const auto size = parseSize(text)) require(*size >= 0);
  if (const auto range = parsePageRange(text)) {
    require(range->first >= 1 && range->last >= range->first);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const auto bytes = std::as_bytes(std::span(data, size));
  checkRecognition(bytes);
  checkSealedHeader(bytes);
  checkRecord(bytes);
  checkText({reinterpret_cast<const char*>(data), size});
  return 0;
}
