// The module for C++ callers: classes over its operation table.
//
//   qz::StandInHost host;
//   auto module = qz::Module::load(host.handle());
//   auto file = module->newFile();
//   auto opened = file->open("data.qzp", {.pageSize = 4096, .writing = qz::Writing::anyPage});
//   if (!opened) return fail(opened.error());
//
// Nothing is hidden: programs can reach the extension object, the operation table and the file
// handle. Every member calls the table's entry of its name, even if the entry was replaced. Nothing
// is copied: a page that was read is used in the module's memory.
//
// Failures are returned as values. Nothing here throws, except std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "qzpos.h"
#include "qzsettings.hpp"
#include "qzstandin.h"

namespace qz {

// Why a call failed.
struct Error {
  Status status = Status::ok;     // the module's code, never one of the host's own statuses
  std::string text;               // from the message catalogue, or from the loader
  std::int32_t errorNumber = 0;   // errno behind the failure; 0 if no system call failed
  std::uint32_t hostDetail1 = 0;  // the host's two detail words for a failed open
  std::uint32_t hostDetail2 = 0;
  std::string fileName;     // UTF-8; empty: the handle has no name, or there is no handle
  bool closedFile = false;  // the operation closed the file, as a short read does

  // One line: the text, the file, the system's reason, the code, and whether the file was closed.
  std::string message() const;
};

// A value, or the error that took its place. Use it like a pointer: test it, then use * or ->.
template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : content_(std::in_place_index<0>, std::move(value)) {}
  Result(Error error) : content_(std::in_place_index<1>, std::move(error)) {}

  explicit operator bool() const noexcept { return content_.index() == 0; }
  T& operator*() & noexcept { return *std::get_if<0>(&content_); }
  const T& operator*() const& noexcept { return *std::get_if<0>(&content_); }
  T&& operator*() && noexcept { return std::move(*std::get_if<0>(&content_)); }
  T* operator->() noexcept { return std::get_if<0>(&content_); }
  const T* operator->() const noexcept { return std::get_if<0>(&content_); }
  const Error& error() const noexcept { return *std::get_if<1>(&content_); }
  Status status() const noexcept { return *this ? Status::ok : error().status; }

 private:
  std::variant<T, Error> content_;
};

template <>
class [[nodiscard]] Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const noexcept { return !error_; }
  const Error& error() const noexcept { return *error_; }
  Status status() const noexcept { return error_ ? error_->status : Status::ok; }

 private:
  std::optional<Error> error_;
};

// The error of a handle's last operation, for the status that it returned.
Error errorOf(FileHandle* handle, Status status);

// A page or an empty buffer that the caller holds. At the end of its scope it is returned
// unwritten, unless PagedFile::write ended the hold. It must not outlive the close of its file.
class PageHold {
 public:
  // block: the block that contains a page that was read; null in page mode.
  PageHold(FileHandle* handle, char* data, std::int64_t page, std::int32_t bytes,
           const BlockRecord* block = nullptr) noexcept
      : handle_(handle), data_(data), page_(page), bytes_(bytes), block_(block) {}
  PageHold(PageHold&& other) noexcept
      : handle_(other.handle_),
        data_(std::exchange(other.data_, nullptr)),
        page_(other.page_),
        bytes_(other.bytes_),
        block_(other.block_) {}
  PageHold& operator=(PageHold&& other) noexcept {
    if (this != &other) {
      giveBack();
      handle_ = other.handle_;
      data_ = std::exchange(other.data_, nullptr);
      page_ = other.page_;
      bytes_ = other.bytes_;
      block_ = other.block_;
    }
    return *this;
  }
  ~PageHold() { giveBack(); }

  char* data() const noexcept { return data_; }           // null after the hold has ended
  std::int64_t page() const noexcept { return page_; }    // 0: an acquired, empty buffer
  std::int32_t bytes() const noexcept { return bytes_; }  // usable at data()
  // Bytes that can be read from data() on: the page and, in block mode, the pages after it that its
  // block has in memory. They are valid as long as this hold.
  std::int32_t run() const noexcept;
  explicit operator bool() const noexcept { return data_ != nullptr; }

  // Returns the page or buffer now, unwritten. The outcome, or ok if the hold had already ended.
  Status giveBack(Journal* journal = nullptr) noexcept {
    if (data_ == nullptr) {
      return Status::ok;
    }
    char* const address = std::exchange(data_, nullptr);
    return handle_->ops->operations.qzpbufreturn(handle_, address, journal);
  }

  // Passes the hold to the caller, who must end it with one write or return of the address.
  char* release() noexcept { return std::exchange(data_, nullptr); }

 private:
  FileHandle* handle_;
  char* data_;
  std::int64_t page_;
  std::int32_t bytes_;
  const BlockRecord* block_;
};

// A file handle of the module, closed and freed at the end of its scope. Each operation calls the
// table's entry of that name with the journal given at creation, unless its comment says otherwise.
// A handle may be used by one thread at a time; different threads may use different handles.
class PagedFile {
 public:
  // Takes over a handle that qzpgetmemhandle returned.
  PagedFile(FileHandle* handle, Journal* journal) noexcept : handle_(handle), journal_(journal) {}
  PagedFile(PagedFile&& other) noexcept
      : handle_(std::exchange(other.handle_, nullptr)),
        journal_(other.journal_),
        asked_(other.asked_),
        refusal_(std::move(other.refusal_)) {}
  PagedFile& operator=(PagedFile&& other) noexcept;
  ~PagedFile() { dispose(); }

  FileHandle* handle() const noexcept { return handle_; }
  // The whole handle: the caller's fields and the module's. open(name, settings) sets the caller's
  // fields; before preopen or open without settings, set them here.
  FileHandle& settings() const noexcept { return *handle_; }
  const OperationTable& table() const noexcept { return handle_->ops->operations; }
  Journal* journal() const noexcept { return journal_; }
  bool isOpen() const noexcept { return (handle_->stateFlags & stateOpen) != 0; }
  // Pages that can be read, including pages that are still collected.
  std::int64_t pageCount() const noexcept { return handle_->pageCount; }
  std::int32_t pageSize() const noexcept { return handle_->pageSize; }      // bytes
  std::int64_t headerSize() const noexcept { return handle_->headerSize; }  // bytes before page 1
  // Whether appended pages wait in memory to be written as a block.
  bool isCollecting() const noexcept {
    return handle_->writeBlock != nullptr && handle_->writeBlock->dirtyPages > 0;
  }
  // How the open file is accessed, and why not as requested.
  IoReport io() const;

  // Names the file and opens it with these settings, which replace all settings of the handle. A
  // file that is empty after Opening::existingOrNew has no header yet: write it before the first
  // page. If direct I/O is not possible, the file is opened buffered, and io() says why. Returns
  // badArgument with a sentence for settings out of range, else what setName and open return.
  Result<void> open(std::string_view utf8Name, const Settings& settings);

  Result<void> setName(std::string_view utf8Name);

  // *length: header bytes wanted; after shorterThanHeader, the bytes that the file has.
  Result<void> preopen(void* header, std::int32_t* length);
  // createOrReplace sets headerSize to 0: set it again after the open, and write the header before
  // the first page.
  Result<void> open() { return outcome(table().qzpopen(handle_, journal_)); }
  // Removes a file that was written to and is empty, unless others have written to it.
  Result<void> close(std::uint32_t flags = 0) {
    if ((flags & kRemoveFile) == 0) keepWhatOthersWrote();
    return outcome(table().qzpclose(handle_, flags, journal_));
  }
  // For a file that others changed: writes collected pages back, closes the file and reopens its
  // name, so that page count and pages are current. Pages must not be held (badArgument). After any
  // other failure the file is closed. The host's lock is released and taken again.
  Result<void> refresh();
  Result<void> reopen(const AccessHints& hints) {
    return outcome(table().qzpreopen(handle_, &hints, journal_));
  }
  // Removes the named file; the handle must be closed.
  Result<void> remove() { return outcome(table().qzpdelete(handle_, journal_)); }

  Result<void> choosePageSize(const PageSizeRequest& request) {
    return outcome(table().qzppsize(handle_, &request, journal_));
  }
  Result<void> refreshInfo() { return outcome(table().qzpinfo(handle_, journal_)); }
  StatusReport status() const {
    StatusReport report{};
    table().qzpgetstatus(handle_, &report);
    return report;
  }

  // Reads a page in place, in the module's memory.
  Result<PageHold> read(std::int64_t page) {
    PageRequest request{};
    request.pageNumber = page;
    const Status status = table().qzpread(handle_, &request, journal_);
    if (status != Status::ok) {
      Error error = errorOf(handle_, status);
      error.closedFile = status == Status::misfit && !isOpen();
      return error;
    }
    const bool block = (handle_->directIoMode & blockMode) != 0;
    return PageHold(handle_, request.buffer, page, handle_->pageSize,
                    block ? handle_->lastBlock : nullptr);
  }
  // An empty buffer to fill and write: a page, or in block mode a whole block.
  Result<PageHold> acquire() {
    void* address = nullptr;
    const Status status = table().qzpbufacquire(handle_, &address, journal_);
    if (status != Status::ok) {
      return errorOf(handle_, status);
    }
    const bool block = (handle_->directIoMode & blockMode) != 0;
    return PageHold(handle_, static_cast<char*>(address), 0,
                    block ? handle_->blockBytes : handle_->pageSize);
  }
  // Returns several pages or buffers, unwritten. Tries all of them and reports the first failure.
  Result<void> giveBack(std::span<PageHold> holds);
  // Writes a held buffer as page `page` and ends the hold. After a failure that kept the hold,
  // `hold` still has it: write again or return it.
  Result<void> write(PageHold& hold, std::int64_t page) {
    PageRequest request{};
    request.pageNumber = page;
    request.buffer = hold.data();
    request.length = handle_->pageSize;
    const std::int32_t heldBefore = handle_->heldCount;
    const Status status = table().qzpwrite(handle_, &request, journal_);
    if (status == Status::ok || handle_->heldCount < heldBefore) {
      hold.release();
    }
    return outcome(status);
  }
  // Writes a page of `pageSize` bytes from the caller's own memory.
  Result<void> write(const void* data, std::int64_t page) {
    PageRequest request{};
    request.pageNumber = page;
    request.buffer = static_cast<char*>(const_cast<void*>(data));
    request.flags = kCallersMemory;
    request.length = handle_->pageSize;
    return outcome(table().qzpwrite(handle_, &request, journal_));
  }
  // Reads `count` pages from `firstPage` on into one area of count * pageSize bytes, aligned to
  // 4096 bytes for direct I/O. *pagesRead: how many of them the file had; 0 after a failure, which
  // may leave anything in the area. Pages that are still collected are not in the file: write them
  // back first.
  Result<void> readMany(std::int64_t firstPage, std::int32_t count, void* area,
                        std::int32_t* pagesRead = nullptr) {
    PageRequest first{};
    first.buffer = static_cast<char*>(area);
    PageRequest* const requests[] = {&first};
    return readRun(firstPage, count, requests, kContiguous, pagesRead);
  }
  // Reads page firstPage + i into requests[i]->buffer; memory and *pagesRead are as above.
  Result<void> readMany(std::int64_t firstPage, std::int32_t count, PageRequest* const* requests,
                        std::int32_t* pagesRead = nullptr) {
    return readRun(firstPage, count, requests, 0, pagesRead);
  }
  Result<void> truncate(std::int64_t pages) {
    return outcome(table().qzptruncate(handle_, pages, journal_));
  }
  // Appends zero pages, in block mode as whole blocks, until the file has `pages` pages; does
  // nothing if it has as many. After a failure, pageCount() says how many there are.
  Result<void> extendTo(std::int64_t pages);
  Result<void> flush() { return outcome(table().qzpflush(handle_, journal_)); }
  // Writes collected pages to the file, as a flush does, but does not wait until they are durable.
  // Returns misfit and writes nothing if others changed the size of the file.
  Result<void> writeBack();
  // *length: header bytes given; then the bytes stored.
  Result<void> writeHeader(const void* header, std::int32_t* length) {
    return outcome(table().qzpwritehdr(handle_, header, length, journal_));
  }
  // *count: buffers wanted; after buffersMissing, the number that was added.
  Result<void> addBuffers(std::int32_t* count) {
    return outcome(table().qzpbufadd(handle_, count, journal_));
  }
  Result<void> removeBuffers(std::int32_t count) {
    return outcome(table().qzpbufremove(handle_, count, journal_));
  }

 private:
  Result<void> outcome(Status status) const {
    return status == Status::ok ? Result<void>() : Result<void>(errorOf(handle_, status));
  }
  Result<void> refused(Status status, std::string text) const;
  Result<void> readRun(std::int64_t firstPage, std::int32_t count, PageRequest* const* requests,
                       std::uint32_t options, std::int32_t* pagesRead);
  Result<void> openExisting();
  Result<void> openAsAsked();
  bool usesDirectIo() const noexcept { return (handle_->directIoMode & directIo) != 0; }
  void keepWhatOthersWrote() noexcept;
  void keepEmptyFile() noexcept;
  void unmarkNewFile() noexcept;
  void dispose() noexcept;

  FileHandle* handle_;
  Journal* journal_;
  std::optional<Io> asked_;  // from the settings given to open
  std::string refusal_;      // why direct I/O was not tried or not used
};

// The module, loaded into this process and registered with a host. At the end of its scope the
// extension object is destroyed and the library unloaded. Every PagedFile must be destroyed before
// it, and the host after it.
class Module {
 public:
  // Loads the library at `path`. With an empty path it searches, in this order: beside the program
  // or plugin that contains this code; in the library folder that belongs to the folder of the
  // running program; on the search path that the program or plugin was linked with (the package
  // files set it); where the system looks. Then calls qzextent and qziop. The error's text says
  // which files were tried and what the loader said; its status is noMemory if qziop refused.
  static Result<Module> load(QZHandle* host, Journal* journal = nullptr,
                             const std::string& path = {});

  Module(Module&& other) noexcept;
  Module& operator=(Module&& other) noexcept;
  ~Module() { dispose(); }

  ExtensionObject* extension() const noexcept { return extension_; }
  OperationTable& table() const noexcept { return extension_->operations; }
  const std::string& path() const noexcept { return path_; }  // of the loaded library
  // The address of an exported name, or null.
  void* symbol(const char* name) const noexcept;

  // A new closed handle; `journal` gets its reports and may be null. Fails with noMemory.
  Result<PagedFile> newFile(Journal* journal = nullptr) const;

  // Destroys the extension object and unloads the library now. Returns qzpdestroy's result.
  HostStatus dispose() noexcept;

 private:
  Module(void* library, ExtensionObject* extension, std::string path) noexcept
      : library_(library), extension_(extension), path_(std::move(path)) {}

  void* library_;
  ExtensionObject* extension_;
  std::string path_;
};

}  // namespace qz
