#include "iomode.hpp"

#include <fmt/format.h>

#include <algorithm>

#include "failure.hpp"

namespace qzpfile {
namespace {

constexpr std::int32_t kDefaultBlockBytes = 4 << 20;

void refuseUnaligned(const IoRequest& request, const Geometry& geometry, const std::string& file) {
  if (!isAligned(geometry.pageSize, geometry.headerSize)) {
    throw Failure(Exit::usage,
                  fmt::format("--io {} needs a page size and a header size that are multiples of "
                              "{} bytes, not {} and {}",
                              ioName(request.choice), kDirectAlignment, geometry.pageSize,
                              geometry.headerSize),
                  file)
        .tryThis("use --io buffered or auto, or other sizes");
  }
  if (request.choice == IoChoice::block && request.blockBytes &&
      *request.blockBytes % geometry.pageSize != 0) {
    throw Failure(Exit::usage,
                  fmt::format("a block of {} bytes does not hold whole pages of {} bytes",
                              *request.blockBytes, geometry.pageSize),
                  file)
        .tryThis("make --block-size a multiple of the page size");
  }
}

const char* whyNotDirect(const qz::FileHandle& handle) {
  switch (handle.directIoSupport) {
    case qz::directIoNfs:
      return "the file lies on NFS";
    case qz::directIoTestFailed:
      return "the file system could not be examined";
    case qz::directIoNoMemory:
      return "there was no memory to examine the file system";
    default:
      return "this file system does not take direct I/O";
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

IoOutcome chooseMode(const IoRequest& request, Use use, const Geometry& geometry,
                     std::optional<std::int64_t> fileBytes, const std::string& file) {
  IoOutcome outcome{.asked = request.choice, .mode = request.choice, .why = {}};
  if (request.choice == IoChoice::direct || request.choice == IoChoice::block) {
    refuseUnaligned(request, geometry, file);
  }
  if (request.choice != IoChoice::automatic) {
    return outcome;
  }
  outcome.mode = IoChoice::buffered;
  if (use == Use::somePages) {
    outcome.why = "a few pages are quickest through the system's cache";
  } else if (!isAligned(geometry.pageSize, geometry.headerSize)) {
    outcome.why = whyUnaligned();
  } else if (fileBytes && *fileBytes < blockBytesFor(request, geometry.pageSize)) {
    outcome.why = "the file is smaller than one block";
  } else {
    outcome.mode = IoChoice::block;
    outcome.why = "the whole file is moved once";
  }
  return outcome;
}

std::string whyUnaligned() {
  return fmt::format("direct I/O needs page and header sizes that are multiples of {} bytes",
                     kDirectAlignment);
}

std::int32_t blockBytesFor(const IoRequest& request, std::int32_t pageSize) {
  return request.blockBytes.value_or(std::max(kDefaultBlockBytes / pageSize, 1) * pageSize);
}

void noteObtained(IoOutcome* outcome, const qz::FileHandle& handle) {
  const bool wantedDirect = outcome->mode != IoChoice::buffered;
  if (wantedDirect && (handle.directIoMode & qz::directIo) == 0) {
    outcome->mode = IoChoice::buffered;
    outcome->why = whyNotDirect(handle);
  }
}

}  // namespace qzpfile
