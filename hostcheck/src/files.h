// A file that the host opened.
#pragma once

#include <string>

#include "checks.h"

namespace qz::hostcheck {

// Access modes that the module passes.
inline constexpr std::uint32_t kShared = 0xA;
inline constexpr std::uint32_t kExclusive = 0x5;
inline constexpr std::uint32_t kReadUnlocked = 0x22;
inline constexpr std::uint32_t kWriteUnlocked = 0x21;

inline OpenParameters parametersFor(const std::u32string& name, std::uint32_t flags) {
  OpenParameters parameters = {};
  parameters.fileName = name.c_str();
  parameters.fileNameLength = static_cast<std::uint32_t>(name.size());
  parameters.permissions = 0666;
  parameters.openFlags = flags;
  return parameters;
}

// An attempt to open a file, with everything that the host reports about it. A check's process ends
// after the check, so nothing is closed here.
struct Opened {
  Opened(const Trial& trial, const std::u32string& name, std::uint32_t flags,
         std::uint32_t accessMode, std::uint32_t permissions = 0666)
      : Opened(trial, name, flags, accessMode, permissions, trial.journal) {}
  Opened(const Trial& trial, const std::u32string& name, std::uint32_t flags,
         std::uint32_t accessMode, std::uint32_t permissions, Journal* journal)
      : parameters(parametersFor(name, flags)) {
    parameters.permissions = permissions;
    FileService* const service = trial.host->fileService;
    file = service->fileOpen(service, &parameters, 1, accessMode, journal, &status);
  }

  explicit operator bool() const { return file != nullptr; }
  int fd() const { return file->fileInfo->fd; }
  std::int64_t size() const { return file->fileInfo->size; }
  HostStatus close(bool remove, Journal* journal) const {
    OpenParameters closing = {};
    closing.removeAtClose = remove ? 1 : 0;
    return file->fileMethods->fileClose(file, &closing, journal);
  }

  OpenParameters parameters;
  HostStatus status = 0x5A5A5A5A;  // a value that the host must replace
  HostFile* file = nullptr;
};

}  // namespace qz::hostcheck
