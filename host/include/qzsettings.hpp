// The caller's settings of a paged file, in plain names and units, for qz::PagedFile::open of
// qziop.hpp. What the module keeps for itself is not among them.
#pragma once

#include <cstdint>
#include <string>

namespace qz {

// What an open does with the name.
enum class Opening {
  existing,       // opens the file that is there
  existingOrNew,  // makes an empty file where there is none; cuts nothing
  replace,        // makes a file, or cuts the one that is there to nothing
};

// The pages that are read, and in which order.
enum class Reading {
  none,         // with writing: opened write-only
  anyOrder,     // any page at any time
  inOrder,      // each page after the one before it; others are refused
  manyAtATime,  // any page, mostly through readMany
};

enum class Writing {
  none,
  newPages,  // only the page after the last
  anyPage,   // that page, and rewrites of all others
};

// How pages reach the file.
enum class Io {
  buffered,  // through the system's page cache, a page a call
  direct,    // past it, a page a call; takes Reading::anyOrder or manyAtATime
  block,     // past it, a block a call; takes any Reading but manyAtATime
};

enum class Locking {
  whileOpen,  // the host locks the file: exclusive where it is written, else shared
  none,
};

// "buffered", "direct" or "block".
const char* nameOf(Io io) noexcept;

// How a file is accessed, and why not as it was asked for.
struct IoReport {
  Io asked = Io::buffered;
  Io obtained = Io::buffered;
  std::string reason;  // empty when it is as asked
};

struct Settings {
  std::int32_t pageSize = 4096;  // bytes; 0: the module chooses when it opens the file
  std::int64_t headerSize = 0;   // bytes before page 1
  Opening opening = Opening::existing;
  Reading reading = Reading::anyOrder;
  Writing writing = Writing::none;
  Io io = Io::buffered;
  std::int64_t blockBytes = 262144;  // Io::block: of a block; whole pages, below 2 GiB
  std::int32_t buffers = 8;          // most pages held at a time, 1 or more
  Locking locking = Locking::whileOpen;
  bool flushAtClose = false;     // close makes the file durable first
  std::int32_t busyRetries = 0;  // further attempts on a locked file, a second apart

  // Empty, or a sentence that names the setting that is out of range or contradicts another.
  std::string problem() const;
};

}  // namespace qz
