#include "descriptors.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <vector>

namespace qzvfs {
namespace {

struct Parked {
  qz::HostFile* file;
  Identity identity;
  std::uint32_t openFlags;
};

struct Registry {
  std::mutex mutex;
  qz::FileService* service = nullptr;
  decltype(qz::FileService::fileOpen) hostOpen = nullptr;
  qz::FileMethods* hostMethods = nullptr;  // set when the first file is opened
  qz::FileMethods methods = {};
  std::vector<Parked> open;    // used by the module
  std::vector<Parked> parked;  // closed by the module
  std::vector<Identity> users;
};

// Never destroyed: databases may be closed while the program exits.
Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

thread_local const Identity* expected = nullptr;

Identity identityOf(const struct stat& about) { return {about.st_dev, about.st_ino}; }

// Whether this process may have an fcntl lock on the file. Locks of open file descriptions exclude
// locks of processes, so a query finds even the process's own locks. A lock of another process may
// hide them, so any lock counts.
bool mayBeLockedHere(int fd) {
  struct flock wanted = {};
  wanted.l_type = F_WRLCK;
  wanted.l_whence = SEEK_SET;
  return fcntl(fd, F_OFD_GETLK, &wanted) != 0 || wanted.l_type != F_UNLCK;
}

void closeNow(Registry& all, qz::HostFile* file) {
  qz::OpenParameters parameters = {};
  all.hostMethods->fileClose(file, &parameters, nullptr);
}

// Closes parked descriptors of files that no database uses and nobody locks.
void sweep(Registry& all) {
  std::erase_if(all.parked, [&](const Parked& one) {
    const bool used = std::ranges::find(all.users, one.identity) != all.users.end();
    if (used || mayBeLockedHere(one.file->fileInfo->fd)) return false;
    closeNow(all, one.file);
    return true;
  });
}

qz::HostStatus park(qz::HostFile* file, qz::OpenParameters* /*parameters*/,
                    qz::Journal* /*journal*/) noexcept {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  const auto place =
      std::ranges::find_if(all.open, [&](const Parked& one) { return one.file == file; });
  all.parked.push_back(*place);  // openOrTake reserved the room
  all.open.erase(place);
  return qz::hostOk;
}

qz::HostFile* takeParked(Registry& all, std::uint32_t openFlags) {
  if (expected == nullptr) return nullptr;
  const auto place = std::ranges::find_if(all.parked, [&](const Parked& one) {
    return one.identity == *expected && one.openFlags == openFlags;
  });
  if (place == all.parked.end()) return nullptr;
  struct stat about = {};
  qz::HostFile* const file = place->file;
  if (fstat(file->fileInfo->fd, &about) != 0) return nullptr;
  file->fileInfo->size = about.st_size;
  all.open.push_back(*place);
  all.parked.erase(place);
  return file;
}

qz::HostFile* openOrTake(qz::FileService* service, qz::OpenParameters* parameters, qz::Word one,
                         std::uint32_t accessMode, qz::Journal* journal,
                         qz::HostStatus* status) noexcept try {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  all.open.reserve(all.open.size() + 1);
  all.parked.reserve(all.parked.size() + all.open.size() + 1);
  *status = qz::hostOk;
  parameters->systemErrno = 0;
  if (qz::HostFile* file = takeParked(all, parameters->openFlags)) return file;
  qz::HostFile* const file = all.hostOpen(service, parameters, one, accessMode, journal, status);
  if (file == nullptr) return nullptr;
  struct stat about = {};
  fstat(file->fileInfo->fd, &about);  // cannot fail: the host has just done the same
  all.hostMethods = file->fileMethods;
  all.methods.fileReopen = file->fileMethods->fileReopen;
  file->fileMethods = &all.methods;
  all.open.push_back({file, identityOf(about), parameters->openFlags});
  return file;
} catch (const std::bad_alloc&) {
  *status = qz::hostNoMemory;
  return nullptr;
}

}  // namespace

bool identify(int fd, Identity* identity) {
  struct stat about = {};
  if (fstat(fd, &about) != 0) return false;
  *identity = identityOf(about);
  return true;
}

bool identify(const char* path, Identity* identity) {
  struct stat about = {};
  if (stat(path, &about) != 0) return false;
  *identity = identityOf(about);
  return true;
}

void parkDescriptors(qz::StandInHost& host) {
  Registry& all = registry();
  all.service = host.handle()->fileService;
  all.hostOpen = all.service->fileOpen;
  all.methods.fileClose = park;
  all.service->fileOpen = openOrTake;
}

Expecting::Expecting(const Identity& identity) { expected = &identity; }
Expecting::~Expecting() { expected = nullptr; }

void enterFile(const Identity& identity) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  all.users.push_back(identity);
}

void leaveFile(const Identity& identity) {
  Registry& all = registry();
  const std::lock_guard lock(all.mutex);
  const auto place = std::ranges::find(all.users, identity);
  if (place != all.users.end()) all.users.erase(place);
  sweep(all);
}

}  // namespace qzvfs
