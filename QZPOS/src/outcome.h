// How operations end: what is stored, what is reported, and which of several failures counts.
#pragma once

#include "bkp.h"
#include "hostcalls.h"

namespace qz {

constexpr std::uint32_t code(Status status) { return static_cast<std::uint32_t>(status); }

inline bool isOpen(const FileHandle& h) { return (h.stateFlags & stateOpen) != 0; }
inline bool isPreopened(const FileHandle& h) { return (h.stateFlags & statePreopened) != 0; }
inline bool inBlockMode(const FileHandle& h) { return (h.directIoMode & blockMode) != 0; }
inline bool usesDirectIo(const FileHandle& h) { return (h.directIoMode & directIo) != 0; }

// Stores the outcome in the handle.
inline Status keep(FileHandle* h, Status status) {
  h->status = status;
  return status;
}

// Stores a failure, then reports it.
inline Status fail(FileHandle* h, Status status, Journal* journal) {
  h->status = status;
  bkperror(h, status, journal);
  return status;
}

// Reports a failure before it is stored: a journal that looks at the handle still sees the outcome
// of the operation before.
inline Status reportThenKeep(FileHandle* h, Status status, Journal* journal) {
  bkperror(h, status, journal);
  return keep(h, status);
}

// Stores the outcome; reports it unless it is success or the end of the file.
inline Status finish(FileHandle* h, Status status, Journal* journal) {
  if (status == Status::ok || status == Status::endOfFile) return keep(h, status);
  return fail(h, status, journal);
}

// An error entry of its own, without the file's name.
inline void journalStatus(Journal* journal, std::uint32_t status) {
  if (journal != nullptr) qzlStatusToJnl(journal, JournalLevel::error, status);
}

inline void journalStatus(Journal* journal, Status status) { journalStatus(journal, code(status)); }

// An error entry whose text has the file's name as its insert.
inline void journalWithName(Journal* journal, Status status, const FileHandle& h) {
  if (journal != nullptr) qzlStatusToJnl(journal, JournalLevel::error, code(status), h.fileName);
}

// Journals a release that the host refused. True when it was not refused.
inline bool judgeRelease(HostStatus released, Journal* journal) {
  if (released == 0) return true;
  journalStatus(journal, released);
  return false;
}

// Frees a block of a pool. A refusal is journalled, and the clean-up goes on.
inline bool freeOrJournal(MemoryPool* pool, void* block, Journal* journal) {
  return judgeRelease(freeMemory(pool, block), journal);
}

// The first failure of a clean-up that continues after failures.
class FirstFailure {
 public:
  void note(Status status) {
    if (first_ == Status::ok) first_ = status;
  }
  void noteRelease(bool released) {
    if (!released) note(Status::ioFailed);
  }
  [[nodiscard]] Status status() const { return first_; }

 private:
  Status first_ = Status::ok;
};

}  // namespace qz
