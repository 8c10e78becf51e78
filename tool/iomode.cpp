#include "iomode.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>

#include "failure.hpp"
#include "sizes.hpp"

namespace qzpfile {
namespace {

constexpr std::int32_t kDefaultBlockBytes = 4 << 20;

bool isAligned(const Geometry& geometry, std::int64_t alignment) {
  return geometry.pageSize % alignment == 0 && geometry.headerSize % alignment == 0;
}

void refuseUnaligned(const IoRequest& request, const Geometry& geometry, std::int64_t alignment,
                     const std::string& file) {
  if (!isAligned(geometry, alignment)) {
    throw Failure(Exit::usage,
                  fmt::format("--io {} needs a page size and a header size that are multiples of "
                              "{}, not {} and {}",
                              ioName(request.choice), counted(alignment, "byte"), geometry.pageSize,
                              geometry.headerSize),
                  file)
        .tryThis("use --io buffered or auto, or other sizes");
  }
  if (request.choice == IoChoice::block && request.blockBytes &&
      *request.blockBytes % geometry.pageSize != 0) {
    throw Failure(
        Exit::usage,
        fmt::format("a block of {} does not hold whole pages of {}",
                    counted(*request.blockBytes, "byte"), counted(geometry.pageSize, "byte")),
        file)
        .tryThis("make --block-size a multiple of the page size");
  }
}

const char* whyRefused(const qz::FileHandle& handle) {
  switch (handle.directIoSupport) {
    case qz::directIoNfs:
      return "the file is on NFS";
    case qz::directIoTestFailed:
      return "the file system could not be examined";
    case qz::directIoNoMemory:
      return "memory ran out while the file system was examined";
    default:
      return "this file system does not support direct I/O";
  }
}

}  // namespace

const char* ioName(IoChoice choice) {
  switch (choice) {
    case IoChoice::automatic:
      return "auto";
    case IoChoice::buffered:
      return "buffered";
    case IoChoice::direct:
      return "direct";
    case IoChoice::block:
      return "block";
  }
  return "";
}

std::int64_t directAlignmentOf(const std::string& path) {
#ifdef STATX_DIOALIGN
  struct statx about = {};
  constexpr unsigned kWanted = STATX_DIOALIGN | STATX_MNT_ID;
  // No mount has ID 0. An emulator that supports neither field leaves both at 0.
  if (statx(AT_FDCWD, path.c_str(), 0, kWanted, &about) == 0 &&
      (about.stx_mask & kWanted) == kWanted && about.stx_mnt_id != 0) {
    return std::max(about.stx_dio_mem_align, about.stx_dio_offset_align);
  }
#endif
  return kDirectAlignment;
}

IoOutcome chooseMode(const IoRequest& request, Use use, const Geometry& geometry,
                     std::int64_t alignment, std::optional<std::int64_t> fileBytes,
                     const std::string& file) {
  IoOutcome outcome{.asked = request.choice, .mode = request.choice, .why = {}};
  const bool asksDirect = request.choice == IoChoice::direct || request.choice == IoChoice::block;
  if (asksDirect && alignment != 0) refuseUnaligned(request, geometry, alignment, file);
  const std::string obstacle = whyNotDirect(geometry, alignment);
  if (request.choice != IoChoice::automatic && (!asksDirect || obstacle.empty())) {
    return outcome;
  }
  outcome.mode = IoChoice::buffered;
  if (request.choice == IoChoice::automatic && use == Use::somePages) {
    outcome.why = "a few pages are quickest through the system's cache";
  } else if (!obstacle.empty()) {
    outcome.why = obstacle;
  } else if (fileBytes && *fileBytes < blockBytesFor(request, geometry.pageSize)) {
    outcome.why = "the file is smaller than one block";
  } else {
    outcome.mode = IoChoice::block;
    outcome.why = "the whole file is moved once";
  }
  return outcome;
}

std::string whyNotDirect(const Geometry& geometry, std::int64_t alignment) {
  if (alignment == 0) return "this file system moves the file through the system's cache";
  if (isAligned(geometry, alignment)) return {};
  return fmt::format("direct I/O needs page and header sizes that are multiples of {}",
                     counted(alignment, "byte"));
}

std::int32_t blockBytesFor(const IoRequest& request, std::int32_t pageSize) {
  return request.blockBytes.value_or(std::max(kDefaultBlockBytes / pageSize, 1) * pageSize);
}

void noteObtained(IoOutcome* outcome, const qz::FileHandle& handle) {
  const bool wantedDirect = outcome->mode != IoChoice::buffered;
  if (wantedDirect && (handle.directIoMode & qz::directIo) == 0) {
    outcome->mode = IoChoice::buffered;
    outcome->why = whyRefused(handle);
  }
}

}  // namespace qzpfile
