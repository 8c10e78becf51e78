// qzpfreememhandle: frees a handle and its file name, unless a file is still attached.
#include "hostcalls.h"
#include "outcome.h"

qz::Status qzpfreememhandle(qz::FileHandle* h, qz::Journal* journal) noexcept {
  using namespace qz;
  if (h == nullptr) return Status::badArgument;
  if (h->hostFile != nullptr) {
    bkperror(h, Status::alreadyOpen, journal);
    return Status::ok;
  }
  MemoryPool* pool = h->module->modulePool;
  bool freed = h->fileName == nullptr || freeOrJournal(pool, h->fileName, journal);
  freed = freeOrJournal(pool, h, journal) && freed;
  return freed ? Status::ok : Status::badArgument;
}
