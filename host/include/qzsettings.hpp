// The caller's settings of a paged file, in plain names and units, for qz::PagedFile::open of
// qziop.hpp. The module's own fields are not among them.
#pragma once

#include <cstdint>
#include <string>

namespace qz {

// What an open does with the file of that name.
enum class Opening {
  existing,       // opens an existing file
  existingOrNew,  // creates an empty file if there is none; truncates nothing
  replace,        // creates a file, or truncates the existing one to nothing
};

// Which pages are read, and in which order.
enum class Reading {
  none,         // with writing: opened write-only
  anyOrder,     // any page at any time
  inOrder,      // each page after the one before it; other reads are refused
  manyAtATime,  // any page, mostly through readMany
};

enum class Writing {
  none,
  newPages,  // only the page after the last
  anyPage,   // the page after the last, and rewrites of all others
};

// How pages reach the file.
enum class Io {
  buffered,  // through the system's page cache, one page per call
  direct,    // past it, one page per call; takes Reading::anyOrder or manyAtATime
  block,     // past it, one block per call; takes any Reading but manyAtATime
};

enum class Locking {
  whileOpen,  // the host locks the file: exclusively if it is written, else shared
  none,
};

// "buffered", "direct" or "block".
const char* nameOf(Io io) noexcept;

// How a file is accessed, and why not as requested.
struct IoReport {
  Io asked = Io::buffered;
  Io obtained = Io::buffered;
  std::string reason;  // empty if it is as requested
};

struct Settings {
  std::int32_t pageSize = 4096;  // bytes; 0: the module chooses when it opens the file
  std::int64_t headerSize = 0;   // bytes before page 1
  Opening opening = Opening::existing;
  Reading reading = Reading::anyOrder;
  Writing writing = Writing::none;
  Io io = Io::buffered;
  std::int64_t blockBytes = 262144;  // Io::block: size of a block; whole pages, below 2 GiB
  std::int32_t buffers = 8;          // most pages held at a time, at least 1
  Locking locking = Locking::whileOpen;
  bool flushAtClose = false;     // close makes the file durable first
  std::int32_t busyRetries = 0;  // further attempts on a locked file, a second apart

  // Empty, or a sentence about a setting that is out of range or contradicts another one.
  std::string problem() const;
};

}  // namespace qz
