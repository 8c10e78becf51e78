// Finding and loading the module, and members of qziop.hpp that do not read or write pages.
#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "qziop.hpp"

namespace qz {
namespace {

constexpr const char* kModuleName = "libqziop.so";
constexpr const char* kInstalledName =
    "libqziop.so.3";  // the name that the system's loader searches for

// The folder of the running program with a slash at the end; empty if the system does not tell.
std::string programFolder() {
  std::vector<char> path(4096);
  const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) return {};
  const std::string program(path.data(), static_cast<std::size_t>(length));
  return program.substr(0, program.rfind('/') + 1);
}

// The folder of the shared library that contains this code, with a slash at the end; empty if the
// program itself contains it.
std::string pluginFolder() {
  Dl_info about = {};
  link_map* library = nullptr;
  const int found = dladdr1(reinterpret_cast<const void*>(&pluginFolder), &about,
                            reinterpret_cast<void**>(&library), RTLD_DL_LINKMAP);
  if (found == 0 || library == nullptr || library->l_name[0] == '\0') return {};
  const std::unique_ptr<char, decltype(&std::free)> path(realpath(library->l_name, nullptr),
                                                         &std::free);
  if (path == nullptr) return {};
  const std::string plugin = path.get();
  return plugin.substr(0, plugin.rfind('/') + 1);
}

// A plugin has the module beside it or on the search path that it was linked with; the folder of
// the program that loaded it does not count. For a program, the folder of installed modules is
// found from the program's own folder, so that an installed tree can be moved. With the plain name
// the system searches, first on the search path that the program or plugin was linked with.
std::vector<std::string> candidates(const std::string& path) {
  if (!path.empty()) return {path.find('/') == std::string::npos ? "./" + path : path};
  std::vector<std::string> result;
  if (const std::string plugin = pluginFolder(); !plugin.empty()) {
    result.push_back(plugin + kModuleName);
    result.push_back(plugin + kInstalledName);
  } else if (const std::string folder = programFolder(); !folder.empty()) {
    result.push_back(folder + kModuleName);
    result.push_back(folder + QZIOP_LIBRARY_FROM_PROGRAM "/" + kInstalledName);
  }
  result.emplace_back(kInstalledName);
  return result;
}

Error loadError(Status status, std::string text) {
  Error error;
  error.status = status;
  error.text = std::move(text);
  return error;
}

bool isFileAbsent(const std::string& path) {
  return path.find('/') != std::string::npos && access(path.c_str(), F_OK) != 0;
}

// The first candidate that can be loaded. A file that exists but cannot be loaded ends the search.
Result<void*> loadFirst(const std::vector<std::string>& paths, std::string* loaded) {
  std::string tried;
  for (const std::string& path : paths) {
    *loaded = path;
    tried += (tried.empty() ? "" : ", ") + path;
    if (isFileAbsent(path)) continue;
    if (void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) return library;
    const char* reason = dlerror();
    if (path == kInstalledName) continue;
    return loadError(Status::unsupportedFile,
                     std::string("The module could not be loaded: ") + reason);
  }
  return loadError(Status::fileNotFound, "The module was not found; tried " + tried);
}

// True for statuses that a failed system call can cause, and for unknown codes. For the others
// lastErrno is stale, left over from an earlier failure.
bool hasSystemReason(Status status) {
  switch (status) {
    case Status::badArgument:
    case Status::noHeaderYet:
    case Status::inexactPageSize:
    case Status::endOfFile:
    case Status::pageOutOfRange:
    case Status::noBuffer:
    case Status::notWritable:
    case Status::buffersMissing:
    case Status::readOutOfSequence:
    case Status::notHeld:
    case Status::writeOutOfSequence:
    case Status::wrongLength:
    case Status::notOpen:
    case Status::alreadyOpen:
    case Status::deleteWhileOpen:
      return false;
    case Status::ok:
    case Status::noMemory:
    case Status::fileNotFound:
    case Status::accessRefused:
    case Status::isDirectory:
    case Status::noFileName:
    case Status::noDescriptor:
    case Status::busy:
    case Status::ioFailed:
    case Status::notRemoved:
    case Status::noSpace:
    case Status::readOnlyFileSystem:
    case Status::shorterThanHeader:
    case Status::misfit:
    case Status::notTruncated:
    case Status::unsupportedFile:
    case Status::accessNote:
    case Status::shortHeaderReport:
    case Status::fileNameLine:
    case Status::reopenFailed:
    case Status::cannotRemoveReport:
      return true;
  }
  return true;
}

std::string hex(std::uint32_t value) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "0x%08X", value);
  return digits;
}

}  // namespace

std::string Error::message() const {
  std::string line = text;
  if (!fileName.empty()) line += " [file " + fileName + "]";
  if (errorNumber != 0) {
    line += std::string(": ") + std::strerror(errorNumber) + " (errno " +
            std::to_string(errorNumber) + ")";
  }
  line += ", status " + hex(static_cast<std::uint32_t>(status));
  return closedFile ? line + "; the file was closed" : line;
}

Error errorOf(FileHandle* handle, Status status) {
  Error error;
  error.status = status;
  error.text = statusText(static_cast<std::uint32_t>(status));
  if (hasSystemReason(status)) {
    StatusReport report{};
    handle->ops->operations.qzpgetstatus(handle, &report);
    error.errorNumber = report.lastErrno;
    error.hostDetail1 = report.hostErrorDetail1;
    error.hostDetail2 = report.hostErrorDetail2;
  }
  if (handle->fileName != nullptr) error.fileName = toUtf8(handle->fileName);
  return error;
}

Result<void> PagedFile::setName(std::string_view utf8Name) {
  const std::u32string name = toUtf32(utf8Name);
  return outcome(table().qzpsetfilename(handle_, name.data(),
                                        static_cast<std::int32_t>(name.size()), journal_));
}

Result<void> PagedFile::preopen(void* header, std::int32_t* length) {
  const Status status = table().qzppreopen(handle_, header, length, journal_);
  if (status == Status::ok) return {};
  Error error = errorOf(handle_, status);
  if (status == Status::shorterThanHeader && *length >= 0)
    error.errorNumber = 0;  // the file is just short
  return error;
}

PagedFile& PagedFile::operator=(PagedFile&& other) noexcept {
  if (this != &other) {
    dispose();
    handle_ = std::exchange(other.handle_, nullptr);
    journal_ = other.journal_;
    asked_ = other.asked_;
    refusal_ = std::move(other.refusal_);
  }
  return *this;
}

void PagedFile::dispose() noexcept {
  FileHandle* handle = handle_;
  if (handle == nullptr) return;
  const OperationTable& operations = handle->ops->operations;
  // A file that was never open may have contents: its close must not treat it as empty.
  if ((handle->stateFlags & stateOpen) == 0) handle->writeAccess = noWrite;
  keepWhatOthersWrote();
  if (handle->hostFile != nullptr) operations.qzpclose(handle, 0, journal_);
  if (handle->hostFile != nullptr) {
    // A failed flush or removal would fail again: close the file without it.
    handle->openOptions &= ~static_cast<std::uint32_t>(optionFlushAtClose);
    handle->writeAccess = noWrite;
    operations.qzpclose(handle, 0, journal_);
  }
  operations.qzpfreememhandle(handle, journal_);
  handle_ = nullptr;
}

Result<Module> Module::load(QZHandle* host, Journal* journal, const std::string& path) {
  std::string loaded;
  Result<void*> library = loadFirst(candidates(path), &loaded);
  if (!library) return library.error();
  Module module(*library, nullptr, loaded);
  const auto makeKnown = reinterpret_cast<decltype(&qzextent)>(module.symbol("qzextent"));
  const auto enter = reinterpret_cast<decltype(&qziop)>(module.symbol("qziop"));
  if (makeKnown == nullptr || enter == nullptr) {
    return loadError(Status::unsupportedFile, loaded + " is not this module: it exports no " +
                                                  (enter == nullptr ? "qziop" : "qzextent"));
  }
  makeKnown(host);
  module.extension_ = enter(host, journal);
  if (module.extension_ == nullptr) {
    return loadError(Status::noMemory, "The module did not start: the host refused it a service");
  }
  return module;
}

Module::Module(Module&& other) noexcept
    : library_(std::exchange(other.library_, nullptr)),
      extension_(std::exchange(other.extension_, nullptr)),
      path_(std::move(other.path_)) {}

Module& Module::operator=(Module&& other) noexcept {
  if (this != &other) {
    dispose();
    library_ = std::exchange(other.library_, nullptr);
    extension_ = std::exchange(other.extension_, nullptr);
    path_ = std::move(other.path_);
  }
  return *this;
}

void* Module::symbol(const char* name) const noexcept { return dlsym(library_, name); }

Result<PagedFile> Module::newFile(Journal* journal) const {
  FileHandle* handle = extension_->operations.qzpgetmemhandle(extension_, journal);
  if (handle == nullptr) {
    return loadError(Status::noMemory, statusText(static_cast<std::uint32_t>(Status::noMemory)));
  }
  return PagedFile(handle, journal);
}

HostStatus Module::dispose() noexcept {
  HostStatus status = hostOk;
  if (extension_ != nullptr) {
    ExtensionObject* extension = std::exchange(extension_, nullptr);
    status = extension->qzpdestroy(extension);
  }
  if (library_ != nullptr) dlclose(std::exchange(library_, nullptr));
  return status;
}

}  // namespace qz
