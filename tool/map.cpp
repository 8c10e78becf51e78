#include "map.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <nlohmann/json.hpp>

#include "sizes.hpp"
#include "streams.hpp"

namespace qzpfile {
namespace {

struct Look {
  char sign;
  const char* name;
};

Look lookOf(PageState state) {
  switch (state) {
    case PageState::checksums:
      return {'c', "checksums"};
    case PageState::hole:
      return {'.', "hole"};
    case PageState::zeros:
      return {'0', "zeros"};
    case PageState::data:
      return {'#', "data"};
    case PageState::unread:
      return {'?', "unread"};
    case PageState::missing:
      return {'-', "missing"};
    case PageState::damaged:
      return {'X', "damaged"};
  }
  return {' ', ""};
}

std::int64_t storedPagesOf(const Source& source) {
  const auto& header = source.geometry.header;
  // A header that was left in the middle of a change says nothing about the pages.
  return header && !header->changing ? header->storedPages() : source.measured.storedPages;
}

}  // namespace

bool Holes::cover(std::int64_t begin, std::int64_t end) {
  if (begin >= dataEnd_) {
    dataBegin_ = lseek(fd_, begin, SEEK_DATA);
    if (dataBegin_ < 0) {
      dataBegin_ = errno == ENXIO ? std::numeric_limits<std::int64_t>::max() : begin;
      dataEnd_ = std::numeric_limits<std::int64_t>::max();
    } else {
      dataEnd_ = lseek(fd_, dataBegin_, SEEK_HOLE);
    }
  }
  return end <= dataBegin_;
}

PageMap::PageMap(const Source& source)
    : source_(source), holes_(source.look->settings().fd), total_(storedPagesOf(source)) {}

void PageMap::add(PageState state, std::int64_t count) {
  if (count <= 0) return;
  if (runs_.empty() || runs_.back().state != state) {
    runs_.push_back({.state = state, .first = added_ + 1, .last = added_});
  }
  added_ += count;
  runs_.back().last = added_;
}

void PageMap::addRead(std::span<const std::byte> bytes) {
  if (!isZeros(bytes)) return add(PageState::data);
  add(nextIsHole() ? PageState::hole : PageState::zeros);
}

bool PageMap::nextIsHole() {
  const std::int64_t begin = source_.geometry.storedOffset(added_ + 1);
  return holes_.cover(begin, begin + source_.geometry.pageSize);
}

void PageMap::finish() {
  add(PageState::unread, std::min(total_, source_.measured.storedPages) - added_);
  add(PageState::missing, total_ - added_);
}

// The payload page at this position, or the next one if a checksum page is there.
std::int64_t PageMap::pageAt(std::int64_t stored) const {
  return source_.geometry.payloadPagesIn(stored - 1) + 1;
}

std::string PageMap::drawing(std::size_t width, bool colour) const {
  if (total_ == 0) return "  no pages to draw\n";
  std::string out = rows(width, colour);
  for (const PageState state :
       {PageState::data, PageState::zeros, PageState::hole, PageState::checksums,
        PageState::damaged, PageState::missing, PageState::unread}) {
    std::int64_t count = 0;
    for (const Run& run : runs_) count += run.state == state ? run.last - run.first + 1 : 0;
    const Look look = lookOf(state);
    if (count > 0)
      out += fmt::format("  {} {}: {}\n", look.sign, look.name, counted(count, "page"));
  }
  return out;
}

// Each row begins with the number of its first page.
std::string PageMap::rows(std::size_t width, bool colour) const {
  constexpr std::int64_t kRows = 16;
  const std::size_t margin = fmt::formatted_size("  {} ", pageAt(total_));
  const auto columns = static_cast<std::int64_t>(std::max<std::size_t>(width, margin + 8) - margin);
  const std::int64_t perSign = (total_ - 1) / (kRows * columns) + 1;
  std::string out = fmt::format("  map, {} per character:\n", counted(perSign, "page"));
  auto run = runs_.begin();
  for (std::int64_t first = 1, column = 0; first <= total_; first += perSign, ++column) {
    if (column % columns == 0) {
      out += fmt::format("{}{:>{}} ", column == 0 ? "" : "\n", pageAt(first), margin - 1);
    }
    const std::int64_t last = std::min(first + perSign - 1, total_);
    while (run->last < first) ++run;
    PageState worst = run->state;
    for (auto other = run; other != runs_.end() && other->first <= last; ++other) {
      worst = std::max(worst, other->state);
    }
    const char sign = lookOf(worst).sign;
    const bool marked = colour && worst >= PageState::missing;
    out += marked ? fmt::format("\x1b[1;31m{}\x1b[0m", sign) : std::string(1, sign);
  }
  return out + '\n';
}

nlohmann::ordered_json PageMap::runs() const {
  auto list = nlohmann::ordered_json::array();
  const Geometry& geometry = source_.geometry;
  for (const Run& run : runs_) {
    auto& entry = list.emplace_back();
    entry["what"] = lookOf(run.state).name;
    const std::int64_t first = pageAt(run.first);
    const std::int64_t last = geometry.payloadPagesIn(run.last);
    if (first <= last) {
      entry["first_page"] = first;
      entry["last_page"] = last;
    }
    entry["offset"] = geometry.storedOffset(run.first);
    entry["bytes"] = (run.last - run.first + 1) * geometry.pageSize;
  }
  return list;
}

}  // namespace qzpfile
