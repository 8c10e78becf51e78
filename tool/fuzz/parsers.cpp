// Feeds arbitrary bytes to everything that parses bytes from outside: first bytes of files, the
// tool's header, sizes and page ranges. Each input goes to all of them.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>
#include <variant>

#include "../geometry.hpp"
#include "../header.hpp"
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
  require(!describe(measured, geometry).empty());
}

void checkRecognition(std::span<const std::byte> bytes) {
  const auto recognised = recognise(bytes);
  if (const auto* geometry = std::get_if<Geometry>(&recognised)) {
    checkGeometry(*geometry, static_cast<std::int64_t>(bytes.size()));
  } else {
    require(!std::get<std::string>(recognised).empty());
  }
}

// Gives the bytes a magic, a version and a checksum that fit, to reach what lies behind them.
void checkSealedHeader(std::span<const std::byte> bytes) {
  std::array<std::byte, kHeaderBytes> sealed{};
  std::ranges::copy(bytes.first(std::min(bytes.size(), sealed.size())), sealed.begin());
  const auto sound = encodeHeader(Header{.pageSize = 4096, .headerSize = 4096});
  std::copy_n(sound.begin(), 12, sealed.begin());
  const std::uint64_t checksum = XXH3_64bits(sealed.data(), 56);
  for (std::size_t i = 0; i < 8; ++i) sealed[56 + i] = static_cast<std::byte>(checksum >> 8 * i);
  checkRecognition(sealed);
  const auto decoded = decodeHeader(sealed);
  if (const auto* header = std::get_if<Header>(&decoded)) {
    require(header->fileBytes() >= header->headerSize);
    const auto again = decodeHeader(encodeHeader(*header));
    require(std::get<Header>(again) == *header);
  }
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
  checkText({reinterpret_cast<const char*>(data), size});
  return 0;
}
