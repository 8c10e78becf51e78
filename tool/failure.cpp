#include "failure.hpp"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "json.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

std::string reasonOf(int errorNumber) { return std::generic_category().message(errorNumber); }

Exit exitForErrno(Purpose purpose, int errorNumber) {
  switch (errorNumber) {
    case EACCES:
    case EPERM:
      return Exit::noPermission;
    case ENOENT:
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
      return purpose == Purpose::input ? Exit::noInput : Exit::cannotCreate;
    case EROFS:
    case EEXIST:
      return Exit::cannotCreate;
    default:
      return Exit::ioError;
  }
}

Exit exitForStatus(Purpose purpose, const qz::Error& error) {
  switch (error.status) {
    case qz::Status::accessRefused:
      return Exit::noPermission;
    case qz::Status::fileNotFound:
    case qz::Status::isDirectory:
    case qz::Status::noFileName:
    case qz::Status::unsupportedFile:
      return purpose == Purpose::input ? Exit::noInput : Exit::cannotCreate;
    case qz::Status::readOnlyFileSystem:
      return Exit::cannotCreate;
    case qz::Status::misfit:
    case qz::Status::shorterThanHeader:
      return error.errorNumber == 0 ? Exit::badData : Exit::ioError;
    case qz::Status::endOfFile:
      return Exit::badData;
    // The system's error number decides.
    case qz::Status::ok:
    case qz::Status::noMemory:
    case qz::Status::badArgument:
    case qz::Status::noHeaderYet:
    case qz::Status::noDescriptor:
    case qz::Status::busy:
    case qz::Status::ioFailed:
    case qz::Status::notRemoved:
    case qz::Status::inexactPageSize:
    case qz::Status::pageOutOfRange:
    case qz::Status::noBuffer:
    case qz::Status::notWritable:
    case qz::Status::noSpace:
    case qz::Status::buffersMissing:
    case qz::Status::readOutOfSequence:
    case qz::Status::notHeld:
    case qz::Status::writeOutOfSequence:
    case qz::Status::wrongLength:
    case qz::Status::notTruncated:
    case qz::Status::notOpen:
    case qz::Status::alreadyOpen:
    case qz::Status::accessNote:
    case qz::Status::deleteWhileOpen:
    case qz::Status::shortHeaderReport:
    case qz::Status::fileNameLine:
    case qz::Status::reopenFailed:
    case qz::Status::cannotRemoveReport:
      break;
  }
  return exitForErrno(purpose, error.errorNumber);
}

const char* hintForErrno(Purpose purpose, int errorNumber) {
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return purpose == Purpose::input ? "check the name and the folder it is in"
                                       : "create the folder first";
    case EACCES:
    case EPERM:
      return "check the permissions of the file and of its folder (ls -l)";
    case EISDIR:
      return "name a file, not a folder";
    case ENOSPC:
    case EDQUOT:
      return "make room on that file system, or write to another one";
    case EFBIG:
      return "raise the file size limit (ulimit -f), or write to a file system with larger files";
    case EINVAL:
      return "this file system does not support this direct I/O: use --io buffered or auto";
    case EIO:
      return "the disk may be failing: check the system log, and copy what can still be read";
    case EROFS:
      return "use another file system, or remount this one for writing";
    case ENOTCONN:
    case ESTALE:
    case ETIMEDOUT:
    case EHOSTDOWN:
    case EHOSTUNREACH:
      return "the server of this network file system, or too many of its replicas, cannot be "
             "reached: try again when they are back";
    case EMFILE:
    case ENFILE:
      return "close other files, or raise the limit (ulimit -n)";
    default:
      return "";
  }
}

const char* hintForStatus(Purpose purpose, const qz::Error& error) {
  switch (error.status) {
    case qz::Status::unsupportedFile:
      return "name a regular file: a paged file must be seekable; a pipe or a device is not";
    case qz::Status::busy:
      return "another program has the file open, or its file system cannot lock it at the moment "
             "(a network file system that lost replicas or its server): try again later";
    case qz::Status::noMemory:
    case qz::Status::noBuffer:
      return "use smaller pages, a smaller --block-size or fewer --buffers";
    case qz::Status::misfit:
    case qz::Status::endOfFile:
    case qz::Status::shorterThanHeader:
      if (error.errorNumber == 0) {
        return "the file changed while it was in use, or its file system returned only a part "
               "of what was read: try again";
      }
      break;
    // The system's error number decides.
    case qz::Status::ok:
    case qz::Status::badArgument:
    case qz::Status::fileNotFound:
    case qz::Status::accessRefused:
    case qz::Status::isDirectory:
    case qz::Status::noHeaderYet:
    case qz::Status::noFileName:
    case qz::Status::noDescriptor:
    case qz::Status::ioFailed:
    case qz::Status::notRemoved:
    case qz::Status::inexactPageSize:
    case qz::Status::pageOutOfRange:
    case qz::Status::notWritable:
    case qz::Status::noSpace:
    case qz::Status::readOnlyFileSystem:
    case qz::Status::buffersMissing:
    case qz::Status::readOutOfSequence:
    case qz::Status::notHeld:
    case qz::Status::writeOutOfSequence:
    case qz::Status::wrongLength:
    case qz::Status::notTruncated:
    case qz::Status::notOpen:
    case qz::Status::alreadyOpen:
    case qz::Status::accessNote:
    case qz::Status::deleteWhileOpen:
    case qz::Status::shortHeaderReport:
    case qz::Status::fileNameLine:
    case qz::Status::reopenFailed:
    case qz::Status::cannotRemoveReport:
      break;
  }
  return hintForErrno(purpose, error.errorNumber);
}

// Why the system wrote only a part, which it reports without an error: the file size limit if the
// disk has room up to that limit, else a full disk.
int reasonForPart(const std::string& file) {
  rlimit limit = {};
  struct stat info = {};
  struct statvfs disk = {};
  if (getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
      stat(file.c_str(), &info) != 0 || statvfs(file.c_str(), &disk) != 0) {
    return ENOSPC;
  }
  const auto size = static_cast<std::uint64_t>(info.st_size);
  const std::uint64_t room = std::uint64_t{disk.f_bavail} * disk.f_frsize;
  return limit.rlim_cur <= size || room >= limit.rlim_cur - size ? EFBIG : ENOSPC;
}

}  // namespace

Failure Failure::at(std::int64_t page, std::int64_t offset) && {
  page_ = page;
  offset_ = offset;
  return std::move(*this);
}

Failure Failure::because(int errorNumber) && {
  errorNumber_ = errorNumber;
  return std::move(*this);
}

Failure Failure::fromModule(const qz::Error& error) && {
  errorNumber_ = error.errorNumber;
  status_ = static_cast<std::uint32_t>(error.status);
  statusText_ = error.text;
  return std::move(*this);
}

Failure Failure::tryThis(std::string hint) && {
  hint_ = std::move(hint);
  return std::move(*this);
}

std::string Failure::reason() const {
  std::string out = what_;
  if (errorNumber_ != 0) out += ": " + reasonOf(errorNumber_);
  if (status_) out += fmt::format(" (status 0x{:08X})", *status_);
  return out;
}

std::string Failure::text(bool colour) const {
  std::string out = colour ? "\x1b[1;31mqzpfile:\x1b[0m " : "qzpfile: ";
  if (!file_.empty()) out += printable(file_) + ": ";
  out += printable(what_);
  if (errorNumber_ != 0) out += ": " + reasonOf(errorNumber_);
  out += '\n';
  if (page_) out += fmt::format("  where:  page {}, file offset {}\n", *page_, *offset_);
  if (status_)
    out += fmt::format("  module: {} (status 0x{:08X})\n", printable(statusText_), *status_);
  if (!note_.empty()) out += fmt::format("  note:   {}\n", printable(note_));
  if (!hint_.empty()) out += fmt::format("  try:    {}\n", printable(hint_));
  return out;
}

std::string Failure::json() const {
  nlohmann::ordered_json error;
  error["what"] = what_;
  if (!file_.empty()) error["file"] = file_;
  if (page_) error["page"] = *page_;
  if (offset_) error["offset"] = *offset_;
  if (errorNumber_ != 0) {
    error["errno"] = errorNumber_;
    error["reason"] = reasonOf(errorNumber_);
  }
  if (status_) {
    error["status"] = *status_;
    error["status_text"] = statusText_;
  }
  if (!note_.empty()) error["note"] = note_;
  if (!hint_.empty()) error["hint"] = hint_;
  nlohmann::ordered_json document = jsonDocument("error", exit_);
  document["error"] = std::move(error);
  return jsonText(document);
}

Failure systemFailure(Purpose purpose, std::string what, std::string file, int errorNumber) {
  return Failure(exitForErrno(purpose, errorNumber), std::move(what), std::move(file))
      .because(errorNumber)
      .tryThis(hintForErrno(purpose, errorNumber));
}

Failure moduleFailure(Purpose purpose, std::string what, std::string file,
                      const qz::Error& failed) {
  qz::Error error = failed;
  if (error.status == qz::Status::noSpace && error.errorNumber == 0) {
    error.errorNumber = reasonForPart(error.fileName);
  }
  return Failure(exitForStatus(purpose, error), std::move(what), std::move(file))
      .fromModule(error)
      .tryThis(hintForStatus(purpose, error));
}

}  // namespace qzpfile
