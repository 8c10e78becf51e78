// qzpsetfilename: gives a handle the path of its file, in a buffer that grows but never shrinks.
#include <algorithm>
#include <cstdint>

#include "hostcalls.h"
#include "outcome.h"

namespace qz {
namespace {

void storeName(FileHandle* h, const char32_t* name, std::int32_t length) {
  std::copy_n(name, length, h->fileName);
  h->fileName[length] = 0;
  h->fileNameLength = static_cast<std::uint32_t>(length);
}

bool dropName(FileHandle* h, Journal* journal) {
  if (!release(h->module->modulePool, h->fileName, journal)) return false;
  h->fileNameCapacity = 0;
  h->fileNameLength = 0;
  return true;
}

Status newName(FileHandle* h, const char32_t* name, std::int32_t length, Journal* journal) {
  const std::uint64_t bytes = (static_cast<std::uint64_t>(length) + 1) * sizeof(char32_t);
  // No block is as large as the longest lengths ask for, on a 32-bit target least of all.
  const bool expressible = bytes <= static_cast<std::uint64_t>(PTRDIFF_MAX);
  h->fileName = nullptr;
  if (expressible) {
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
  if (h->hostFile != nullptr) return fail(h, Status::alreadyOpen, journal);
  if (length < 0) return fail(h, Status::badArgument, journal);
  if (h->fileName != nullptr) {
    if (length < h->fileNameCapacity) {
      storeName(h, name, length);
      return keep(h, Status::ok);
    }
    if (!dropName(h, journal)) return keep(h, Status::badArgument);
  }
  const Status status = newName(h, name, length, journal);
  infoThroughTable(h, journal);
  return keep(h, status);
}
