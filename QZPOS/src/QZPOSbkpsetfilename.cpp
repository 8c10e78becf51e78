// qzpsetfilename: gives a handle the path of its file, in a buffer that grows but never shrinks.
#include <cstring>
#include <utility>

#include "hostcalls.h"
#include "outcome.h"

namespace qz {
namespace {

void storeName(FileHandle* h, const char32_t* name, std::int32_t length) {
  if (length > 0) {
    // A caller may give a piece of the name that the handle has.
    std::memmove(h->fileName, name, static_cast<std::size_t>(length) * sizeof(char32_t));
  }
  h->fileName[length] = 0;
  h->fileNameLength = static_cast<std::uint32_t>(length);
}

// True for the whole of the buffer that the handle has. A name as long as that takes a new buffer,
// but this one would be gone before it could be copied.
bool isOwnName(const FileHandle& h, const char32_t* name, std::int32_t length) {
  return h.fileName != nullptr && name == h.fileName && length == h.fileNameCapacity;
}

bool dropName(FileHandle* h, Journal* journal) {
  if (!release(h->module->modulePool, h->fileName, journal)) return false;
  h->fileNameCapacity = 0;
  h->fileNameLength = 0;
  return true;
}

Status newName(FileHandle* h, const char32_t* name, std::int32_t length, Journal* journal) {
  const std::uint64_t bytes = (static_cast<std::uint64_t>(length) + 1) * sizeof(char32_t);
  h->fileName = nullptr;
  // The longest names need more bytes than a 32-bit target can express.
  if (std::in_range<std::size_t>(bytes)) {
    h->fileName = static_cast<char32_t*>(
        allocate(h->module->modulePool, static_cast<std::size_t>(bytes), kAsAllocated));
  }
  if (h->fileName == nullptr) {
    journalStatus(journal, Status::noMemory);
    return Status::noMemory;
  }
  h->fileNameCapacity = length;
  storeName(h, name, length);
  return Status::ok;
}

}  // namespace
}  // namespace qz

qz::Status qzpsetfilename(qz::FileHandle* h, const char32_t* name, std::int32_t length,
                          qz::Journal* journal) noexcept {
  using namespace qz;
  if (h->hostFile != nullptr) return reportThenKeep(h, Status::alreadyOpen, journal);
  if (length < 0) return fail(h, Status::badArgument, journal);
  if (h->fileName != nullptr && length < h->fileNameCapacity) {
    storeName(h, name, length);
    return keep(h, Status::ok);
  }
  Status status = Status::ok;
  if (isOwnName(*h, name, length)) {
    storeName(h, name, length);
  } else {
    if (h->fileName != nullptr && !dropName(h, journal)) return keep(h, Status::badArgument);
    status = newName(h, name, length, journal);
  }
  infoThroughTable(h, journal);
  return keep(h, status);
}
