// A way into the module for C++ callers, over its operation table.
//
//   qz::StandInHost host;
//   auto module = qz::Module::load(host.handle());
//   auto file = module->newFile();
//   file->settings().pageSize = 4096;
//   if (auto done = file->setName("data.qzp"); !done) return fail(done.error());
//
// Nothing is hidden: the extension object, the operation table and the file handle are in reach,
// and every member calls the table's entry of its name as it stands at that moment. Nothing is
// copied: a page that was read is used where the module keeps it.
//
// Failures come back as values. Nothing here throws, except std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "qzpos.h"
#include "qzstandin.h"

namespace qz {

// Why a call failed.
struct Error {
  Status status = Status::ok;     // the module's code, or the host's where one passed through
  std::string text;               // of the message catalogue, or the loader's own words
  std::int32_t errorNumber = 0;   // errno behind the failure; 0 where no system call is
  std::uint32_t hostDetail1 = 0;  // the host's two words about a failed open
  std::uint32_t hostDetail2 = 0;
  std::string fileName;  // UTF-8; empty: the handle has no name, or there is no handle

  // One line: the text, the file, the system's reason and the code.
  std::string message() const;
};

// A value or the error that took its place. Like a pointer: test it, then use * or ->.
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

// The error that a handle's last operation left, for a status that it returned.
Error errorOf(FileHandle* handle, Status status);

// A page or an empty buffer that the caller holds, given back unwritten at the end of its scope
// unless PagedFile::write took it. It must not outlive the close of its file.
class PageHold {
 public:
  PageHold(FileHandle* handle, char* data, std::int64_t page, std::int32_t bytes) noexcept
      : handle_(handle), data_(data), page_(page), bytes_(bytes) {}
  PageHold(PageHold&& other) noexcept
      : handle_(other.handle_),
        data_(std::exchange(other.data_, nullptr)),
        page_(other.page_),
        bytes_(other.bytes_) {}
  PageHold& operator=(PageHold&& other) noexcept {
    if (this != &other) {
      giveBack();
      handle_ = other.handle_;
      data_ = std::exchange(other.data_, nullptr);
      page_ = other.page_;
      bytes_ = other.bytes_;
    }
    return *this;
  }
  ~PageHold() { giveBack(); }

  char* data() const noexcept { return data_; }           // null after the hold has ended
  std::int64_t page() const noexcept { return page_; }    // 0: an acquired, empty buffer
  std::int32_t bytes() const noexcept { return bytes_; }  // usable at data()
  explicit operator bool() const noexcept { return data_ != nullptr; }

  // Ends the hold now; its outcome, or ok when it had ended before.
  Status giveBack(Journal* journal = nullptr) noexcept {
    if (data_ == nullptr) {
      return Status::ok;
    }
    char* const address = std::exchange(data_, nullptr);
    return handle_->ops->operations.qzpbufreturn(handle_, address, journal);
  }

  // Leaves the hold to the caller, who must end it with one write or return of the address.
  char* release() noexcept { return std::exchange(data_, nullptr); }

 private:
  FileHandle* handle_;
  char* data_;
  std::int64_t page_;
  std::int32_t bytes_;
};

// A file handle of the module, closed and freed at the end of its scope. Caller settings are the
// fields of settings(), set before preopen or open. Each operation is the table's of that name
// with the journal given at creation.
class PagedFile {
 public:
  // Takes over a handle that qzpgetmemhandle returned.
  PagedFile(FileHandle* handle, Journal* journal) noexcept : handle_(handle), journal_(journal) {}
  PagedFile(PagedFile&& other) noexcept
      : handle_(std::exchange(other.handle_, nullptr)), journal_(other.journal_) {}
  PagedFile& operator=(PagedFile&& other) noexcept;
  ~PagedFile() { dispose(); }

  FileHandle* handle() const noexcept { return handle_; }
  FileHandle& settings() const noexcept { return *handle_; }
  const OperationTable& table() const noexcept { return handle_->ops->operations; }
  Journal* journal() const noexcept { return journal_; }
  bool isOpen() const noexcept { return (handle_->stateFlags & stateOpen) != 0; }

  Result<void> setName(std::string_view utf8Name);

  // *length: header bytes wanted; after shorterThanHeader those that the file has.
  Result<void> preopen(void* header, std::int32_t* length);
  // createOrReplace sets headerSize to 0: set it again after the open, and write the header before
  // the first page.
  Result<void> open() { return outcome(table().qzpopen(handle_, journal_)); }
  Result<void> close(std::uint32_t flags = 0) {
    return outcome(table().qzpclose(handle_, flags, journal_));
  }
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

  // A page where the module keeps it.
  Result<PageHold> read(std::int64_t page) {
    PageRequest request{};
    request.pageNumber = page;
    const Status status = table().qzpread(handle_, &request, journal_);
    if (status != Status::ok) {
      return errorOf(handle_, status);
    }
    return PageHold(handle_, request.buffer, page, handle_->pageSize);
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
  // Writes a held buffer as page `page` and ends the hold. After a failure that kept the hold,
  // `hold` still has it: write again or let it go.
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
  // Reads `count` pages from `firstPage` on into one area of count * pageSize bytes.
  Result<void> readMany(std::int64_t firstPage, std::int32_t count, void* area) {
    PageRequest first{};
    first.buffer = static_cast<char*>(area);
    PageRequest* const requests[] = {&first};
    return outcome(table().qzpreadmany(handle_, requests, firstPage, count, kContiguous, journal_));
  }
  // Reads page firstPage + i into requests[i]->buffer.
  Result<void> readMany(std::int64_t firstPage, std::int32_t count, PageRequest* const* requests) {
    return outcome(table().qzpreadmany(handle_, requests, firstPage, count, 0, journal_));
  }
  Result<void> truncate(std::int64_t pages) {
    return outcome(table().qzptruncate(handle_, pages, journal_));
  }
  Result<void> flush() { return outcome(table().qzpflush(handle_, journal_)); }
  // *length: header bytes given; then the bytes stored.
  Result<void> writeHeader(const void* header, std::int32_t* length) {
    return outcome(table().qzpwritehdr(handle_, header, length, journal_));
  }
  // *count: buffers wanted; after buffersMissing those that were added.
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
  void dispose() noexcept;

  FileHandle* handle_;
  Journal* journal_;
};

// The module, loaded into this process and made known to a host. At the end of its scope the
// extension object is destroyed and the library unloaded: every PagedFile must be gone by then,
// and the host must still be there.
class Module {
 public:
  // Loads the library at `path`; with an empty path the libqziop.so beside the running program,
  // else the installed one. Then calls qzextent and qziop. The error's text says which files were
  // tried and what the loader said; its status is noMemory when qziop refused.
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

  // A new closed handle; `journal` gets its reports and may be null. noMemory.
  Result<PagedFile> newFile(Journal* journal = nullptr) const;

  // Destroys the extension object and unloads the library now. Returns what qzpdestroy returned.
  HostStatus dispose() noexcept;

 private:
  Module(void* library, ExtensionObject* extension, std::string path) noexcept
      : library_(library), extension_(extension), path_(std::move(path)) {}

  void* library_;
  ExtensionObject* extension_;
  std::string path_;
};

}  // namespace qz
