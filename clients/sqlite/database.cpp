#include "database.h"

#include <sys/resource.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

SQLITE_EXTENSION_INIT3

namespace qzvfs {
namespace {

constexpr int kSmallestPage = 512;
constexpr int kLargestPage = 65536;
constexpr int kDirectPage = 4096;        // direct I/O accepts this page size on every disk
constexpr std::int64_t kMostZeros = 16;  // most missing pages that a write fills with zeros

// SQLite reads and writes whole pages, except for the header and counters in page 1, and while it
// copies a database into one with larger pages.
bool isPage(int bytes, sqlite3_int64 offset) {
  return bytes >= kSmallestPage && bytes <= kLargestPage &&
         std::has_single_bit(static_cast<unsigned>(bytes)) && offset % bytes == 0;
}

// The system refuses with EINVAL a direct write that a file size limit would cut inside a sector.
bool isBeyondLimit(sqlite3_int64 bytes) {
  struct rlimit limit = {};
  return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
         static_cast<rlim_t>(bytes) > limit.rlim_cur;
}

int resultOfRead(int error) {
  const bool damaged = error == EIO || error == ERANGE || error == ENXIO;
  return damaged ? SQLITE_IOERR_CORRUPTFS : SQLITE_IOERR_READ;
}

// The result of a write-back that a read needs. After SQLITE_FULL from a read, SQLite may continue
// the transaction although some of its pages are lost; after an I/O error it rolls back.
int resultInRead(int code) { return code == SQLITE_FULL ? SQLITE_IOERR_WRITE : code; }

}  // namespace

Database::Database(const qz::Module& module, sqlite3_file* lower, const char* path, Wish wish)
    : module_(module),
      lower_(lower),
      path_(path),
      wish_(std::move(wish)),
      known_(identify(path, &identity_)) {
  int moved = 0;
  const int asked = lower->pMethods->xFileControl(lower, SQLITE_FCNTL_HAS_MOVED, &moved);
  if (asked != SQLITE_OK || moved != 0) known_ = false;
  if (known_) enterFile(identity_);
}

Database::~Database() {
  file_.reset();
  if (known_) leaveFile(identity_);
}

// Keeps the reason for SQLite and its log, and reopens the file at the next use: a page whose read
// failed would fail again until its buffer is used for another page.
int Database::failed(const qz::Error& error, int code) {
  errno_ = error.errorNumber;
  sqlite3_log(code, "qzvfs: %s", error.message().c_str());
  drop();
  return code;
}

void Database::drop() {
  file_.reset();
  looked_ = false;
  cached_ = false;
}

// A failed write loses collected pages: SQLite must not continue without them.
int Database::failedWrite(const qz::Error& error, sqlite3_int64 bytes) {
  const bool refused = error.errorNumber == EINVAL;
  const bool full = error.status == qz::Status::noSpace || (refused && isBeyondLimit(bytes));
  if (refused && !full) goBuffered();
  return failed(error, full ? SQLITE_FULL : SQLITE_IOERR_WRITE);
}

void Database::goBuffered() {
  whyNotDirect_ = "the disk does not take pages of " + std::to_string(pageSize_) + " bytes";
  sqlite3_log(SQLITE_NOTICE, "qzvfs: %s: buffered I/O: %s", path_.c_str(), whyNotDirect_.c_str());
  wish_.io = qz::Io::buffered;
}

// Stops direct I/O if the disk does not take units of this page size.
bool Database::giveUpDirect(const qz::Error& error) {
  if (wish_.io == qz::Io::buffered || error.errorNumber != EINVAL || file_->isCollecting()) {
    return false;
  }
  goBuffered();
  drop();
  return true;
}

// How the module opens the file. Direct I/O also appends in blocks, and reads single pages with
// readMany. An empty file does not show whether the disk takes small pages, and collected pages
// could not be written another way. In an empty file pages are therefore written one by one, as in
// a file that the layer underneath enlarges.
qz::Io Database::ioFor(int pageSize, sqlite3_int64 bytes) const {
  if (wish_.io == qz::Io::buffered) return qz::Io::buffered;
  const bool unsure = pageSize < kDirectPage && bytes == 0;
  return unsure || chunked_ ? qz::Io::direct : qz::Io::block;
}

// Whether the name still stands for the file that the layer underneath has open.
bool Database::isOurFile() {
  Identity opened;
  return identify(file_->handle()->fd, &opened) && opened == identity_;
}

// Opens the file for pages of this size. If the module cannot, the layer underneath does the work.
bool Database::tryOpen(int pageSize, sqlite3_int64 bytes) {
  if (!known_) {
    whyNot_ = "the name does not stand for the open file";
    return false;
  }
  if (bytes % pageSize != 0) {
    whyNot_ = "the size of " + std::to_string(bytes) + " bytes is not whole pages of " +
              std::to_string(pageSize);
    return false;
  }
  auto file = module_.newFile();
  if (!file) {
    whyNot_ = file.error().message();
    return false;
  }
  file_.emplace(*std::move(file));
  const Expecting ours(identity_);
  io_ = ioFor(pageSize, bytes);
  const bool keepsBlocks = wish_.io == qz::Io::block && io_ == qz::Io::block;
  const auto opened = file_->open(
      path_, {.pageSize = pageSize,
              .writing = wish_.writable ? qz::Writing::anyPage : qz::Writing::none,
              .io = io_,
              .blockBytes = std::max<std::int64_t>(wish_.blockBytes / pageSize, 1) * pageSize,
              .buffers = keepsBlocks ? wish_.buffers : 1,
              .locking = qz::Locking::none});  // SQLite's own locks are in force
  if (!opened) {
    whyNot_ = opened.error().message();
  } else if (!isOurFile()) {
    whyNot_ = "the name now stands for another file";
  } else if (file_->pageCount() != bytes / pageSize) {
    whyNot_ = "the size changed while the file was opened";
  } else {
    if (const qz::IoReport io = file_->io(); io.asked != io.obtained) whyNotDirect_ = io.reason;
    if (wish_.io == qz::Io::direct) makeAligned(pageSize);
    return true;
  }
  drop();
  return false;
}

// Allocates memory that direct I/O reads a page into.
void Database::makeAligned(int pageSize) {
  const auto bytes = static_cast<std::size_t>(std::max(pageSize, kDirectPage));
  aligned_.reset(static_cast<char*>(std::aligned_alloc(kDirectPage, bytes)));
  if (aligned_ == nullptr) throw std::bad_alloc();
}

// Decides where pages of this size are read and written, and updates the module's view of the file.
int Database::look(int pageSize, bool* throughModule) {
  if (!looked_ || pageSize != pageSize_) {
    if (const int code = writeBack(); code != SQLITE_OK) return code;
    sqlite3_int64 bytes = 0;
    if (const int code = lower_->pMethods->xFileSize(lower_, &bytes); code != SQLITE_OK) {
      return code;
    }
    const bool asItWas = usable_ && file_ && file_->isOpen() && pageSize == pageSize_ && !cached_ &&
                         file_->pageCount() * pageSize == bytes && ioFor(pageSize, bytes) == io_;
    pageSize_ = pageSize;
    if (!asItWas) {
      drop();
      whyNot_.clear();
      usable_ = tryOpen(pageSize, bytes);
    }
    looked_ = true;
  }
  *throughModule = usable_;
  return SQLITE_OK;
}

// Copies the page from its block in memory; if the block is not in memory, the module reads it.
int Database::readFromBlock(void* data, int pageSize, std::int64_t page, bool* done) {
  const auto hold = file_->read(page);
  if (hold) {
    std::memcpy(data, hold->data(), static_cast<std::size_t>(pageSize));
    cached_ = true;
    *done = true;
    return SQLITE_OK;
  }
  // The file became shorter: the layer underneath knows how much of the page is left.
  if (hold.error().closedFile && hold.error().errorNumber == 0) {
    drop();
    return SQLITE_OK;
  }
  if (giveUpDirect(hold.error())) return SQLITE_OK;
  return failed(hold.error(), resultOfRead(hold.error().errorNumber));
}

int Database::readPage(void* data, int pageSize, std::int64_t page, bool* done) {
  if (wish_.io == qz::Io::block) return readFromBlock(data, pageSize, page, done);
  // Collected pages are not in the file yet.
  if (file_->isCollecting() && page * pageSize > file_->settings().fileSize) {
    if (const int code = writeBack(); code != SQLITE_OK) return resultInRead(code);
  }
  const bool direct = wish_.io == qz::Io::direct;
  void* const area = direct ? aligned_.get() : data;
  std::int32_t pages = 0;
  const auto got = file_->readMany(page, 1, area, &pages);
  if (!got && got.status() != qz::Status::endOfFile) {
    if (giveUpDirect(got.error())) return SQLITE_OK;
    return failed(got.error(), resultOfRead(got.error().errorNumber));
  }
  if (pages == 1) {
    if (direct) std::memcpy(data, area, static_cast<std::size_t>(pageSize));
    *done = true;
    return SQLITE_OK;
  }
  // The file became shorter: the layer underneath knows how much of the page is left.
  drop();
  return SQLITE_OK;
}

int Database::read(void* data, int bytes, sqlite3_int64 offset) {
  if (isPage(bytes, offset)) {
    bool throughModule = false;
    const int looked = look(bytes, &throughModule);
    if (looked != SQLITE_OK) return resultInRead(looked);
    const std::int64_t page = offset / bytes + 1;
    if (throughModule && page <= file_->pageCount()) {
      bool done = false;
      const int code = readPage(data, bytes, page, &done);
      if (done || code != SQLITE_OK) return code;
    }
    // The page is past the known end: a checkpoint of another process may have added it.
    if (throughModule && file_ && !file_->isCollecting()) stale();
  }
  if (const int code = writeBack(); code != SQLITE_OK) return resultInRead(code);
  return lower_->pMethods->xRead(lower_, data, bytes, offset);
}

int Database::write(const void* data, int bytes, sqlite3_int64 offset) {
  for (bool again = isPage(bytes, offset); again;) {
    bool throughModule = false;
    if (const int code = look(bytes, &throughModule); code != SQLITE_OK) return code;
    const std::int64_t page = offset / bytes + 1;
    // The layer underneath makes holes in the file. But SQLite often skips a page that it writes
    // soon after: such pages are filled with zeros, because then the file need not be reopened.
    if (!throughModule || page > file_->pageCount() + 1 + kMostZeros) break;
    const bool collecting = file_->isCollecting();
    auto written = file_->extendTo(page - 1);
    if (written) written = file_->write(data, page);
    if (written) {
      // The end of a checkpoint is not reported, so its pages must not wait.
      return checkpointing_ ? writeBack() : SQLITE_OK;
    }
    again = !collecting && giveUpDirect(written.error());
    if (!again) return failedWrite(written.error(), offset + bytes);
  }
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  stale();
  return lower_->pMethods->xWrite(lower_, data, bytes, offset);
}

int Database::truncate(sqlite3_int64 bytes) {
  // Pages to be cut off need not be written first; there may be no room for them.
  const bool collecting = file_ && file_->isCollecting();
  if (collecting && bytes % pageSize_ == 0 && bytes / pageSize_ <= file_->pageCount()) {
    const auto cut = file_->truncate(bytes / pageSize_);
    if (!cut) return failed(cut.error(), SQLITE_IOERR_TRUNCATE);
    return SQLITE_OK;
  }
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  stale();
  return lower_->pMethods->xTruncate(lower_, bytes);
}

int Database::writeBack() {
  if (!file_ || !file_->isCollecting()) return SQLITE_OK;
  const sqlite3_int64 bytes = file_->pageCount() * pageSize_;
  const auto written = file_->writeBack();
  return written ? SQLITE_OK : failedWrite(written.error(), bytes);
}

int Database::setChunked() {
  const int code = writeBack();
  chunked_ = true;
  stale();
  return code;
}

// fsync applies to the file, not to the descriptor.
int Database::sync(int flags) {
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  return lower_->pMethods->xSync(lower_, flags);
}

int Database::fileSize(sqlite3_int64* bytes) {
  if (file_ && file_->isCollecting()) {
    *bytes = file_->pageCount() * pageSize_;
    return SQLITE_OK;
  }
  return lower_->pMethods->xFileSize(lower_, bytes);
}

std::string Database::describe() {
  if (!looked_) {
    // No page was read since the file may have changed: its header has the page size.
    unsigned char header[100] = {};
    int pageSize = pageSize_;
    if (lower_->pMethods->xRead(lower_, header, sizeof header, 0) == SQLITE_OK) {
      pageSize = header[16] << 8 | header[17];
      if (pageSize == 1) pageSize = kLargestPage;
    }
    bool ignored = false;
    if (isPage(pageSize, 0)) look(pageSize, &ignored);
  }
  if (pageSize_ == 0) return "no page yet (asked: " + wish_.asked + ")";
  if (!usable_) return "SQLite's own (asked: " + wish_.asked + "; " + whyNot_ + ")";
  const bool direct = file_->io().obtained != qz::Io::buffered;
  std::string text = nameOf(direct ? wish_.io : qz::Io::buffered);
  if (text == wish_.asked) return text;
  text += " (asked: " + wish_.asked;
  return text + (whyNotDirect_.empty() ? ")" : "; " + whyNotDirect_ + ")");
}

}  // namespace qzvfs
