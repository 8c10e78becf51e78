// The state of each page of a file, drawn as rows of characters or listed as runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <vector>

#include "paged.hpp"

namespace qzpfile {

// A character of the drawing stands for several pages and shows the last of these states among
// them.
enum class PageState {
  checksums,  // a valid checksum page
  hole,       // zeros that the file system does not store
  zeros,
  data,
  unread,
  missing,  // the header promises it, but the file ends before it
  damaged,
};

// Finds the holes of a file. Ask in ascending order.
class Holes {
 public:
  // fd: not owned; must stay open.
  explicit Holes(int fd) : fd_(fd) {}

  // True if no byte in [begin, end) is stored. False if the file system cannot tell.
  bool cover(std::int64_t begin, std::int64_t end);

 private:
  int fd_;
  std::int64_t dataBegin_ = 0;  // the stored bytes that were found last
  std::int64_t dataEnd_ = 0;
};

class PageMap {
 public:
  // source: must outlive this.
  explicit PageMap(const Source& source);

  // The state of the next stored page, checksum pages included.
  void add(PageState state) { add(state, 1); }
  // The same for a page that was read.
  void addRead(std::span<const std::byte> bytes);
  // True when the file system says that the next stored page is a hole.
  bool nextIsHole();
  // Marks the remaining pages as unread or missing.
  void finish();

  std::string drawing(std::size_t width, bool colour) const;
  // For each run of pages of one state: "what"; "first_page" and "last_page", unless it is a single
  // checksum page; "offset" and "bytes".
  nlohmann::ordered_json runs() const;

 private:
  struct Run {
    PageState state;
    std::int64_t first;  // stored pages, from 1
    std::int64_t last;
  };

  void add(PageState state, std::int64_t count);
  std::int64_t pageAt(std::int64_t stored) const;
  std::string rows(std::size_t width, bool colour) const;

  const Source& source_;
  Holes holes_;
  std::int64_t total_ = 0;  // pages that the file stores or should store
  std::int64_t added_ = 0;
  std::vector<Run> runs_;
};

}  // namespace qzpfile
