// The recorder's trace: a record for each event, with its data behind it.
#pragma once

#include <cstdint>

namespace qztest {

enum class What : std::uint8_t {
  call,        // a call was made, with whatever outcome
  written,     // bytes were written: the data
  resized,     // a file was truncated or lengthened
  flushed,     // a file or folder was flushed
  nameAdded,   // a name was given: the data
  nameRemoved  // a name was removed: the data
};

struct TraceRecord {
  What what;
  std::uint64_t inode;
  std::int64_t offset;  // of written bytes; resized: the new length
  std::int64_t length;  // of the data
};

}  // namespace qztest
