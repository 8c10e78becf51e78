#include "sizes.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace qzpfile {
namespace {

// Parses text that consists of digits only: no sign, no blanks.
std::optional<std::int64_t> parseNumber(std::string_view text) {
  std::int64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || text.front() == '-') {
    return std::nullopt;
  }
  return value;
}

// The factor of a unit: "", "B", "K", "KiB", "KB", ... 0: unknown unit.
std::int64_t unitFactor(std::string_view unit) {
  if (unit.empty() || unit == "B" || unit == "b") {
    return 1;
  }
  constexpr std::string_view kUpper = "KMGT";
  constexpr std::string_view kLower = "kmgt";
  const std::size_t power = std::min(kUpper.find(unit.front()), kLower.find(unit.front()));
  if (power == std::string_view::npos) {
    return 0;
  }
  const std::string_view rest = unit.substr(1);
  const bool decimal = rest == "B" || rest == "b";
  if (!decimal && !rest.empty() && rest != "iB" && rest != "ib") {
    return 0;
  }
  std::int64_t factor = 1;
  for (std::size_t i = 0; i <= power; ++i) factor *= decimal ? 1000 : 1024;
  return factor;
}

}  // namespace

std::optional<std::int64_t> parseSize(std::string_view text) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  const std::int64_t factor = unitFactor(text.substr(digits));
  if (digits == 0 || factor == 0) {
    return std::nullopt;
  }
  const std::optional<std::int64_t> number = parseNumber(text.substr(0, digits));
  if (!number || *number > std::numeric_limits<std::int64_t>::max() / factor) {
    return std::nullopt;
  }
  return *number * factor;
}

std::optional<PageRange> parsePageRange(std::string_view text) {
  const std::size_t dash = text.find('-');
  const std::string_view first = text.substr(0, dash);
  const std::string_view last = dash == std::string_view::npos ? first : text.substr(dash + 1);
  if (first.empty() && last.empty()) {
    return std::nullopt;
  }
  PageRange range;
  if (!first.empty()) {
    const std::optional<std::int64_t> number = parseNumber(first);
    if (!number) return std::nullopt;
    range.first = *number;
  }
  if (!last.empty()) {
    const std::optional<std::int64_t> number = parseNumber(last);
    if (!number || *number == PageRange::kToTheEnd) return std::nullopt;
    range.last = *number;
  }
  if (range.first < 1 || range.last < range.first) {
    return std::nullopt;
  }
  return range;
}

std::optional<std::vector<PageRange>> parsePageList(std::string_view text) {
  std::vector<PageRange> ranges;
  for (bool more = true; more;) {
    const std::size_t comma = text.find(',');
    const std::optional<PageRange> range = parsePageRange(text.substr(0, comma));
    if (!range) return std::nullopt;
    ranges.push_back(*range);
    more = comma != std::string_view::npos;
    if (more) text.remove_prefix(comma + 1);
  }
  return ranges;
}

std::string readableSize(double bytes) {
  constexpr std::array<const char*, 5> kUnits = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  while (bytes >= 1024 && unit + 1 < kUnits.size()) {
    bytes /= 1024;
    ++unit;
  }
  if (unit == 0) {
    return counted(std::llround(bytes), "byte");
  }
  return fmt::format("{:.1f} {}", bytes, kUnits.at(unit));
}

std::string counted(std::int64_t count, std::string_view noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string pagesBetween(std::int64_t first, std::int64_t last) {
  return first == last ? fmt::format("page {}", first) : fmt::format("pages {} to {}", first, last);
}

}  // namespace qzpfile
