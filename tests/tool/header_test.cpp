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
  const struct {
    std::size_t at;  // see docs/file-format.md
    unsigned char value;
    HeaderFault fault;
  } rows[] = {
      {8, 0, HeaderFault::noVersion},  {8, 3, HeaderFault::version},
      {12, 4, HeaderFault::flags},     {15, 0x80, HeaderFault::flags},
      {40, 1, HeaderFault::reserved},  {55, 1, HeaderFault::reserved},
      {16, 1, HeaderFault::values},    {31, 0x80, HeaderFault::values},
      {23, 0xFF, HeaderFault::values},
  };
  for (const auto& row : rows) {
    Bytes bytes = qzpfile::encodeHeader(kSound);
    bytes[row.at] = std::byte{row.value};
    if (row.at == 16) bytes[17] = std::byte{0};  // a page of 1 byte
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
