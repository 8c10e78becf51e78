// The stand-in host: a small host toolkit with everything that the module needs from a host.
//
// A program creates a StandInHost, passes handle() to qzextent and qziop of a loaded module, and
// passes one of its journals to every operation. The host's records are plain data: a program may
// replace a slot of any of them and restore it. docs/host-contract.md describes every record.
//
// Several threads may use pools, journals and the services that create objects at the same time.
// One tree or one host file may be used by one thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qzhost.h"

namespace qz {

// Statuses of the host's own operations. The module maps those of the file service, 0x80FFE001 to
// 0x80FFE015, to its own codes.
enum HostCode : HostStatus {
  hostOk = 0,
  hostNoMemory = 0x80FFE001,       // ENOMEM, ENOBUFS, or the host's own memory
  hostBadParameters = 0x80FFE002,  // EINVAL, as for refused O_DIRECT; EBADF
  hostDeviceError = 0x80FFE003,    // EIO
  hostNoDevice = 0x80FFE004,       // ENODEV
  hostStaleFile = 0x80FFE005,      // ESTALE, ENOTCONN, ETIMEDOUT: the file server lost it
  hostFileNotFound = 0x80FFE006,   // ENOENT, ENOTDIR: no such file, or no such folder in its path
  hostAccessRefused = 0x80FFE007,  // EACCES, EPERM
  hostNoSpace = 0x80FFE008,        // ENOSPC, EDQUOT: no room for a new file
  hostIsDirectory = 0x80FFE009,    // EISDIR, also if opened only for reading
  hostBadName = 0x80FFE00A,        // empty, ENAMETOOLONG, ELOOP, or not representable
  hostNoDescriptor = 0x80FFE00B,   // EMFILE, ENFILE
  hostCloseFailed = 0x80FFE00C,    // close(2) reported a failure: data may be lost
  hostNotRemoved = 0x80FFE00D,     // the file could not be removed
  hostReadOnlyFileSystem = 0x80FFE00E,  // EROFS
  hostLocked = 0x80FFE00F,              // locked by another open file; worth waiting for
  hostProgramRunning = 0x80FFE010,      // ETXTBSY: the file is a running program
  hostDeviceBusy = 0x80FFE011,          // EBUSY; worth waiting for
  hostNoLocks = 0x80FFE012,             // the system could not lock, as with ENOLCK
  hostTryAgain = 0x80FFE013,            // EAGAIN of the open; worth waiting for
  hostOtherFailure = 0x80FFE014,        // any other error number
  hostUnsupportedFile = 0x80FFE015,  // not a regular file or block device; EFBIG, EOVERFLOW, ENXIO
  // Outside the file service's range; the module journals or ignores these.
  hostForeignBlock = 0x80FFE101,    // memFree of an address that is not a block in use of the pool
  hostBlocksLive = 0x80FFE102,      // destroy of a pool with blocks still in use
  hostTextTooLong = 0x80FFE103,     // a text does not fit its buffer; nothing was stored
  hostBadText = 0x80FFE104,         // null text, an impossible length, or text without a UTF-8 form
  hostUnknownOption = 0x80FFE105,   // no such option, or it is not set
  hostWrongValueType = 0x80FFE106,  // the option has another type or needs more room
  hostNoSuchExtension = 0x80FFE107,  // extensionLoad of a name other than "qzeavl"
  hostNoEncoding = 0x80FFE108,       // converterCreate for an encoding that the host lacks
};

// Bits of the access mode of fileOpen and fileReopen.
enum AccessMode : std::uint32_t {
  accessWrite = 0x1,
  accessRead = 0x2,
  accessExclusive = 0x4,  // no other open file may hold a lock; needs a file opened for writing
  accessShared = 0x8,     // others may read too; needs a file opened for reading
  accessNoLock = 0x20,    // no lock, whatever the two bits before say
};

// Converts UTF-32 text to UTF-8 and back. Bytes that are not UTF-8 become U+DC80 to U+DCFF, one
// each, and are converted back to the same bytes, so that every file name survives. Other code
// points that Unicode does not have become U+FFFD. May throw std::bad_alloc.
std::string toUtf8(std::u32string_view text);
std::u32string toUtf32(std::string_view text);

// The message catalogue's text for a module code or host status, as UTF-8, with a placeholder
// ("%s") for each insert; for an unknown status, a text with its number. Never empty.
std::string statusText(std::uint32_t status);

struct JournalEntry {
  JournalLevel level;
  std::uint32_t status;  // 0: a message, like the module's reports
  std::string text;      // UTF-8, with inserts
};

enum class JournalSink {
  memory,         // kept for entries()
  standardError,  // one line each, "note: ..." or "error: ..."
  function,       // passed to a function of the program
};

// A function of the program that gets each entry of a journal. `entry` is valid during the call.
// The call comes from the thread that reports, and no lock is held: if threads share a journal,
// calls may overlap. The function must not use the file handle that is being reported.
using JournalFunction = void (*)(void* context, const JournalEntry& entry) noexcept;

// A journal with the stand-in host's message catalogue. Safe to use from several threads. Its
// operations never throw: if memory runs out, an entry is lost with hostNoMemory.
class StandInJournal : public Journal {
 public:
  // With JournalSink::function each entry is passed to function(context, entry). The context is
  // the program's and may be null; a null function discards the entries.
  explicit StandInJournal(JournalSink sink = JournalSink::memory,
                          JournalFunction function = nullptr, void* context = nullptr) noexcept;
  StandInJournal(const StandInJournal&) = delete;
  StandInJournal& operator=(const StandInJournal&) = delete;

  // Copies of the entries so far, in order; empty for sinks other than memory.
  std::vector<JournalEntry> entries() const;
  void clear();

  // Adds an entry. The journal operations call it with the formatted text.
  HostStatus append(JournalLevel level, std::uint32_t status, std::string text) noexcept;

 private:
  JournalSink sink_;
  JournalFunction function_;
  void* context_;
  mutable std::mutex mutex_;
  std::vector<JournalEntry> entries_;
};

// Use of a pool.
struct PoolCounts {
  std::size_t liveBlocks = 0;    // allocated and not yet freed
  std::size_t liveBytes = 0;     // bytes asked for in those
  std::size_t allocations = 0;   // blocks allocated so far
  std::size_t refusedFrees = 0;  // memFree calls refused with hostForeignBlock
  std::size_t leakedBlocks = 0;  // still live when the pool was destroyed
};

struct StandInOptions {
  std::optional<std::int32_t> hostPageSize;  // the option "host.pagesize", bytes; absent: not set
  JournalSink defaultJournal = JournalSink::standardError;
  // With JournalSink::function: the function of the default journal, as in StandInJournal.
  JournalFunction journalFunction = nullptr;
  void* journalContext = nullptr;
};

struct HostRecords;

// The toolkit. Objects created through its handle (pools, extensions, converters, trees, host
// files) are destroyed through their own operations; those left over are destroyed with the
// toolkit.
class StandInHost {
 public:
  explicit StandInHost(const StandInOptions& options = {});
  ~StandInHost();
  StandInHost(const StandInHost&) = delete;
  StandInHost& operator=(const StandInHost&) = delete;

  QZHandle* handle() noexcept;

  // The journal behind handle()->defaultJournal.
  StandInJournal& defaultJournal() noexcept;

  // Sets or clears the option "host.pagesize".
  void setHostPageSize(std::optional<std::int32_t> bytes) noexcept;

  // How many pools, extensions, converters, trees and host files still exist.
  std::size_t liveObjects() const noexcept;

  // The newest existing pool of that name, or null.
  MemoryPool* pool(std::string_view name) noexcept;

  // The sum over all pools of that name, destroyed ones included.
  PoolCounts poolCounts(std::string_view name) const noexcept;

  // The sum over all pools that this host ever created.
  PoolCounts poolCounts() const noexcept;

 private:
  std::unique_ptr<HostRecords> records_;
};

}  // namespace qz
