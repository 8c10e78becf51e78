// Turns the caller's settings into fields of the handle, and explains why an open file does not
// have the I/O mode that they request.
#include "settings.h"

#include <limits>

#include "qziop.hpp"

namespace qz {
namespace {

constexpr std::int32_t kMostBytes = 0x7FFFF000;  // the most that one call transfers

std::string outOfRange(const char* name, std::int64_t value, const char* range) {
  return std::string(name) + " is " + std::to_string(value) + "; it must be " + range;
}

std::uint32_t openModeOf(Opening opening) {
  return opening == Opening::replace ? createOrReplace : openOrKeep;
}

// With direct I/O this also chooses between page mode and block mode.
std::uint32_t readAccessOf(Reading reading, Io io) {
  switch (reading) {
    case Reading::none:
      return noRead;
    case Reading::inOrder:
      return readSequential;
    case Reading::manyAtATime:
      return readMany;
    case Reading::anyOrder:
      break;
  }
  return io == Io::block ? readOrdered : readRandom;
}

std::uint32_t writeAccessOf(Writing writing) {
  if (writing == Writing::none) return noWrite;
  return writing == Writing::newPages ? writeNewPages : rewritePages;
}

}  // namespace

const char* nameOf(Io io) noexcept {
  switch (io) {
    case Io::direct:
      return "direct";
    case Io::block:
      return "block";
    case Io::buffered:
      break;
  }
  return "buffered";
}

std::string Settings::problem() const {
  if (pageSize < 0 || pageSize > kMostBytes) {
    return outOfRange("pageSize", pageSize, "0, or 1 to 2147479552 bytes");
  }
  if (headerSize < 0) return outOfRange("headerSize", headerSize, "0 or more bytes");
  if (buffers < 1 || buffers == std::numeric_limits<std::int32_t>::max()) {
    return outOfRange("buffers", buffers, "1 to 2147483646");
  }
  if (busyRetries < 0) return outOfRange("busyRetries", busyRetries, "0 or more");
  if (io == Io::block) {
    if (blockBytes < 1 || blockBytes > kMostBytes) {
      return outOfRange("blockBytes", blockBytes, "1 to 2147479552 bytes");
    }
    if (pageSize > 0 && blockBytes % pageSize != 0) {
      return outOfRange("blockBytes", blockBytes, "a multiple of pageSize, ") +
             std::to_string(pageSize);
    }
  }
  if (reading == Reading::none && writing == Writing::none) {
    return "reading and writing are both none; one of them is needed";
  }
  if (opening != Opening::existing && writing == Writing::none) {
    return "a file that may be created must be written: writing is none";
  }
  const bool singlePages = reading == Reading::anyOrder || reading == Reading::manyAtATime;
  if (io == Io::direct && !singlePages) {
    return "Io::direct needs reading in any order or many at a time; use Io::block";
  }
  if (io == Io::block && reading == Reading::manyAtATime) {
    return "Io::block cannot be used with reading many at a time; use Io::direct";
  }
  return {};
}

void apply(const Settings& settings, FileHandle* handle) {
  handle->openMode = openModeOf(settings.opening);
  handle->readAccess = readAccessOf(settings.reading, settings.io);
  handle->writeAccess = writeAccessOf(settings.writing);
  handle->pageSize = settings.pageSize;
  handle->pageCount = 0;
  handle->fileSize = 0;
  handle->headerSize = settings.headerSize;
  handle->sequentialStartPage = 0;
  handle->bufferCount = settings.buffers;
  handle->requestedBlockBytes = settings.blockBytes;
  handle->openRetryCount = settings.busyRetries;
  handle->openOptions = 0;
  if (settings.io != Io::buffered) handle->openOptions |= optionDirectIo;
  if (settings.flushAtClose) handle->openOptions |= optionFlushAtClose;
  if (settings.locking == Locking::none) handle->openOptions |= optionAccessVariant;
}

Io askedOf(const FileHandle& handle) {
  if ((handle.openOptions & optionDirectIo) == 0) return Io::buffered;
  const bool pages = handle.readAccess == readRandom || handle.readAccess == readMany;
  return pages ? Io::direct : Io::block;
}

Io obtainedOf(const FileHandle& handle) {
  if ((handle.directIoMode & directIo) == 0) return Io::buffered;
  return (handle.directIoMode & blockMode) != 0 ? Io::block : Io::direct;
}

std::string whyBuffered(const FileHandle& handle) {
  switch (handle.directIoSupport) {
    case directIoNfs:
      return "the file is on NFS";
    case directIoTestFailed:
      return "the file system could not be examined";
    case directIoNoMemory:
      return "memory ran out while the file system was examined";
    default:
      return "the file system does not support direct I/O";
  }
}

std::string whyNotAligned(const FileHandle& handle, std::int64_t granule) {
  return "direct I/O on this file moves whole units of more than " + std::to_string(granule) +
         " bytes; pages of " + std::to_string(handle.pageSize) + " bytes after a header of " +
         std::to_string(handle.headerSize) + " bytes do not fit";
}

}  // namespace qz
