// The header of the tool's files: wrong contents under a right checksum, and changes torn by a
// power cut.
#include "../../tool/header.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <variant>

#include "../../tool/numbers.hpp"

namespace qztest {
namespace {

using qzpfile::Header;
using qzpfile::HeaderFault;
using Bytes = std::array<std::byte, qzpfile::kHeaderBytes>;

constexpr Header kSound = {.pageSize = 4096, .headerSize = 4096, .payloadBytes = 5000};

// Each wrong field must be refused with its own reason: a later version needs a later tool, a
// damaged field a repair.
TEST(HeaderBytes, AreRefusedForTheirOwnReason) {
  // Offsets of the fields, as in docs/file-format.md.
  enum : std::size_t {
    version = 8,
    flags = 12,
    pageSize = 16,
    headerSize = 20,
    payloadBytes = 24,
    reserved = 40
  };
  const struct {
    std::size_t at;
    unsigned char value;
    HeaderFault fault;
  } rows[] = {
      {version, 0, HeaderFault::noVersion},
      {version, 3, HeaderFault::version},
      {flags, 4, HeaderFault::flags},
      {flags + 3, 0x80, HeaderFault::flags},
      {reserved, 1, HeaderFault::reserved},
      {reserved + 15, 1, HeaderFault::reserved},
      {pageSize, 1, HeaderFault::values},
      {headerSize + 3, 0xFF, HeaderFault::values},
      {payloadBytes + 7, 0x80, HeaderFault::values},
  };
  for (const auto& row : rows) {
    Bytes bytes = qzpfile::encodeHeader(kSound);
    bytes[row.at] = std::byte{row.value};
    if (row.at == pageSize) bytes[pageSize + 1] = std::byte{0};  // a page of 1 byte
    qzpfile::storeNumber(bytes, 56, qzpfile::checksumOf(std::span(bytes).first(56)));
    const auto decoded = qzpfile::decodeHeader(bytes);
    ASSERT_TRUE(std::holds_alternative<HeaderFault>(decoded)) << row.at;
    EXPECT_EQ(std::get<HeaderFault>(decoded), row.fault) << row.at;
  }
}

// A change sets a flag in the header and its checksum, 9 bytes, of which a power cut may leave any.
// The header must stay readable, and count as flagged unless all bytes are old.
TEST(HeaderBytes, CountAsFlaggedWhenTheFlagIsTorn) {
  Header marked = kSound;
  marked.preparing = true;
  const Bytes from = qzpfile::encodeHeader(kSound);
  const Bytes to = qzpfile::encodeHeader(marked);
  for (unsigned mixture = 0; mixture < 512; ++mixture) {
    Bytes torn = from;
    if ((mixture & 1U) != 0) torn[12] = to[12];
    for (std::size_t i = 0; i < 8; ++i) {
      if ((mixture >> (i + 1) & 1U) != 0) torn[56 + i] = to[56 + i];
    }
    const auto decoded = qzpfile::decodeHeader(torn);
    ASSERT_TRUE(std::holds_alternative<Header>(decoded)) << mixture;
    EXPECT_EQ(std::get<Header>(decoded), torn == from ? kSound : marked) << mixture;
    torn[30] ^= std::byte{1};
    EXPECT_TRUE(std::holds_alternative<HeaderFault>(qzpfile::decodeHeader(torn))) << mixture;
  }
}

}  // namespace
}  // namespace qztest
