// Opening a file by its settings, and the members of PagedFile that call more than one operation.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <numeric>

#include "settings.h"

namespace qz {
namespace {

constexpr std::int64_t kDirectAlignment = 4096;  // fits every disk

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
using AlignedMemory = std::unique_ptr<char, Free>;

// Memory aligned for direct I/O, `bytes` rounded up to the alignment; null without memory.
AlignedMemory alignedMemory(std::int64_t bytes) {
  const std::int64_t whole = (bytes + kDirectAlignment - 1) / kDirectAlignment * kDirectAlignment;
  return AlignedMemory(static_cast<char*>(
      std::aligned_alloc(std::size_t{kDirectAlignment}, static_cast<std::size_t>(whole))));
}

// The size of an open regular file. Nothing for devices, whose size does not change, and on
// failure.
std::optional<std::int64_t> sizeOf(int fd) {
  struct stat about = {};
  if (fstat(fd, &about) != 0 || !S_ISREG(about.st_mode)) return std::nullopt;
  return about.st_size;
}

bool isEmptyFile(const std::string& path) {
  struct stat about = {};
  return stat(path.c_str(), &about) == 0 && S_ISREG(about.st_mode) && about.st_size == 0;
}

std::string textOf(Status status) { return statusText(static_cast<std::uint32_t>(status)); }

Status statusOfCreate(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
      return Status::fileNotFound;
    case EACCES:
    case EPERM:
      return Status::accessRefused;
    case EROFS:
      return Status::readOnlyFileSystem;
    case ENOSPC:
    case EDQUOT:
      return Status::noSpace;
    default:
      return Status::ioFailed;
  }
}

// Creates an empty file if there is none of that name. Returns 0 or an error number. Only the
// descriptor of a new file is closed here, so the process loses no lock on an existing one.
int createWhereNone(const std::string& path) {
  constexpr mode_t anyone = 0666;
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOCTTY, anyone);
  } while (fd == -1 && errno == EINTR);
  if (fd == -1) return errno == EEXIST ? 0 : errno;
  close(fd);
  return 0;
}

// The largest power of two, up to the alignment that fits every disk, of which pages and header are
// multiples.
std::int64_t granuleOf(const FileHandle& handle) {
  const std::int64_t both = std::gcd(std::int64_t{handle.pageSize}, handle.headerSize);
  return std::min(kDirectAlignment, std::int64_t{1} << std::countr_zero(static_cast<std::uint64_t>(
                                        std::max<std::int64_t>(both, 1))));
}

// Whether the file takes direct I/O in units of `granule` bytes, tested by a read. An empty file
// cannot show that; for an empty file only units that every disk refuses count as refused.
bool takesUnitsOf(int fd, std::int64_t granule) {
  constexpr std::int64_t smallest = 512;
  if (granule == kDirectAlignment) return true;
  if (granule < smallest) return false;
  const AlignedMemory memory = alignedMemory(granule);
  if (memory == nullptr) return true;
  const ssize_t got = pread(fd, memory.get(), static_cast<std::size_t>(granule), granule);
  return got != -1 || errno != EINVAL;
}

}  // namespace

std::int32_t PageHold::run() const noexcept {
  if (data_ == nullptr || block_ == nullptr) return data_ == nullptr ? 0 : bytes_;
  const std::int32_t pageSize = handle_->pageSize;
  const auto begin = static_cast<std::int32_t>(data_ - block_->data);
  const std::int64_t pagesBehind =
      std::min<std::int64_t>(block_->lastPage - page_, (block_->validBytes - begin) / pageSize - 1);
  std::int32_t run = bytes_;
  for (std::int64_t i = 1; i <= pagesBehind; ++i) {
    const std::int64_t slot = page_ + i - block_->firstPage;
    if ((block_->staleBits[slot / 8] >> (slot % 8) & 1) != 0) break;
    run += pageSize;
  }
  return run;
}

IoReport PagedFile::io() const {
  IoReport report{
      .asked = asked_.value_or(askedOf(*handle_)), .obtained = obtainedOf(*handle_), .reason = {}};
  if (report.asked == report.obtained) return report;
  report.reason = !refusal_.empty() ? refusal_ : whyBuffered(*handle_);
  return report;
}

Result<void> PagedFile::refused(Status status, std::string text) const {
  Error error;
  error.status = status;
  error.text = std::move(text);
  if (handle_->fileName != nullptr) error.fileName = toUtf8(handle_->fileName);
  return error;
}

// The header of an empty file is not written yet. The module would refuse such a file as shorter
// than its header, so it is opened with a header of 0 bytes. If the size found by the open shows
// that the file was not empty by then, it is closed and opened again.
Result<void> PagedFile::openExisting() {
  const std::int64_t headerSize = handle_->headerSize;
  const std::string path = toUtf8(handle_->fileName);
  for (;;) {
    const bool empty = headerSize > 0 && isEmptyFile(path);
    handle_->pageCount = 0;
    handle_->fileSize = 0;
    handle_->headerSize = empty ? 0 : headerSize;
    auto opened = open();
    const bool wasEmpty = handle_->fileSize == 0;
    handle_->headerSize = headerSize;
    if (!opened || !empty || wasEmpty) return opened;
    if (auto closed = close(); !closed) return closed;
  }
}

// The open truncated the file to 0 bytes. ext4 marks such a file as one whose contents are
// replaced, and writes all of it to disk when it is closed. A file that was empty before has no
// contents to replace: a reopen, which closes a descriptor of the file, removes the mark. If the
// reopen fails, the mark stays, which only costs time.
void PagedFile::unmarkNewFile() noexcept {
  if (handle_->hostFile->fileInfo->size != 0) return;
  const AccessHints hints = {handle_->readAccess, handle_->writeAccess, handle_->openOptions};
  table().qzpreopen(handle_, &hints, nullptr);
}

// If the pages do not fit the alignment of direct I/O, every read of a page would fail: the file is
// closed and opened again without direct I/O.
Result<void> PagedFile::openAsAsked() {
  const bool replaces = handle_->openMode == createOrReplace;
  const std::int64_t headerSize = handle_->headerSize;
  const auto openOnce = [&] {
    auto opened = replaces ? open() : openExisting();
    if (replaces && opened) {
      unmarkNewFile();
      handle_->headerSize = headerSize;
    }
    return opened;
  };
  refusal_.clear();
  auto opened = openOnce();
  if (!opened || !usesDirectIo()) return opened;
  const std::int64_t granule = granuleOf(*handle_);
  if (takesUnitsOf(handle_->fd, granule)) return opened;
  refusal_ = whyNotAligned(*handle_, granule);
  keepEmptyFile();
  if (auto closed = close(); !closed) return closed;
  handle_->openOptions &= ~static_cast<std::uint32_t>(optionDirectIo);
  return openOnce();
}

Result<void> PagedFile::open(std::string_view utf8Name, const Settings& settings) {
  if (handle_->hostFile != nullptr)
    return refused(Status::alreadyOpen, textOf(Status::alreadyOpen));
  if (std::string problem = settings.problem(); !problem.empty()) {
    return refused(Status::badArgument, std::move(problem));
  }
  apply(settings, handle_);
  asked_ = settings.io;
  if (auto named = setName(utf8Name); !named) return named;
  // The previous name may have been on another file system.
  if (auto looked = refreshInfo(); !looked) return looked;
  if (settings.opening == Opening::existingOrNew) {
    if (const int error = createWhereNone(std::string(utf8Name)); error != 0) {
      const Status status = statusOfCreate(error);
      auto failed = refused(status, textOf(status));
      Error reason = failed.error();
      reason.errorNumber = error;
      return reason;
    }
  }
  return openAsAsked();
}

Result<void> PagedFile::refresh() {
  if (!isOpen()) return outcome(Status::notOpen);
  if (handle_->heldCount != 0) return refused(Status::badArgument, "pages are still held");
  if (auto written = writeBack(); !written) return written;
  const std::uint32_t openMode = std::exchange(handle_->openMode, std::uint32_t{openOrKeep});
  keepEmptyFile();
  auto done = close();
  if (done) done = openAsAsked();
  handle_->openMode = openMode;
  return done;
}

Result<void> PagedFile::giveBack(std::span<PageHold> holds) {
  Result<void> first;
  for (PageHold& hold : holds) {
    const Status status = hold.giveBack(journal_);
    if (first && status != Status::ok) first = errorOf(handle_, status);
  }
  return first;
}

// Before a read into one area, the area's last byte gets a value that few pages end with. If the
// byte has another value afterwards, the read filled the whole area and the file's size need not be
// queried.
Result<void> PagedFile::readRun(std::int64_t firstPage, std::int32_t count,
                                PageRequest* const* requests, std::uint32_t options,
                                std::int32_t* pagesRead) {
  constexpr char unread = '\xA7';
  char* last = nullptr;
  if (pagesRead != nullptr && (options & kContiguous) != 0 && count > 0) {
    last = requests[0]->buffer + std::int64_t{count} * pageSize() - 1;
    *last = unread;
  }
  const Status status = table().qzpreadmany(handle_, requests, firstPage, count, options, journal_);
  if (pagesRead == nullptr) return outcome(status);
  *pagesRead = 0;
  if (status != Status::ok) return outcome(status);
  // The operation trusts the page count, but another program may have made the file shorter.
  std::int64_t pages = pageCount();
  if (last == nullptr || *last == unread) {
    if (const auto size = sizeOf(handle_->fd)) {
      pages = std::min(pages, (*size - headerSize()) / pageSize());
    }
  }
  *pagesRead = static_cast<std::int32_t>(std::clamp<std::int64_t>(pages - firstPage + 1, 0, count));
  return {};
}

Result<void> PagedFile::extendTo(std::int64_t pages) {
  if (!isOpen()) return outcome(Status::notOpen);
  if (pageCount() >= pages) return {};
  const AlignedMemory zeros = alignedMemory(pageSize());
  if (zeros == nullptr) return refused(Status::noMemory, textOf(Status::noMemory));
  std::fill_n(zeros.get(), pageSize(), '\0');
  while (pageCount() < pages) {
    if (auto written = write(zeros.get(), pageCount() + 1); !written) return written;
  }
  return {};
}

// A truncate to the current page count writes the collected pages and waits for nothing. It would
// also cut off what another program appended, so the file's size is compared first.
Result<void> PagedFile::writeBack() {
  if (!isOpen()) return outcome(Status::notOpen);
  if (!isCollecting()) return {};
  if (const auto size = sizeOf(handle_->fd); size && *size != handle_->fileSize) {
    return refused(Status::misfit, "another program changed the size of the file");
  }
  return truncate(pageCount());
}

// The module removes a file at close if the handle says that it is empty. Another program may have
// written to the file since, so the handle gets its real size.
void PagedFile::keepWhatOthersWrote() noexcept {
  if (handle_->hostFile == nullptr || handle_->pageCount != 0 || handle_->fileSize != 0) return;
  const auto size = sizeOf(handle_->fd);
  handle_->fileSize = size.value_or(0);
}

// A close that only prepares another open must not remove the file.
void PagedFile::keepEmptyFile() noexcept {
  if (handle_->fileSize == 0) handle_->fileSize = 1;
}

}  // namespace qz
