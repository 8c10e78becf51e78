// The operations under their own names: each calls the module's operation and records its arguments
// and results. The operation table has the same functions, so the calls that the module makes
// through the table are recorded as well.
#include "module.h"
#include "recorder.h"

using qz::FileHandle;
using qz::Journal;
using qz::Status;
using qz::trace::addStatus;
using qz::trace::realModule;
using qz::trace::record;
using qz::trace::Text;

namespace {

const qz::OperationTable& real() { return realModule().operations; }

constexpr auto kNoArguments = [](Text&) {};

// The outcome of an operation on a handle that still exists.
void addOutcome(Text* text, const FileHandle& handle, Status status) {
  addStatus(text, status);
  const bool good = status == Status::ok || status == Status::endOfFile;
  if (!good && handle.lastErrno != 0) text->field("errno", handle.lastErrno);
}

auto outcomeOf(const FileHandle* handle) {
  return [handle](Text& text, Status status) { addOutcome(&text, *handle, status); };
}

void addName(Text* text, const char32_t* name, std::int64_t length) {
  if (name == nullptr || length <= 0) return;
  text->key("name");
  text->string(name, static_cast<std::size_t>(length));
}

// The settings that a caller makes before an open.
void addSettings(Text* text, const FileHandle& handle) {
  addName(text, handle.fileName, handle.fileNameLength);
  text->field("open_mode", handle.openMode);
  text->field("read_access", handle.readAccess);
  text->field("write_access", handle.writeAccess);
  text->field("open_options", handle.openOptions);
  text->field("asked_page_size", handle.pageSize);
  text->field("asked_block_bytes", handle.requestedBlockBytes);
  text->field("asked_buffers", handle.bufferCount);
}

// The shape of an open file.
void addShape(Text* text, const FileHandle& handle) {
  text->field("page_size", handle.pageSize);
  text->field("header_size", handle.headerSize);
  text->field("pages", handle.pageCount);
  text->field("buffers", handle.bufferCount);
  text->field("io_mode", handle.directIoMode);
  text->field("direct_io_support", handle.directIoSupport);
  if ((handle.directIoMode & qz::blockMode) == 0) return;
  text->field("block_bytes", handle.blockBytes);
  text->field("pages_per_block", handle.pagesPerBlock);
}

}  // namespace

Status qzpgetstatus(FileHandle* handle, qz::StatusReport* out) noexcept {
  return record(
      "qzpgetstatus", handle, nullptr, [&] { return real().qzpgetstatus(handle, out); },
      kNoArguments,
      [&](Text& text, Status status) {
        addStatus(&text, status);
        text.key("last");
        text.add("{");
        addStatus(&text, out->status);
        text.field("errno", out->lastErrno);
        text.field("host_detail_1", out->hostErrorDetail1);
        text.field("host_detail_2", out->hostErrorDetail2);
        text.field("io_mode", out->directIoMode);
        text.add("}");
      });
}

FileHandle* qzpgetmemhandle(qz::ExtensionObject* module, Journal* journal) noexcept {
  return record(
      "qzpgetmemhandle", nullptr, journal, [&] { return real().qzpgetmemhandle(module, journal); },
      kNoArguments,
      [&](Text& text, FileHandle* handle) {
        if (handle != nullptr) text.address("handle", handle);
        addStatus(&text, handle != nullptr ? Status::ok : Status::noMemory);
      });
}

Status qzpfreememhandle(FileHandle* handle, Journal* journal) noexcept {
  return record(
      "qzpfreememhandle", handle, journal, [&] { return real().qzpfreememhandle(handle, journal); },
      kNoArguments, [&](Text& text, Status status) { addStatus(&text, status); });
}

Status qzpsetfilename(FileHandle* handle, const char32_t* name, std::int32_t length,
                      Journal* journal) noexcept {
  return record(
      "qzpsetfilename", handle, journal,
      [&] { return real().qzpsetfilename(handle, name, length, journal); },
      [&](Text& text) { addName(&text, name, length); }, outcomeOf(handle));
}

Status qzpinfo(FileHandle* handle, Journal* journal) noexcept {
  return record(
      "qzpinfo", handle, journal, [&] { return real().qzpinfo(handle, journal); }, kNoArguments,
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        text.field("host_page_size", handle->hostPageSize);
        text.field("direct_io_support", handle->directIoSupport);
      });
}

Status qzppsize(FileHandle* handle, const qz::PageSizeRequest* request, Journal* journal) noexcept {
  return record(
      "qzppsize", handle, journal, [&] { return real().qzppsize(handle, request, journal); },
      [&](Text& text) {
        text.field("minimum", request->minimumSize);
        text.field("maximum", request->maximumSize);
        text.field("multiple", request->multiple);
      },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        text.field("page_size", handle->pageSize);
      });
}

Status qzppreopen(FileHandle* handle, void* buffer, std::int32_t* length,
                  Journal* journal) noexcept {
  return record(
      "qzppreopen", handle, journal,
      [&] { return real().qzppreopen(handle, buffer, length, journal); },
      [&](Text& text) {
        addSettings(&text, *handle);
        text.field("length", *length);
      },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        text.field("length_out", *length);
      });
}

Status qzpopen(FileHandle* handle, Journal* journal) noexcept {
  return record(
      "qzpopen", handle, journal, [&] { return real().qzpopen(handle, journal); },
      [&](Text& text) { addSettings(&text, *handle); },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        if (status == Status::ok) addShape(&text, *handle);
      });
}

Status qzpreopen(FileHandle* handle, const qz::AccessHints* hints, Journal* journal) noexcept {
  return record(
      "qzpreopen", handle, journal, [&] { return real().qzpreopen(handle, hints, journal); },
      [&](Text& text) {
        text.field("read_access", hints->readAccess);
        text.field("write_access", hints->writeAccess);
        text.field("open_options", hints->openOptions);
      },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        addShape(&text, *handle);
      });
}

Status qzpclose(FileHandle* handle, std::uint32_t flags, Journal* journal) noexcept {
  return record(
      "qzpclose", handle, journal, [&] { return real().qzpclose(handle, flags, journal); },
      [&](Text& text) { text.field("flags", flags); }, outcomeOf(handle));
}

Status qzpdelete(FileHandle* handle, Journal* journal) noexcept {
  return record(
      "qzpdelete", handle, journal, [&] { return real().qzpdelete(handle, journal); }, kNoArguments,
      outcomeOf(handle));
}

Status qzpread(FileHandle* handle, qz::PageRequest* request, Journal* journal) noexcept {
  return record(
      "qzpread", handle, journal, [&] { return real().qzpread(handle, request, journal); },
      [&](Text& text) { text.field("page", request->pageNumber); },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        if (status == Status::ok) text.address("buffer", request->buffer);
      });
}

Status qzpreadmany(FileHandle* handle, qz::PageRequest* const* requests, std::int64_t startPage,
                   std::int32_t count, std::uint32_t options, Journal* journal) noexcept {
  return record(
      "qzpreadmany", handle, journal,
      [&] { return real().qzpreadmany(handle, requests, startPage, count, options, journal); },
      [&](Text& text) {
        text.field("page", startPage);
        text.field("count", count);
        text.field("options", options);
      },
      outcomeOf(handle));
}

Status qzpwrite(FileHandle* handle, qz::PageRequest* request, Journal* journal) noexcept {
  return record(
      "qzpwrite", handle, journal, [&] { return real().qzpwrite(handle, request, journal); },
      [&](Text& text) {
        text.field("page", request->pageNumber);
        text.field("length", request->length);
        text.field("flags", request->flags);
        text.address("buffer", request->buffer);
      },
      outcomeOf(handle));
}

Status qzptruncate(FileHandle* handle, std::int64_t pages, Journal* journal) noexcept {
  return record(
      "qzptruncate", handle, journal, [&] { return real().qzptruncate(handle, pages, journal); },
      [&](Text& text) { text.field("pages", pages); }, outcomeOf(handle));
}

Status qzpflush(FileHandle* handle, Journal* journal) noexcept {
  return record(
      "qzpflush", handle, journal, [&] { return real().qzpflush(handle, journal); }, kNoArguments,
      outcomeOf(handle));
}

Status qzpwritehdr(FileHandle* handle, const void* header, std::int32_t* length,
                   Journal* journal) noexcept {
  return record(
      "qzpwritehdr", handle, journal,
      [&] { return real().qzpwritehdr(handle, header, length, journal); },
      [&](Text& text) { text.field("length", *length); },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        text.field("length_out", *length);
      });
}

Status qzpbufacquire(FileHandle* handle, void** buffer, Journal* journal) noexcept {
  return record(
      "qzpbufacquire", handle, journal,
      [&] { return real().qzpbufacquire(handle, buffer, journal); }, kNoArguments,
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        if (status == Status::ok) text.address("buffer", *buffer);
      });
}

Status qzpbufreturn(FileHandle* handle, void* address, Journal* journal) noexcept {
  return record(
      "qzpbufreturn", handle, journal,
      [&] { return real().qzpbufreturn(handle, address, journal); },
      [&](Text& text) { text.address("buffer", address); }, outcomeOf(handle));
}

Status qzpbufadd(FileHandle* handle, std::int32_t* count, Journal* journal) noexcept {
  return record(
      "qzpbufadd", handle, journal, [&] { return real().qzpbufadd(handle, count, journal); },
      [&](Text& text) { text.field("count", *count); },
      [&](Text& text, Status status) {
        addOutcome(&text, *handle, status);
        text.field("count_out", *count);
      });
}

Status qzpbufremove(FileHandle* handle, std::int32_t count, Journal* journal) noexcept {
  return record(
      "qzpbufremove", handle, journal, [&] { return real().qzpbufremove(handle, count, journal); },
      [&](Text& text) { text.field("count", count); }, outcomeOf(handle));
}
