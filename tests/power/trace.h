// What the recorder notes: one record for each call, with its data behind it.
#pragma once

#include <cstdint>

namespace qztest {

struct TraceRecord {
  // 'c': a call was made, whatever came of it; 'w': bytes written; 't': a file cut or lengthened;
  // 's': a file or folder flushed; 'n': a name given, the data is the name; 'u': a name removed.
  char what;
  std::uint64_t inode;
  std::int64_t offset;  // of the bytes; 't': the new length
  std::int64_t length;  // of the data
};

}  // namespace qztest
