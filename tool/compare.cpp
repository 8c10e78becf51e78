// qzpfile compare A B: finds where two paged files differ.
#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "commands.hpp"
#include "json.hpp"
#include "payload.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

struct Difference {
  std::string what;  // "page", or the name of a size: "page_count", ...
  std::string text;
  std::int64_t a = 0;  // the two sizes, or the file offsets of the bytes
  std::int64_t b = 0;
  std::int64_t page = 0;   // of A; pages and payload only
  std::int64_t pageB = 0;  // payload only
};

class Comparison {
 public:
  Comparison(const Source& a, const Source& b, bool keepGoing)
      : a_(a), b_(b), keepGoing_(keepGoing) {}

  const std::vector<Difference>& differences() const { return differences_; }
  bool isDecided() const { return !differences_.empty() && !keepGoing_; }

  void sizes(const char* what, const char* inWords, std::int64_t a, std::int64_t b) {
    if (a == b || isDecided()) return;
    differences_.push_back(
        {.what = what, .text = fmt::format("{}: {} and {}", inWords, a, b), .a = a, .b = b});
  }

  void header(std::span<const std::byte> a, std::span<const std::byte> b) {
    const auto at = firstDifference(a, b);
    if (at == a.size() || isDecided()) return;
    const auto offset = static_cast<std::int64_t>(at);
    differences_.push_back({.what = "header",
                            .text = fmt::format("header: byte {}", offset),
                            .a = offset,
                            .b = offset});
  }

  void page(std::int64_t page, std::span<const std::byte> a, std::span<const std::byte> b) {
    const auto at = static_cast<std::int64_t>(firstDifference(a, b));
    if (at == static_cast<std::int64_t>(a.size())) return;
    const std::int64_t offsetA = a_.geometry.offsetOf(page) + at;
    const std::int64_t offsetB = b_.geometry.offsetOf(page) + at;
    differences_.push_back({.what = "page",
                            .text = fmt::format("page {}: byte {} (file offsets {} and {})", page,
                                                at, offsetA, offsetB),
                            .a = offsetA,
                            .b = offsetB,
                            .page = page});
  }

  // Compares bytes of both payloads. They begin at payload byte `position`, in these pages at these
  // file offsets.
  void payload(std::int64_t position, std::span<const std::byte> a, std::int64_t pageA,
               std::int64_t offsetA, std::span<const std::byte> b, std::int64_t pageB,
               std::int64_t offsetB) {
    const std::size_t at = firstDifference(a, b);
    const bool isTold = !differences_.empty() && differences_.back().page == pageA;
    if (at == a.size() || isTold) return;
    const auto ahead = static_cast<std::int64_t>(at);
    differences_.push_back(
        {.what = "payload",
         .text = fmt::format("payload byte {}: pages {} and {} (file offsets {} "
                             "and {})",
                             position + ahead, pageA, pageB, offsetA + ahead, offsetB + ahead),
         .a = offsetA + ahead,
         .b = offsetB + ahead,
         .page = pageA,
         .pageB = pageB});
  }

 private:
  static std::size_t firstDifference(std::span<const std::byte> a, std::span<const std::byte> b) {
    return static_cast<std::size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
  }

  const Source& a_;
  const Source& b_;
  bool keepGoing_;
  std::vector<Difference> differences_;
};

void compareHeaders(const Source& a, const Source& b, Comparison& comparison) {
  const Geometry& one = a.geometry;
  const Geometry& other = b.geometry;
  if (one.header && other.header) {
    comparison.sizes("payload_size", "payload bytes", one.header->payloadBytes,
                     other.header->payloadBytes);
  } else {
    comparison.sizes("header_size", "header bytes", one.headerSize, other.headerSize);
    if (one.headerSize == other.headerSize && one.headerSize > 0) {
      comparison.header(readHeader(a), readHeader(b));
    }
  }
}

void comparePages(Session& session, const Invocation& call, const Source& a, const Source& b,
                  Comparison& comparison) {
  File fileA = File::openToRead(session, a, call.io, Use::wholeFile);
  File fileB = File::openToRead(session, b, call.io, Use::wholeFile);
  const std::int64_t pages = std::min(fileA.pageCount(), fileB.pageCount());
  Progress progress(call.progress, "compare", pages * a.geometry.pageSize);
  for (std::int64_t page = 1; page <= pages && !comparison.isDecided(); ++page) {
    const qz::PageHold holdA = fileA.read(page);
    const qz::PageHold holdB = fileB.read(page);
    comparison.page(page, bytesOf(holdA), bytesOf(holdB));
    progress.advance(a.geometry.pageSize);
  }
}

// Reads the payload of a packed file, as far as the file has pages.
class PayloadReader {
 public:
  explicit PayloadReader(File& file) : file_(file) { next(); }

  std::span<const std::byte> piece() const { return piece_; }  // empty: the payload has ended
  std::int64_t page() const { return page_; }
  std::int64_t offset() const {  // file offset of the piece
    return file_.geometry().offsetOf(page_) + (piece_.data() - bytesOf(*hold_).data());
  }

  void skip(std::size_t bytes) {
    piece_ = piece_.subspan(bytes);
    if (piece_.empty()) next();
  }

 private:
  void next() {
    hold_.reset();
    if (page_ == file_.geometry().header->pageCount()) return;
    hold_ = file_.read(++page_);
    piece_ = payloadOf(*file_.geometry().header, page_, bytesOf(*hold_));
  }

  File& file_;
  std::int64_t page_ = 0;
  std::optional<qz::PageHold> hold_;
  std::span<const std::byte> piece_;
};

// Pages of different sizes begin at different bytes of the payload.
void comparePayloads(Session& session, const Invocation& call, const Source& a, const Source& b,
                     Comparison& comparison) {
  File fileA = File::openToRead(session, a, call.io, Use::wholeFile);
  File fileB = File::openToRead(session, b, call.io, Use::wholeFile);
  PayloadReader readerA(fileA);
  PayloadReader readerB(fileB);
  const std::int64_t bytesA = a.geometry.header->payloadBytes;
  const std::int64_t bytesB = b.geometry.header->payloadBytes;
  Progress progress(call.progress, "compare", std::min(bytesA, bytesB));
  std::int64_t position = 0;
  while (!comparison.isDecided()) {
    const std::size_t bytes = std::min(readerA.piece().size(), readerB.piece().size());
    if (bytes == 0) break;
    comparison.payload(position, readerA.piece().first(bytes), readerA.page(), readerA.offset(),
                       readerB.piece().first(bytes), readerB.page(), readerB.offset());
    position += static_cast<std::int64_t>(bytes);
    readerA.skip(bytes);
    readerB.skip(bytes);
    progress.advance(static_cast<std::int64_t>(bytes));
  }
  comparison.sizes("payload_size", "payload bytes", bytesA, bytesB);
}

void printText(const Invocation& call, const Source& a, const Source& b,
               const Comparison& comparison) {
  const std::string names = fmt::format("{} and {}", printable(call.first), printable(call.second));
  if (comparison.differences().empty() && a.geometry.pageSize != b.geometry.pageSize) {
    fmt::print("{}: same payload, {}, in pages of {} and {} bytes\n", names,
               counted(a.geometry.header->payloadBytes, "byte"), a.geometry.pageSize,
               b.geometry.pageSize);
    return;
  }
  if (comparison.differences().empty()) {
    fmt::print("{}: same, {} of {}\n", names, counted(a.measured.wholePages, "page"),
               counted(a.geometry.pageSize, "byte"));
    return;
  }
  fmt::print("{} differ:\n", names);
  for (const Difference& difference : comparison.differences()) {
    fmt::print("  {}\n", difference.text);
  }
}

void printJson(const Invocation& call, Exit exit, const Comparison& comparison) {
  nlohmann::ordered_json document = jsonDocument("compare", exit);
  document["a"] = call.first;
  document["b"] = call.second;
  document["same"] = comparison.differences().empty();
  auto& list = document["differences"] = nlohmann::ordered_json::array();
  for (const Difference& difference : comparison.differences()) {
    nlohmann::ordered_json entry;
    entry["what"] = difference.what;
    if (difference.page != 0) entry[difference.pageB == 0 ? "page" : "page_a"] = difference.page;
    if (difference.pageB != 0) entry["page_b"] = difference.pageB;
    const bool bytes = difference.page != 0 || difference.what == "header";
    entry[bytes ? "offset_a" : "a"] = difference.a;
    entry[bytes ? "offset_b" : "b"] = difference.b;
    list.push_back(std::move(entry));
  }
  printJsonDocument(document);
}

}  // namespace

Exit runCompare(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  const Source a = examineWhole(session, call.first, rawGeometry(call));
  const Source b = examineWhole(session, call.second, rawGeometry(call));
  Comparison comparison(a, b, call.keepGoing);
  if (a.geometry.header && b.geometry.header && a.geometry.pageSize != b.geometry.pageSize) {
    comparePayloads(session, call, a, b, comparison);
  } else if (a.geometry.pageSize != b.geometry.pageSize) {
    comparison.sizes("page_size", "page size", a.geometry.pageSize, b.geometry.pageSize);
  } else {
    // The first page that differs says more than the sizes that differ because of it.
    comparePages(session, call, a, b, comparison);
    comparison.sizes("page_count", "pages", a.measured.wholePages, b.measured.wholePages);
    compareHeaders(a, b, comparison);
  }
  const Exit exit = comparison.differences().empty() ? Exit::good : Exit::different;
  if (call.json) {
    printJson(call, exit, comparison);
  } else if (!call.quiet) {
    printText(call, a, b, comparison);
  }
  return exit;
}

}  // namespace qzpfile
