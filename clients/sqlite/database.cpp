#include "database.h"

#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

SQLITE_EXTENSION_INIT3

namespace qzvfs {
namespace {

constexpr int kSmallestPage = 512;
constexpr int kLargestPage = 65536;

// SQLite reads and writes pages whole, except for the header and counters in page 1, and while it
// copies a database into one with larger pages.
bool isPage(int bytes, sqlite3_int64 offset) {
  return bytes >= kSmallestPage && bytes <= kLargestPage &&
         std::has_single_bit(static_cast<unsigned>(bytes)) && offset % bytes == 0;
}

int resultOfRead(int error) {
  const bool damaged = error == EIO || error == ERANGE || error == ENXIO;
  return damaged ? SQLITE_IOERR_CORRUPTFS : SQLITE_IOERR_READ;
}

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

// Keeps the reason for SQLite and its log, and makes the next use begin afresh: a page whose read
// failed would fail again as long as its buffer is not used for another.
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

// Direct I/O that the disk does not take in units of this page size.
bool Database::giveUpDirect(const qz::Error& error) {
  if (wish_.io == qz::Io::buffered || error.errorNumber != EINVAL) return false;
  whyNotDirect_ = "the disk does not take pages of " + std::to_string(pageSize_) + " bytes";
  sqlite3_log(SQLITE_NOTICE, "qzvfs: %s: buffered I/O: %s", path_.c_str(), whyNotDirect_.c_str());
  wish_.io = qz::Io::buffered;
  drop();
  return true;
}

// The name may stand for another file than the one that the layer underneath has open.
bool Database::isOurFile() {
  Identity opened;
  return identify(file_->handle()->fd, &opened) && opened == identity_;
}

// Opens the file for pages of this size. What the module cannot do is left to the layer underneath.
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
  const bool block = wish_.io == qz::Io::block;
  const auto opened = file_->open(
      path_, {.pageSize = pageSize,
              .writing = wish_.writable ? qz::Writing::anyPage : qz::Writing::none,
              .io = wish_.io,
              .blockBytes = std::max<std::int64_t>(wish_.blockBytes / pageSize, 1) * pageSize,
              .buffers = block ? wish_.buffers : 1,
              .locking = qz::Locking::none});  // SQLite's own locks are in force
  if (!opened) {
    whyNot_ = opened.error().message();
  } else if (!isOurFile()) {
    whyNot_ = "the name stands for another file by now";
  } else if (file_->pageCount() != bytes / pageSize) {
    whyNot_ = "the size changed while the file was opened";
  } else {
    if (const qz::IoReport io = file_->io(); io.asked != io.obtained) whyNotDirect_ = io.reason;
    return true;
  }
  drop();
  return false;
}

// Decides where pages of this size go, and brings the module up to date with the file.
int Database::look(int pageSize, bool* throughModule) {
  if (!looked_ || pageSize != pageSize_) {
    if (const int code = writeBack(); code != SQLITE_OK) return code;
    sqlite3_int64 bytes = 0;
    if (const int code = lower_->pMethods->xFileSize(lower_, &bytes); code != SQLITE_OK) {
      return code;
    }
    const bool asItWas = usable_ && file_ && file_->isOpen() && pageSize == pageSize_ && !cached_ &&
                         file_->pageCount() * pageSize == bytes;
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

int Database::readPage(void* data, int pageSize, std::int64_t page, bool* done) {
  const auto hold = file_->read(page);
  if (hold) {
    std::memcpy(data, hold->data(), static_cast<std::size_t>(pageSize));
    cached_ = cached_ || wish_.io == qz::Io::block;
    *done = true;
    return SQLITE_OK;
  }
  // The file has become shorter: the layer underneath tells how much of the page is left.
  if (hold.error().closedFile && hold.error().errorNumber == 0) {
    drop();
    return SQLITE_OK;
  }
  if (giveUpDirect(hold.error())) return SQLITE_OK;
  return failed(hold.error(), resultOfRead(hold.error().errorNumber));
}

int Database::read(void* data, int bytes, sqlite3_int64 offset) {
  if (isPage(bytes, offset)) {
    bool throughModule = false;
    if (const int code = look(bytes, &throughModule); code != SQLITE_OK) return code;
    const std::int64_t page = offset / bytes + 1;
    if (throughModule && page <= file_->pageCount()) {
      bool done = false;
      const int code = readPage(data, bytes, page, &done);
      if (done || code != SQLITE_OK) return code;
    }
    // Beyond the pages that were there: a checkpoint of another process may have added it.
    if (throughModule && file_ && !file_->isCollecting()) stale();
  }
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  return lower_->pMethods->xRead(lower_, data, bytes, offset);
}

int Database::write(const void* data, int bytes, sqlite3_int64 offset) {
  for (bool again = isPage(bytes, offset); again;) {
    bool throughModule = false;
    if (const int code = look(bytes, &throughModule); code != SQLITE_OK) return code;
    const std::int64_t page = offset / bytes + 1;
    // Pages between the last one and this one are a hole in the file.
    if (!throughModule || page > file_->pageCount() + 1) break;
    const auto written = file_->write(data, page);
    if (written) {
      // A checkpoint tells nobody when it is done, so its pages must not wait.
      return checkpointing_ ? writeBack() : SQLITE_OK;
    }
    again = giveUpDirect(written.error());
    if (!again) {
      const bool full = written.status() == qz::Status::noSpace;
      return failed(written.error(), full ? SQLITE_FULL : SQLITE_IOERR_WRITE);
    }
  }
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  stale();
  return lower_->pMethods->xWrite(lower_, data, bytes, offset);
}

int Database::truncate(sqlite3_int64 bytes) {
  // Pages that are cut off need not be written first, for which there may be no room.
  const bool collecting = file_ && file_->isCollecting();
  if (collecting && bytes % pageSize_ == 0 && bytes / pageSize_ <= file_->pageCount()) {
    const auto cut = file_->truncate(bytes / pageSize_);
    if (!cut) return failed(cut.error(), SQLITE_IOERR_TRUNCATE);
    if (!chunked_) return SQLITE_OK;
  }
  if (const int code = writeBack(); code != SQLITE_OK) return code;
  stale();
  return lower_->pMethods->xTruncate(lower_, bytes);
}

int Database::writeBack() {
  if (!file_ || !file_->isCollecting()) return SQLITE_OK;
  const auto written = file_->writeBack();
  if (written) return SQLITE_OK;
  const bool full = written.status() == qz::Status::noSpace;
  return failed(written.error(), full ? SQLITE_FULL : SQLITE_IOERR_WRITE);
}

// fsync is of the file, not of the descriptor.
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
    // No page was asked for since the file may have changed: its header tells the size of one.
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
  std::string text = nameOf(file_->io().obtained);
  if (text == wish_.asked) return text;
  text += " (asked: " + wish_.asked;
  return text + (whyNotDirect_.empty() ? ")" : "; " + whyNotDirect_ + ")");
}

}  // namespace qzvfs
