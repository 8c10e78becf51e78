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

// True for a name that lies in the handle's own buffer, which has one character more than its
// capacity.
bool isOwnName(const FileHandle& h, const char32_t* name) {
  return h.fileName != nullptr && name >= h.fileName && name <= h.fileName + h.fileNameCapacity;
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
    h->fileNameCapacity = 0;
    h->fileNameLength = 0;
    journalStatus(journal, Status::noMemory);
    return Status::noMemory;
  }
  h->fileNameCapacity = length;
  storeName(h, name, length);
  return Status::ok;
}

// A piece of the old name must be copied before its buffer is freed. If the host refuses to free
// it, the handle keeps the old name, as it does for any other new name.
Status replaceByOwnPiece(FileHandle* h, const char32_t* name, std::int32_t length,
                         Journal* journal) {
  MemoryPool* pool = h->module->modulePool;
  char32_t* const old = h->fileName;
  const std::int32_t oldCapacity = h->fileNameCapacity;
  const std::uint32_t oldLength = h->fileNameLength;
  const Status status = newName(h, name, length, journal);
  if (!freeOrJournal(pool, old, journal)) {
    if (h->fileName != nullptr) freeOrJournal(pool, h->fileName, journal);
    h->fileName = old;
    h->fileNameCapacity = oldCapacity;
    h->fileNameLength = oldLength;
    return Status::badArgument;
  }
  infoThroughTable(h, journal);
  return status;
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
  if (isOwnName(*h, name)) return keep(h, replaceByOwnPiece(h, name, length, journal));
  if (h->fileName != nullptr && !freeOrJournal(h->module->modulePool, h->fileName, journal))
    return keep(h, Status::badArgument);
  const Status status = newName(h, name, length, journal);
  infoThroughTable(h, journal);
  return keep(h, status);
}
