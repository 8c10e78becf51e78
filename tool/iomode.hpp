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

// What a run does with a file; decides which mode `automatic` stands for.
enum class Use { wholeFile, somePages };

// A mode, and why it is not the one asked for (empty if it is, or if any mode would do).
struct IoOutcome {
  IoChoice asked = IoChoice::automatic;
  IoChoice mode = IoChoice::buffered;
  std::string why;
};

// The alignment that direct I/O on a file needs: page size, header size and memory addresses must
// be multiples of this many bytes. 0: the system moves the file through its cache even with
// O_DIRECT. kDirectAlignment if the system does not report it (Linux before 6.1, most file systems
// other than ext4 and xfs).
std::int64_t directAlignmentOf(const std::string& path);

// Chooses the mode to open a file with. alignment: directAlignmentOf the file. fileBytes: nothing
// if the size is not known yet. Throws if direct I/O was asked for and cannot move the pages or
// blocks.
IoOutcome chooseMode(const IoRequest& request, Use use, const Geometry& geometry,
                     std::int64_t alignment, std::optional<std::int64_t> fileBytes,
                     const std::string& file);

// Why direct I/O cannot move these pages: empty if it can.
std::string whyNotDirect(const Geometry& geometry, std::int64_t alignment);

// Bytes of a block: as asked for, else 4 MiB in whole pages, at least one page.
std::int32_t blockBytesFor(const IoRequest& request, std::int32_t pageSize);

// Corrects *outcome if the open obtained buffered I/O instead of direct I/O.
void noteObtained(IoOutcome* outcome, const qz::FileHandle& handle);

}  // namespace qzpfile
