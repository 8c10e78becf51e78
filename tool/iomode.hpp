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

// A mode and in words why it is not the one asked for (empty: it is, or nobody minds).
struct IoOutcome {
  IoChoice asked = IoChoice::automatic;
  IoChoice mode = IoChoice::buffered;
  std::string why;
};

// The mode to open a file with. fileBytes: nothing when not known beforehand. Throws the refusal
// of pages or blocks that direct I/O cannot move.
IoOutcome chooseMode(const IoRequest& request, Use use, const Geometry& geometry,
                     std::optional<std::int64_t> fileBytes, const std::string& file);

// Why a file with other sizes is not read by direct I/O.
std::string whyUnaligned();

// Bytes of a block: as asked for, else 4 MiB in whole pages, at least one.
std::int32_t blockBytesFor(const IoRequest& request, std::int32_t pageSize);

// Compares the mode that an open obtained with the one it was to have.
void noteObtained(IoOutcome* outcome, const qz::FileHandle& handle);

}  // namespace qzpfile
