// The choice between buffered I/O, direct I/O page by page and direct I/O in blocks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "geometry.hpp"
#include "qzpos.h"

namespace qzpfile {

enum class IoChoice { automatic, buffered, direct, block };

// "auto", "buffered", "direct", "block".
const char* ioName(IoChoice choice);

// What the command line asks for.
struct IoRequest {
  IoChoice choice = IoChoice::automatic;
  std::optional<std::int32_t> blockBytes;
  std::optional<std::int32_t> buffers;
};

// What a run does with a file; `automatic` is decided by it.
enum class Use { wholeFile, somePages };

// A mode and in words why it is not the one asked for (empty: it is, or any mode would do).
struct IoOutcome {
  IoChoice asked = IoChoice::automatic;
  IoChoice mode = IoChoice::buffered;
  std::string why;
};

// What the system needs for direct I/O on a file: page size, header size and memory are multiples
// of this many bytes. 0: it moves the file through its cache, even when the file is opened with
// O_DIRECT. kDirectAlignment where the system does not say (Linux before 6.1, most file systems
// other than ext4 and xfs).
std::int64_t directAlignmentOf(const std::string& path);

// The mode to open a file with. alignment: directAlignmentOf the file. fileBytes: nothing when not
// known beforehand. Throws the refusal of pages or blocks that direct I/O cannot move.
IoOutcome chooseMode(const IoRequest& request, Use use, const Geometry& geometry,
                     std::int64_t alignment, std::optional<std::int64_t> fileBytes,
                     const std::string& file);

// Why direct I/O cannot move these pages: empty if it can.
std::string whyNotDirect(const Geometry& geometry, std::int64_t alignment);

// Bytes of a block: as asked for, else 4 MiB in whole pages, at least one.
std::int32_t blockBytesFor(const IoRequest& request, std::int32_t pageSize);

// Compares the mode that an open obtained with the one it was to have.
void noteObtained(IoOutcome* outcome, const qz::FileHandle& handle);

}  // namespace qzpfile
