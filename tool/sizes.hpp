// Sizes and page ranges as people write them. Pure functions that accept any bytes; the parsers of
// sizes and ranges allocate nothing.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qzpfile {

// Bytes from "4096", "4K", "4KiB" (1024 each) or "4KB" (1000 each); also M, G and T, in either
// case. Nothing when the text is anything else or the value exceeds a signed 64-bit number.
std::optional<std::int64_t> parseSize(std::string_view text);

// Pages `first` to `last`, both included, counted from 1.
struct PageRange {
  static constexpr std::int64_t kToTheEnd = std::numeric_limits<std::int64_t>::max();

  std::int64_t first = 1;
  std::int64_t last = kToTheEnd;
};

// A range from "7", "3-9", "3-" (to the last page) or "-9" (from page 1). Nothing when the text is
// anything else, begins at page 0 or runs backwards.
std::optional<PageRange> parsePageRange(std::string_view text);

// Ranges from "1,3,7-9", in the order given.
std::optional<std::vector<PageRange>> parsePageList(std::string_view text);

// "512 bytes", "68.4 MiB": at most four digits, for people; exact below 1 KiB.
std::string readableSize(double bytes);

// "1 page", "25 pages".
std::string counted(std::int64_t count, std::string_view noun);

// "page 7", "pages 3 to 9".
std::string pagesBetween(std::int64_t first, std::int64_t last);

}  // namespace qzpfile
