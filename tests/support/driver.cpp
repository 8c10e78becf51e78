#include "support/driver.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/names.h"

namespace qztest {

namespace {

bool isFull(std::uint32_t error) { return error == EFBIG || error == ENOSPC || error == EDQUOT; }

// The status of a write of `wanted` bytes.
Status judged(const CallOutcome& outcome, std::size_t wanted) {
  if (outcome.result < 0) return isFull(outcome.error) ? Status::noSpace : Status::ioFailed;
  if (outcome.result == 0) return Status::ioFailed;
  return static_cast<std::size_t>(outcome.result) < wanted ? Status::noSpace : Status::ok;
}

// The module's status for a host's refusal of an open; ioFailed for all that are not listed.
Status mapped(std::uint32_t hostStatus) {
  static const std::map<std::uint32_t, Status> codes = {
      {qz::hostNoMemory, Status::noMemory},
      {qz::hostFileNotFound, Status::fileNotFound},
      {qz::hostAccessRefused, Status::accessRefused},
      {qz::hostIsDirectory, Status::isDirectory},
      {qz::hostBadName, Status::noFileName},
      {qz::hostNoDescriptor, Status::noDescriptor},
      {qz::hostNotRemoved, Status::notRemoved},
      {qz::hostReadOnlyFileSystem, Status::readOnlyFileSystem},
      {qz::hostLocked, Status::busy},
      {qz::hostProgramRunning, Status::busy},
      {qz::hostDeviceBusy, Status::busy},
      {qz::hostNoLocks, Status::busy},
      {qz::hostTryAgain, Status::busy},
      {qz::hostUnsupportedFile, Status::unsupportedFile}};
  const auto found = codes.find(hostStatus);
  return found == codes.end() ? Status::ioFailed : found->second;
}

bool isWaitedFor(std::uint32_t hostStatus) {
  return hostStatus == qz::hostLocked || hostStatus == qz::hostDeviceBusy ||
         hostStatus == qz::hostTryAgain;
}

std::string_view view(const char* data, std::int64_t bytes) {
  return {data, static_cast<std::size_t>(bytes)};
}

std::string readWhole(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

bool isLargeModuleBlock(const CallRecord& record) {
  return record.call == Call::memAlloc && record.target == modulePool && record.length >= 4096;
}

bool lackedMemory() {
  return std::ranges::any_of(calls().trace(), [](const CallRecord& record) {
    return (record.call == Call::memAlloc || record.call == Call::treeCreate) &&
           record.result == 0 && !isLargeModuleBlock(record);
  });
}

// True if a memFree failed, other than of a report's text.
bool releaseFailed() {
  const CallRecord* before = nullptr;
  return std::ranges::any_of(calls().trace(), [&before](const CallRecord& record) {
    const bool ofText = before != nullptr && isLargeModuleBlock(*before);
    before = &record;
    return record.call == Call::memFree && record.result != 0 && !ofText;
  });
}

}  // namespace

Driver::Driver(World& world, const Geometry& geometry) : world_(world), file_(geometry) {
  world_.h->requestedBlockBytes = std::int64_t{geometry.pageSize} * geometry.pagesPerBlock;
  exists_ = world_.bytesOnDisk() >= 0;
  disk_ = readWhole(world_.path);
}

// --- Calls and faults

std::string_view Driver::bytesAt(std::int64_t offset, std::int64_t bytes) const {
  return std::string_view(disk_).substr(static_cast<std::size_t>(std::min(offset, size())),
                                        static_cast<std::size_t>(bytes));
}

bool Driver::isAdrift() const {
  const std::int64_t stored = pageCount_ - static_cast<std::int64_t>(collected_.size());
  return attached_ && open_ && size() < offsetOf(stored + 1);
}

void Driver::plan(const std::vector<Fault>& faults) {
  calls().plan(faults);
  expected_.plan(faults);
}

CallOutcome Driver::expect(Call call, std::int64_t length) {
  const Fault* fault = expected_.next(call);
  if (fault != nullptr && fault->result != kShort) return {fault->result, fault->error};
  const bool reads = call == Call::pread || call == Call::read || call == Call::readv;
  const bool writeOnly = writable_ && readAccess_ == 0;
  if (!attached_ || (reads && writeOnly) || (call == Call::pwrite && !writable_))
    return {-1, EBADF};
  if (call == Call::ftruncate && !writable_) return {-1, EINVAL};
  return {fault != nullptr ? (length + 1) / 2 : length, 0};
}

// The fault with which an open fails, or null: a refused O_DIRECT is followed by an open without
// it, a busy file is waited for and opened again.
const Fault* Driver::refusal(Call call) {
  const qz::FileHandle& h = *world_.h;
  const Fault* fault = expected_.next(call);
  const bool direct = (h.openOptions & qz::optionDirectIo) != 0;
  if (fault != nullptr && fault->result == EINVAL && direct) fault = expected_.next(call);
  int waits = 0;
  for (; fault != nullptr && isWaitedFor(fault->error) && waits < h.openRetryCount; ++waits)
    fault = expected_.next(call);
  EXPECT_EQ(calls().count(Call::taskWait), waits);
  EXPECT_TRUE(fault == nullptr ||
              (h.lastErrno == fault->result && h.hostErrorDetail1 == kRefusedDetail1 &&
               h.hostErrorDetail2 == kRefusedDetail2));
  return fault;
}

// --- The file

CallOutcome Driver::store(std::int64_t offset, const std::string& bytes) {
  const CallOutcome outcome = expect(Call::pwrite, static_cast<std::int64_t>(bytes.size()));
  if (outcome.result > 0) {
    const auto end = static_cast<std::size_t>(offset + outcome.result);
    disk_.resize(std::max(disk_.size(), end));
    bytes.copy(disk_.data() + offset, static_cast<std::size_t>(outcome.result));
  }
  return outcome;
}

Status Driver::writeBack() {
  if (collected_.empty()) return Status::ok;
  std::string bytes;
  for (const std::string& page : collected_) bytes += page;
  const Status status = judged(store(offsetOf(firstCollected_), bytes), bytes.size());
  if (status != Status::ok) {
    cut(firstCollected_ - 1);
    return status;
  }
  nextPage_ = collectedEnd();
  fileSize_ += static_cast<std::int64_t>(bytes.size());
  collected_.clear();
  return Status::ok;
}

Status Driver::cut(std::int64_t pages) {
  if (pages < 0 || pages > pageCount_) return Status::pageOutOfRange;
  if (pages < firstCollected_) collected_.clear();
  if (!collected_.empty()) collected_.resize(static_cast<std::size_t>(pages - firstCollected_ + 1));
  if (const Status status = writeBack(); status != Status::ok) return status;
  const std::int64_t bytes = offsetOf(pages + 1);
  if (expect(Call::lseek, 0).result < 0 || expect(Call::ftruncate, 0).result < 0)
    return Status::notTruncated;
  disk_.resize(static_cast<std::size_t>(bytes));
  fileSize_ = bytes;
  pageCount_ = pages;
  nextPage_ = pages + 1;
  torn_.erase(torn_.upper_bound(pages), torn_.end());
  return Status::ok;
}

Status Driver::sync() {
  for (int timeouts = 0;;) {
    const CallOutcome outcome = expect(Call::fsync, 0);
    if (outcome.result >= 0) return Status::ok;
    if (outcome.error == EINTR || (outcome.error == ETIMEDOUT && timeouts++ == 0)) continue;
    return isFull(outcome.error) ? Status::noSpace : Status::ioFailed;
  }
}

void Driver::compareFile() const {
  ASSERT_EQ(world_.bytesOnDisk(), exists_ ? size() : -1);
  EXPECT_TRUE(readWhole(world_.path) == disk_) << "other bytes in the file";
}

void Driver::repair() {
  if (!exists_) return;
  const std::int64_t part = std::max<std::int64_t>(size() - file_.headerBytes, 0) % file_.pageSize;
  disk_.resize(static_cast<std::size_t>(std::max(file_.headerBytes, size() - part)));
  std::filesystem::resize_file(world_.path, disk_.size());
}

// --- Comparison

void Driver::expectWritesInPlace() const {
  for (const CallRecord& record : calls().trace()) {
    const bool header = record.offset == 0 && record.length == world_.length;
    const bool pages = record.offset >= header_ &&
                       (record.offset - header_) % file_.pageSize == 0 &&
                       record.length % file_.pageSize == 0;
    EXPECT_TRUE(record.call != Call::pwrite || record.length == 0 || header || pages)
        << record.length << " bytes at " << record.offset;
  }
}

// A failure stores the error number of the last call that failed; a short transfer has none. A page
// that came short keeps the number of its read through the close that follows.
void Driver::expectErrorNumber(Status status) const {
  static const std::set<Status> failures = {Status::ioFailed, Status::noSpace, Status::notTruncated,
                                            Status::misfit};
  if (!failures.contains(status)) return;
  int failed = 0;
  for (const CallRecord& record : calls().trace()) {
    const bool reads = record.call == Call::pread;
    if (reads || (record.error != 0 && status != Status::misfit)) failed = record.error;
  }
  const int kept = world_.h->lastErrno;
  EXPECT_TRUE(kept == failed || (failed == 0 && kept == lastErrno_)) << kept;
}

Status Driver::check(const std::string& what, Status actual, Status wanted, Reports reports) {
  const qz::FileHandle& h = *world_.h;
  const std::string did = world_.did(actual);
  const std::string name = nameOfStatus(static_cast<std::uint32_t>(actual));
  SCOPED_TRACE(fmt::format("{}: {} [{}]", what, did, calls().hostCalls()));
  EXPECT_EQ(name, nameOfStatus(static_cast<std::uint32_t>(wanted)));
  EXPECT_TRUE(reports == Reports::notEvenKept || h.status == actual);
  const bool reported = world_.recorder.entries.find("report " + name) != std::string::npos;
  if (actual == Status::ok || actual == Status::endOfFile) {
    EXPECT_FALSE(reported);
  } else if (reports <= Reports::numberless && !releaseFailed()) {
    EXPECT_TRUE(reported || std::ranges::any_of(calls().trace(), [](const CallRecord& record) {
                  return isLargeModuleBlock(record) && record.result == 0;
                }));
  }
  if (reports == Reports::all) expectErrorNumber(actual);
  const std::uint32_t state = (open_ ? qz::stateOpen : 0U) | (preopened_ ? qz::statePreopened : 0U);
  EXPECT_EQ(std::tuple(h.pageCount, h.fileSize, h.nextPage, h.lastPageRead, h.stateFlags),
            std::tuple(pageCount_, fileSize_, nextPage_, lastPageRead_, state));
  EXPECT_EQ(h.heldCount, holds());
  EXPECT_EQ(h.hostFile != nullptr, attached_);
  expectWritesInPlace();
  for (const char byte : what + did + calls().hostCalls())
    digest_ = (digest_ ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
  lastErrno_ = h.lastErrno;
  plan({});
  return actual;
}

// --- Opening and closing

Status Driver::physicalOpen(std::uint32_t mode) {
  if (mode == qz::createOrReplace) pageCount_ = fileSize_ = 0;
  if (const Fault* fault = refusal(Call::fileOpen); fault != nullptr) return mapped(fault->error);
  if (!exists_ && mode != qz::createOrReplace) return Status::fileNotFound;
  exists_ = attached_ = true;
  writable_ = writeAccess_ != 0;
  return Status::ok;
}

// The part of an open after the physical open; a failure closes again.
Status Driver::settling(std::uint32_t mode) {
  if (mode == qz::createOrReplace) {
    if (expect(Call::ftruncate, 0).result < 0) {
      sizeUnknown_ = true;
      closing(qz::kRemoveFile);
      return Status::notTruncated;
    }
    disk_.clear();
    header_ = fileSize_ = 0;
  } else {
    fileSize_ = size();
    pageCount_ = (fileSize_ - header_) / file_.pageSize;
    if (pageCount_ < 0 || pageCount_ * file_.pageSize + header_ != fileSize_) {
      pageCount_ = std::max<std::int64_t>(pageCount_ + 1, 1);
      closing(0);
      return Status::misfit;
    }
  }
  nextPage_ = 1;
  lastPageRead_ = 0;
  if (lackedMemory()) {
    closing(mode == qz::openOrKeep ? 0 : qz::kRemoveFile);
    return Status::noMemory;
  }
  open_ = true;
  sizeUnknown_ = false;
  return Status::ok;
}

Status Driver::opening(std::uint32_t mode) {
  if (open_ || (attached_ && !preopened_)) return Status::alreadyOpen;
  const Status status = preopened_ ? Status::ok : physicalOpen(mode);
  return status == Status::ok ? settling(mode) : status;
}

Status Driver::open(std::uint32_t mode, std::uint32_t options, std::uint32_t read,
                    std::uint32_t write) {
  qz::FileHandle& h = *world_.h;
  if (!attached_) {  // hosts do not change these fields of an attached file
    h.openMode = mode;
    h.openOptions = options;
    readAccess_ = h.readAccess = read;
    writeAccess_ = h.writeAccess = write;
  }
  if (!attached_ || preopened_) {
    h.pageSize = file_.pageSize;
    h.bufferCount = file_.buffers;
    h.pageCount = h.fileSize = pageCount_ = fileSize_ = 0;
    header_ = h.headerSize = file_.headerBytes;
  }
  const Status actual = world_.open();
  const Status wanted = opening(h.openMode);
  check(fmt::format("open {} {:x} {} {}", mode, options, read, write), actual, wanted,
        Reports::some);
  if (actual == Status::ok && h.openMode == qz::createOrReplace)
    header_ = h.headerSize = file_.headerBytes;
  return actual;
}

Status Driver::preopen(std::int32_t bytes) {
  qz::FileHandle& h = *world_.h;
  const CallerMemory memory = callerMemory(bytes + 1);
  // No close of a pre-open fails here: its file would stay open and locked, and every later open be
  // refused.
  std::vector<Fault> faults = calls().planned();
  std::erase_if(faults, [](const Fault& fault) { return fault.call == Call::fileClose; });
  plan(faults);
  const Status actual = world_.preopen(memory.get() + 1, bytes);
  Status wanted = attached_                           ? Status::alreadyOpen
                  : h.openMode == qz::createOrReplace ? Status::noHeaderYet
                                                      : physicalOpen(h.openMode);
  if (wanted == Status::ok) {
    const bool bounced = (h.directIoMode & qz::directIo) != 0;
    preopened_ = !(bounced && lackedMemory()) && expect(Call::read, bytes).result >= bytes &&
                 size() >= bytes;
    attached_ = sizeUnknown_ = preopened_;
    wanted = preopened_ ? Status::ok : Status::shorterThanHeader;
    EXPECT_TRUE(!preopened_ || bytesAt(0, bytes) == view(memory.get() + 1, bytes));
  }
  return check(fmt::format("preopen {}", bytes), actual, wanted, Reports::some);
}

Status Driver::closing(std::uint32_t flags) {
  const bool wasOpen = open_;
  open_ = preopened_ = false;
  if (!attached_) return Status::notOpen;
  const bool empty = pageCount_ == 0 && fileSize_ == 0 && !sizeUnknown_;
  const bool removed = (flags & qz::kRemoveFile) != 0 || (empty && writeAccess_ != 0);
  Status result = writeBack();
  if ((world_.h->openOptions & qz::optionFlushAtClose) != 0) {
    const Status flushed = !wasOpen            ? Status::notOpen
                           : writeAccess_ == 0 ? Status::notWritable
                                               : sync();
    if (flushed != Status::ok) {
      result = result == Status::ok && releaseFailed() ? Status::ioFailed : result;
      return result != Status::ok ? result : flushed;
    }
  }
  if (const Fault* fault = expected_.next(Call::fileClose); fault != nullptr)
    return fault->error == qz::hostNotRemoved ? Status::notRemoved : Status::ioFailed;
  attached_ = sizeUnknown_ = false;
  if (removed) {
    exists_ = false;
    disk_.clear();
  }
  pageCount_ = (flags & qz::kRemoveFile) != 0 ? 0 : pageCount_;
  nextPage_ = 0;
  shortOfBuffers_ = false;
  holds_.clear();
  torn_.clear();
  failedReads_.clear();
  shortBlocks_.clear();
  return result == Status::ok && releaseFailed() ? Status::ioFailed : result;
}

Status Driver::close(std::uint32_t flags) {
  const Status actual = world_.close(flags);
  return check(fmt::format("close {}", flags), actual, closing(flags), Reports::some);
}

Status Driver::erase() {
  const Status actual = world_.call(&Table::qzpdelete);
  Status wanted = Status::deleteWhileOpen;
  if (!attached_ && (expected_.next(Call::fileOpen) != nullptr || !exists_)) {
    wanted = Status::notRemoved;
  } else if (!attached_ && expected_.next(Call::fileClose) != nullptr) {
    wanted = Status::notRemoved;
    attached_ = sizeUnknown_ = true;
  } else if (!attached_) {
    wanted = Status::ok;
    exists_ = false;
    disk_.clear();
    pageCount_ = fileSize_ = 0;
  }
  return check("delete", actual, wanted, Reports::notEvenKept);
}

Status Driver::reopen(bool direct, std::uint32_t read, std::uint32_t write) {
  qz::FileHandle& h = *world_.h;
  const bool wasInBlocks = inBlocks();
  const std::uint32_t oldMode = h.directIoMode;
  const Status actual = world_.reopen(direct, read, write);
  Status wanted = open_ ? writeBack() : Status::notOpen;
  if (wanted == Status::ok) {
    wanted = refusal(Call::fileReopen) != nullptr ? Status::reopenFailed : Status::ok;
    EXPECT_TRUE(wanted == Status::ok || h.directIoMode == oldMode);
  }
  if (open_ && wanted == Status::ok) {
    readAccess_ = read;
    writeAccess_ = write;
    writable_ = write != 0;
    // A memFree that fails ends the change before new buffers are made.
    if (wasInBlocks != inBlocks() && releaseFailed() && !lackedMemory()) {
      wanted = Status::ioFailed;
    } else {
      nextPage_ = 1;
      lastPageRead_ = 0;
      wanted = lackedMemory() ? Status::noMemory : Status::ok;
    }
    shortOfBuffers_ = wanted != Status::ok;
    // Held blocks stay through a change of shape, other buffers do not.
    if (wasInBlocks != inBlocks()) failedReads_.clear();
  }
  return check(fmt::format("reopen {} {} {}", direct, read, write), actual, wanted, Reports::some);
}

// --- Reading

Status Driver::readChecks(std::int64_t page) const {
  if (!open_) return Status::notOpen;
  if (readAccess_ == qz::readSequential && page != lastPageRead_ + 1 &&
      page != world_.h->sequentialStartPage)
    return Status::readOutOfSequence;
  if (page <= 0 || page > pageCount_ + 1) return Status::pageOutOfRange;
  if (page == pageCount_ + 1) return Status::endOfFile;
  return holds() >= world_.h->bufferCount ? Status::noBuffer : Status::ok;
}

// The status of a read whose last transfer was `call`.
Status Driver::transferred(const CallRecord& call, std::int64_t page) {
  const std::int64_t left = size() - call.offset;
  EXPECT_TRUE(call.result < 0 || call.result <= std::max<std::int64_t>(left, 0));
  if (!inBlocks()) {
    failedReads_.erase(page);
    if (call.result == file_.pageSize) return Status::ok;
    if (call.result > 0) return Status::misfit;
    return failedReads_[page] = call.result == 0 ? Status::endOfFile : Status::ioFailed;
  }
  const std::int64_t first = (call.offset - header_) / file_.pageSize + 1;
  nextPage_ = page + 1;
  if (call.length > file_.pageSize || file_.pagesPerBlock == 1) {
    nextPage_ = std::min(first + file_.pagesPerBlock - 1, pageCount_) + 1;
    const std::int64_t whole = std::min(call.length, left);
    // An older copy of the block, from before a truncate below it, may be held and stays short.
    const bool twice = std::ranges::any_of(holds_, [&](const Hold& hold) {
      return hold.ofBlock && hold.page >= first && hold.page < first + file_.pagesPerBlock;
    });
    if (!twice) shortBlocks_.erase(first);
    if (call.result < whole) shortBlocks_.insert(first);
  }
  return call.result < (page - first + 1) * file_.pageSize ? Status::misfit : Status::ok;
}

// Records the hold of the page that was read. Its bytes must be the file's, unless another hold has
// changed them.
void Driver::hold(std::int64_t page) {
  const bool modified = std::ranges::any_of(
      holds_, [this](const Hold& other) { return other.at == world_.at && other.modified; });
  holds_.push_back({world_.at, page, inBlocks(), modified});
  const std::string_view bytes = view(world_.at, file_.pageSize);
  const auto [first, last] = torn_.equal_range(page);
  EXPECT_TRUE(modified || bytes == onDisk(page) ||
              std::any_of(first, last, [bytes](const auto& torn) { return torn.second == bytes; }))
      << "other bytes than page " << page << " has";
}

Status Driver::read(std::int64_t page) {
  const Status actual = world_.read(page);
  Status wanted = readChecks(page);
  const int transfers = calls().count(Call::pread);
  if (wanted != Status::ok) {
    EXPECT_EQ(calls().io(), "");
  } else if (isCollected(page)) {
    wanted = writeBack();
  }
  if (wanted == Status::ok && actual == Status::noBuffer && shortOfBuffers_) {
    wanted = actual;
  } else if (wanted == Status::ok && transfers > 0) {
    wanted = transferred(calls().at(Call::pread, transfers - 1), page);
  } else if (wanted == Status::ok && !inBlocks() && failedReads_.contains(page)) {
    wanted = failedReads_[page];
  } else if (wanted == Status::ok && inBlocks() && actual == Status::misfit) {
    const std::int64_t first = (page - 1) / file_.pagesPerBlock * file_.pagesPerBlock + 1;
    wanted = shortBlocks_.contains(first) ? actual : wanted;
  }
  if (wanted == Status::misfit) {
    closing(0);
  } else if (wanted == Status::ok && actual == Status::ok) {
    lastPageRead_ = page;
    hold(page);
  }
  return check(fmt::format("read {}", page), actual, wanted);
}

Status Driver::readMany(std::int64_t page, std::int32_t count, std::uint32_t options) {
  const std::int64_t bytes = std::int64_t{file_.pageSize} * std::max(count, 1);
  const CallerMemory memory = callerMemory(bytes);
  const bool whole = (options & qz::kContiguous) != 0;
  const Status actual = world_.readMany(page, count, options, memory.get());
  Status wanted = Status::ok;
  if (!open_) {
    wanted = Status::notOpen;
  } else if (page == pageCount_ + 1) {
    wanted = Status::endOfFile;
  } else if (page <= 0 || page > pageCount_ || count <= 0) {
    wanted = Status::pageOutOfRange;
  } else {
    std::int64_t moved = -1;
    if (whole) {
      moved = expect(Call::pread, bytes).result;
    } else if (expect(Call::lseek, 0).result >= 0) {
      nextPage_ = page;
      moved = expect(Call::readv, count).result;
      moved *= moved < 0 ? 1 : file_.pageSize;
    }
    moved = std::min(moved, std::max<std::int64_t>(size() - offsetOf(page), 0));
    wanted = moved < 0 ? Status::ioFailed : moved == 0 ? Status::endOfFile : Status::ok;
    nextPage_ = moved > 0 ? page + count : nextPage_;
    EXPECT_TRUE(moved <= 0 || bytesAt(offsetOf(page), moved) == view(memory.get(), moved));
  }
  return check(fmt::format("readmany {} {} {}", page, count, options), actual, wanted,
               whole ? Reports::all : Reports::numberless);
}

// --- Writing

Status Driver::writeChecks(std::int64_t page) const {
  if (!open_) return Status::notOpen;
  if (page <= 0) return Status::pageOutOfRange;
  if (page > pageCount_ + 1) return Status::writeOutOfSequence;
  if (fileSize_ < header_) return Status::shorterThanHeader;
  return writeAccess_ != qz::rewritePages && page != pageCount_ + 1 ? Status::writeOutOfSequence
                                                                    : Status::ok;
}

Status Driver::writing(std::int64_t page, const std::string& data, bool* holdEnds) {
  const bool appends = page > pageCount_;
  if (isCollected(page)) {
    collected_[static_cast<std::size_t>(page - firstCollected_)] = data;
    return Status::ok;
  }
  if (appends && inBlocks() && world_.h->writeBlock != nullptr &&
      (!collected_.empty() || (page - 1) % file_.pagesPerBlock == 0)) {
    firstCollected_ = collected_.empty() ? page : firstCollected_;
    collected_.push_back(data);
    pageCount_ = page;
    return static_cast<std::int64_t>(collected_.size()) == file_.pagesPerBlock ? writeBack()
                                                                               : Status::ok;
  }
  *holdEnds = false;
  if (lackedMemory()) return Status::noMemory;
  const std::string before(appends ? std::string_view() : onDisk(page));
  const Status status = judged(store(offsetOf(page), data), data.size());
  if (status != Status::ok) {
    if (!appends && onDisk(page) != before) torn_.emplace(page, before);
    cut(pageCount_);
    return status;
  }
  *holdEnds = true;
  nextPage_ = page + 1;
  if (appends) {
    pageCount_ = page;
    fileSize_ += file_.pageSize;
  }
  torn_.erase(page);
  failedReads_.erase(page);
  return Status::ok;
}

Status Driver::write(std::int64_t page, int hold, int shift, bool asItIs) {
  const CallerMemory own = callerMemory(file_.pageSize + shift);
  char* const from = hold < 0 ? own.get() + shift : holds_[static_cast<std::size_t>(hold)].at;
  if (!asItIs || hold < 0) {
    stamp(from, file_.pageSize, page, ++version_);
    for (Hold& other : holds_) other.modified = other.modified || other.at == from;
  }
  const std::string data(view(from, file_.pageSize));
  const Status actual = world_.write(page, from, hold < 0 ? kOwn : 0);
  Status wanted = writeChecks(page);
  if (wanted == Status::ok) {
    bool holdEnds = true;
    wanted = writing(page, data, &holdEnds);
    for (Hold& other : holds_) {  // other held copies of the page may stay as they were
      if (wanted == Status::ok && (other.at == from || other.page == page))
        other.modified = other.page != page || other.at != from;
    }
    if (hold >= 0 && holdEnds) holds_.erase(holds_.begin() + hold);
  }
  return check(fmt::format("write {} {} {}", page, hold, shift), actual, wanted);
}

Status Driver::writeSized(std::int64_t page, std::int32_t bytes) {
  world_.request = {page, reinterpret_cast<char*>(&world_), kOwn, 0, bytes};
  const Status actual = world_.call(&Table::qzpwrite, &world_.request);
  return check("write sized", actual, open_ ? Status::wrongLength : Status::notOpen);
}

Status Driver::truncate(std::int64_t pages) {
  const Status actual = world_.truncate(pages);
  return check(fmt::format("truncate {}", pages), actual, cut(pages));
}

Status Driver::flush() {
  const Status actual = world_.flush();
  if (!open_ || writeAccess_ == 0)
    return check("flush", actual, open_ ? Status::notWritable : Status::notOpen);
  const Status written = writeBack();
  const Status synced = sync();
  // After a flush that was repeated the error number may still be that of the write before it.
  return check("flush", actual, synced != Status::ok ? synced : written,
               synced != Status::ok ? Reports::all : Reports::numberless);
}

Status Driver::writeHeader(std::int32_t bytes) {
  const std::int64_t whole = std::max<std::int64_t>(bytes, header_);
  const CallerMemory memory = callerMemory(whole + 1);
  std::string header(static_cast<std::size_t>(whole), '\0');
  std::fill_n(header.begin(), std::max(bytes, 0), static_cast<char>('a' + ++version_ % 26));
  header.copy(memory.get(), header.size());
  const Status actual = world_.writeHeader(memory.get(), bytes);
  Status wanted = Status::ok;
  if (!open_) {
    wanted = Status::notOpen;
  } else if (writeAccess_ == 0) {
    wanted = Status::notWritable;
  } else if (bytes < 0) {
    wanted = Status::badArgument;
  } else if (bytes < header_ && lackedMemory()) {
    wanted = Status::noMemory;
  } else {
    const CallOutcome outcome = store(0, header);
    wanted = judged(outcome, header.size());
    EXPECT_EQ(world_.length, outcome.result);
    if (wanted == Status::noSpace && outcome.result < 0) {
      cut(0);
    } else if (wanted == Status::ok) {
      fileSize_ = std::max(fileSize_, whole);
      nextPage_ = 1;
    }
  }
  world_.length = static_cast<std::int32_t>(whole);
  return check(fmt::format("header {}", bytes), actual, wanted);
}

// --- Buffers

Status Driver::acquire() {
  const Status actual = world_.acquire();
  Status wanted = !open_                             ? Status::notOpen
                  : holds() >= world_.h->bufferCount ? Status::noBuffer
                                                     : Status::ok;
  if (wanted == Status::ok && actual == Status::noBuffer && (shortOfBuffers_ || lackedMemory()))
    wanted = actual;
  if (actual == Status::ok) holds_.push_back({world_.at, 0, inBlocks(), true});
  return check("acquire", actual, wanted);
}

Status Driver::returnHold(int hold) {
  const Hold given = holds_[static_cast<std::size_t>(hold)];
  const Status actual = world_.returnBuffer(given.at);
  const bool leftOver = given.ofBlock != inBlocks();
  const Status wanted = !open_                        ? Status::notOpen
                        : leftOver && releaseFailed() ? Status::ioFailed
                                                      : Status::ok;
  if (open_) holds_.erase(holds_.begin() + hold);
  return check(fmt::format("return {}", hold), actual, wanted,
               leftOver ? Reports::notEvenKept : Reports::all);
}

Status Driver::returnForeign(void* address) {
  const Status actual = world_.returnBuffer(address);
  return check("return foreign", actual, open_ ? Status::notHeld : Status::notOpen);
}

Status Driver::add(std::int32_t count) {
  const std::int32_t before = world_.h->bufferCount;
  const Status actual = world_.add(count);
  const bool lacked = lackedMemory() || shortOfBuffers_;
  Status wanted = open_ ? Status::ok : Status::notOpen;
  if (wanted == Status::ok && lacked && actual == Status::buffersMissing) wanted = actual;
  shortOfBuffers_ = shortOfBuffers_ || (open_ && lacked);
  const std::int32_t grown = actual == Status::ok && (count > 0 || inBlocks()) ? count : 0;
  EXPECT_TRUE(actual == Status::buffersMissing || world_.h->bufferCount == before + grown);
  return check(fmt::format("add {}", count), actual, wanted);
}

Status Driver::remove(std::int32_t count) {
  const std::int32_t before = world_.h->bufferCount;
  const Status actual = world_.remove(count);
  const std::int32_t removed = before - world_.h->bufferCount;
  const bool noneFree =
      inBlocks() ? world_.h->blockFreeList.head == nullptr : world_.h->pageFreeList.head == nullptr;
  Status wanted = open_ ? Status::ok : Status::notOpen;
  if (open_ && removed < count) {
    wanted = releaseFailed() && !inBlocks() ? Status::ioFailed : Status::noBuffer;
    EXPECT_TRUE(noneFree || wanted == Status::ioFailed);
  } else if (open_ && count > 0 && releaseFailed()) {
    wanted = Status::ioFailed;
  }
  return check(fmt::format("remove {}", count), actual, wanted);
}

}  // namespace qztest
