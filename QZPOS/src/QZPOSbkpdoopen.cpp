// bkpdoopen: opens or reopens the file; nothing else does. Chooses between buffered and
// direct I/O, asks the host's file service, falls back to buffered I/O where direct I/O is
// refused, waits for a busy file, and translates the host's status.
#include <algorithm>
#include <array>
#include <cerrno>

#include "hostcalls.h"
#include "notes.h"
#include "outcome.h"

namespace qz {
namespace {

constexpr std::u32string_view kSmallBuffersNote =
    U"Trying Direct IO with small buffers since read access is random or is many-at-a-time: %s";
constexpr std::u32string_view kApplicationNote =
    U"Direct IO not being performed because the application did not tell us to use Direct IO: %s";
constexpr std::u32string_view kFileSystemNote =
    U"Direct IO not being performed because the filesystem type is not appropriate: %s";
constexpr std::u32string_view kNotToldNote =
    U"Direct IO not being performed because we were not told to use Direct IO: %s";
constexpr std::u32string_view kOpenFailedNote =
    U"Direct IO not being performed because the open failed for Direct IO: %s";
static_assert(kSmallBuffersNote.size() == 88);
static_assert(kApplicationNote.size() == 90);
static_assert(kFileSystemNote.size() == 80);
static_assert(kNotToldNote.size() == 75);
static_assert(kOpenFailedNote.size() == 71);

constexpr HostStatus kFirstOpenStatus = 0x80FFE001;
constexpr HostStatus kBusyStatuses[] = {0x80FFE00F, 0x80FFE011, 0x80FFE013};
constexpr std::uint32_t kBusyWait = 1000;

// The host's open statuses, from kFirstOpenStatus on.
constexpr std::array<Status, 21> kOpenStatuses = {
    Status::noMemory,            // 0x80FFE001
    Status::ioFailed,            // 2
    Status::ioFailed,            // 3
    Status::ioFailed,            // 4
    Status::ioFailed,            // 5
    Status::fileNotFound,        // 6
    Status::accessRefused,       // 7
    Status::ioFailed,            // 8
    Status::isDirectory,         // 9
    Status::noFileName,          // A
    Status::noDescriptor,        // B
    Status::ioFailed,            // C
    Status::notRemoved,          // D
    Status::readOnlyFileSystem,  // E
    Status::busy,                // F
    Status::busy,                // 10
    Status::busy,                // 11
    Status::busy,                // 12
    Status::busy,                // 13
    Status::ioFailed,            // 14
    Status::unsupportedFile,     // 15
};

Status translate(HostStatus hostStatus) {
  if (hostStatus == 0) return Status::ok;
  const std::uint32_t index = hostStatus - kFirstOpenStatus;
  return index < kOpenStatuses.size() ? kOpenStatuses[index] : Status::ioFailed;
}

bool isBusy(HostStatus hostStatus) {
  return std::ranges::find(kBusyStatuses, hostStatus) != std::end(kBusyStatuses);
}

struct IoChoice {
  std::uint32_t mode;        // IoMode bits
  std::u32string_view note;  // empty: none
};

// Whether direct I/O is wanted comes from the handle, also on a reopen; how the file will be read
// comes from the hints.
IoChoice chooseIo(const FileHandle& h, const AccessHints& hints) {
  const bool wanted = (h.openOptions & optionDirectIo) != 0;
  const bool fit = h.directIoSupport > 0;
  if (!fit) return {0, wanted ? kFileSystemNote : kNotToldNote};
  if (!wanted) return {0, kApplicationNote};
  const bool smallReads = hints.readAccess == readMany || hints.readAccess == readRandom;
  if (smallReads) return {directIo, kSmallBuffersNote};
  return {directIo | blockMode, {}};
}

// Bits of the host's access mode.
constexpr std::uint32_t kAccessRead = 10;    // reading, shared
constexpr std::uint32_t kAccessWrite = 5;    // writing, exclusive
constexpr std::uint32_t kAccessLocks = 0xC;  // exclusive, shared
constexpr std::uint32_t kAccessNoLock = 0x20;

std::uint32_t accessModeOf(const AccessHints& hints) {
  if ((hints.openOptions & optionOwnAccessMode) != 0) return hints.openOptions >> 16;
  const std::uint32_t mode = hints.writeAccess == noWrite ? kAccessRead : kAccessWrite;
  if ((hints.openOptions & optionAccessVariant) == 0) return mode;
  return (mode | kAccessNoLock) & ~kAccessLocks;
}

std::uint32_t openFlagsOf(const AccessHints& hints, std::uint32_t openMode, std::uint32_t ioMode) {
  std::uint32_t flags = openflag::readWrite;
  if (hints.writeAccess == noWrite) {
    flags = openflag::readOnly;
  } else if (hints.readAccess == noRead) {
    flags = openflag::writeOnly;
  }
  if (openMode == createOrReplace) flags |= openflag::create;
  if ((ioMode & directIo) != 0) flags |= openflag::direct;
  return flags;
}

// One physical open: its parameters, with which the host can be asked again.
class PhysicalOpen {
 public:
  PhysicalOpen(FileHandle* h, OpenKind kind, const AccessHints& hints, std::uint32_t openFlags,
               Journal* journal)
      : h_(h), kind_(kind), accessMode_(accessModeOf(hints)), journal_(journal) {
    record_.fileName = h->fileName;
    record_.fileNameLength = h->fileNameLength;
    record_.permissions = kFilePermissions;
    record_.openFlags = openFlags;
    // A reopened file keeps the locks that it has.
    if (kind == OpenKind::reopen && (accessMode_ & kAccessNoLock) != 0) {
      accessMode_ &= ~(kAccessNoLock | kAccessLocks);
    }
  }

  void attempt() {
    if (kind_ == OpenKind::reopen) {
      hostStatus_ =
          h_->hostFile->fileMethods->fileReopen(h_->hostFile, &record_, accessMode_, journal_);
      return;
    }
    FileService* service = h_->module->host->fileService;
    hostStatus_ = 0;
    h_->hostFile = service->fileOpen(service, &record_, 1, accessMode_, journal_, &hostStatus_);
  }

  // True when the file system refused the attempt's direct I/O.
  [[nodiscard]] bool directRefused() const {
    return (record_.openFlags & openflag::direct) != 0 && record_.systemErrno == EINVAL;
  }

  void attemptBuffered() {
    record_.openFlags &= ~openflag::direct;
    attempt();
  }

  void retryWhileBusy() {
    if (h_->openRetryCount <= 0 || !isBusy(hostStatus_) || Exported_QZHandle == nullptr) return;
    Task* task = Exported_QZHandle->currentTask(Exported_QZHandle);
    for (std::int32_t attempts = 0; attempts < h_->openRetryCount && isBusy(hostStatus_);
         ++attempts) {
      qzWait(task, 0, 0, 0, 0, kBusyWait);
      attempt();
    }
  }

  // Stores the descriptor, or the host's error details after a failure.
  Status outcome() {
    const bool nothingOpened = hostStatus_ == 0 && h_->hostFile == nullptr;
    const Status status = nothingOpened ? Status::ioFailed : translate(hostStatus_);
    if (status == Status::ok) {
      h_->fd = h_->hostFile->fileInfo->fd;
    } else {
      h_->lastErrno = record_.systemErrno;
      h_->hostErrorDetail1 = record_.errorDetail1;
      h_->hostErrorDetail2 = record_.errorDetail2;
    }
    return status;
  }

 private:
  FileHandle* h_;
  OpenKind kind_;
  std::uint32_t accessMode_;
  Journal* journal_;
  OpenParameters record_ = {};
  HostStatus hostStatus_ = 0;
};

}  // namespace

Status bkpdoopen(FileHandle* h, OpenKind kind, std::uint32_t openMode, const AccessHints& hints,
                 Journal* journal) {
  const bool display = showsIoType();
  const IoChoice io = chooseIo(*h, hints);
  h->directIoMode = io.mode;
  if (display && !io.note.empty()) writeNote(noteJournal(*h, journal), io.note, h->fileName);
  if (openMode == createOrReplace) {
    h->fileSize = 0;
    h->pageCount = 0;
  }

  PhysicalOpen open(h, kind, hints, openFlagsOf(hints, openMode, io.mode), journal);
  open.attempt();
  if (open.directRefused()) {
    h->directIoMode = 0;
    open.attemptBuffered();
    if (display) writeNote(noteJournal(*h, journal), kOpenFailedNote, h->fileName);
  }
  open.retryWhileBusy();
  return keep(h, open.outcome());
}

}  // namespace qz
