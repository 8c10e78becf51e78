// Promises about the file service.
#include "files.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qz::hostcheck {
namespace {

constexpr HostStatus kFileNotFound = 0x80FFE006;
constexpr HostStatus kIsDirectory = 0x80FFE009;
constexpr HostStatus kBadName = 0x80FFE00A;
constexpr HostStatus kNoDescriptor = 0x80FFE00B;
constexpr HostStatus kNotRemoved = 0x80FFE00D;
constexpr HostStatus kLocked = 0x80FFE00F;
constexpr HostStatus kUnsupportedFile = 0x80FFE015;

constexpr std::int64_t kBeyond4GiB = std::int64_t{9} << 29;  // 4.5 GiB
constexpr const char* kRefusesDirectIo = "/proc/version";

std::string pathOf(const Trial& trial, const char* name) {
  std::string path = trial.folder + "/" + name;
  needed(std::ranges::all_of(path, [](char c) { return c > 0; }), "the folder's name is not ASCII");
  return path;
}

// Makes a file of `bytes` bytes, mostly a hole, without the host.
std::u32string makeFile(const Trial& trial, const char* name, std::int64_t bytes) {
  const std::string path = pathOf(trial, name);
  const int fd = open64(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666);
  const bool made = fd != -1 && ftruncate64(fd, bytes) == 0 &&
                    (bytes < 5 || pwrite64(fd, "first", 5, 0) == 5) && close(fd) == 0;
  needed(made,
         "no file of " + std::to_string(bytes) + " bytes can be made: " + std::strerror(errno));
  return wide(path);
}

bool exists(const std::u32string& name) { return access(narrow(name).c_str(), F_OK) == 0; }

Opened mustOpen(const Trial& trial, const std::u32string& name, std::uint32_t flags,
                std::uint32_t accessMode, std::uint32_t permissions = 0666) {
  Opened opened(trial, name, flags, accessMode, permissions);
  needed(static_cast<bool>(opened), "the host does not open a file: status " + hex(opened.status));
  return opened;
}

std::string descriptionOf(const Opened& opened) {
  return std::string(opened ? "a host file" : "null") + " and status " + hex(opened.status);
}

void statusAndFileAgree(const Trial& trial) {
  const std::u32string name = makeFile(trial, "file", 100);
  const Opened good(trial, name, openflag::readWrite, kExclusive);
  promised(good && good.status == 0, "fileOpen of a file gives " + descriptionOf(good));
  const Opened absent(trial, wide(pathOf(trial, "absent")), openflag::readOnly, kShared);
  promised(!absent && absent.status != 0 && absent.status != 0x5A5A5A5A,
           "fileOpen of a missing file gives " + descriptionOf(absent));
}

void filesAreOpenedAsAsked(const Trial& trial) {
  const std::u32string name = makeFile(trial, "file", 100);
  for (const std::uint32_t flags : {openflag::readOnly, openflag::writeOnly, openflag::readWrite,
                                    openflag::readWrite | openflag::create}) {
    const std::uint32_t mode = flags == openflag::readOnly ? kReadUnlocked : kWriteUnlocked;
    const Opened opened = mustOpen(trial, name, flags, mode);
    const int found = fcntl(opened.fd(), F_GETFL) & O_ACCMODE;
    promised(found == static_cast<int>(flags & O_ACCMODE),
             "open flags " + hex(flags) + " give a descriptor with " + hex(unsigned(found)));
    struct stat64 about {};
    promised(fstat64(opened.fd(), &about) == 0 && about.st_size == 100,
             "open flags " + hex(flags) + " change the size of a file");
  }
  umask(0);
  for (const std::uint32_t permissions : {0666U, 0640U}) {
    const std::string path = pathOf(trial, permissions == 0666 ? "all" : "some");
    mustOpen(trial, wide(path), openflag::readWrite | openflag::create, kExclusive, permissions);
    struct stat64 about {};
    needed(stat64(path.c_str(), &about) == 0, "a new file does not exist");
    promised((about.st_mode & 07777) == permissions, "a new file has permissions " +
                                                         hex(about.st_mode & 07777) +
                                                         " instead of " + hex(permissions));
  }
}

void descriptorsReachEverywhere(const Trial& trial) {
  const Opened opened =
      mustOpen(trial, makeFile(trial, "file", 100), openflag::readWrite, kExclusive);
  const int fd = opened.fd();
  char data[8] = "";
  promised(read(fd, data, 5) == 5 && std::memcmp(data, "first", 5) == 0,
           "the first read of a descriptor does not begin at offset 0");
  promised(pwrite64(fd, "far", 3, kBeyond4GiB) == 3,
           std::string("pwrite beyond 4 GiB fails: ") + std::strerror(errno));
  promised(pread64(fd, data, 3, kBeyond4GiB) == 3 && std::memcmp(data, "far", 3) == 0,
           "pread beyond 4 GiB does not return what was written");
  iovec vector[] = {{data, 2}, {data + 2, 1}};
  promised(lseek64(fd, kBeyond4GiB, SEEK_SET) == kBeyond4GiB && readv(fd, vector, 2) == 3,
           "lseek and readv beyond 4 GiB fail");
  promised(fsync(fd) == 0, std::string("fsync fails: ") + std::strerror(errno));
  promised(ftruncate64(fd, 50) == 0, std::string("ftruncate fails: ") + std::strerror(errno));
}

void sizesAreToldWhole(const Trial& trial) {
  for (const std::int64_t bytes : {std::int64_t{0}, std::int64_t{100}, kBeyond4GiB}) {
    const Opened opened =
        mustOpen(trial, makeFile(trial, "file", bytes), openflag::readOnly, kReadUnlocked);
    promised(fcntl(opened.fd(), F_GETFD) != -1, "fileInfo has no open descriptor");
    promised(opened.size() == bytes, "fileInfo says " + std::to_string(opened.size()) +
                                         " for a file of " + std::to_string(bytes) + " bytes");
  }
}

void failuresHaveTheirErrorNumber(const Trial& trial) {
  const Opened absent(trial, wide(pathOf(trial, "absent")), openflag::readOnly, kShared);
  needed(!absent, "a missing file was opened");
  promised(absent.parameters.systemErrno == ENOENT,
           "a missing file gives error number " + std::to_string(absent.parameters.systemErrno) +
               " instead of 2");
  const Opened good =
      mustOpen(trial, makeFile(trial, "file", 100), openflag::readWrite, kExclusive);
  promised(good.parameters.systemErrno == 0,
           "a success leaves error number " + std::to_string(good.parameters.systemErrno));
}

// False if the system accepts direct I/O for that file.
bool isDirectIoRefused() {
  const int fd = open64(kRefusesDirectIo, O_RDONLY | O_DIRECT);
  const int error = errno;
  if (fd != -1) close(fd);
  return fd == -1 && error == EINVAL;
}

void refusedDirectIoIsTold(const Trial& trial) {
  needed(isDirectIoRefused(), "no file here refuses direct I/O");
  const Opened direct(trial, wide(kRefusesDirectIo), openflag::readOnly | openflag::direct,
                      kReadUnlocked);
  promised(!direct && direct.parameters.systemErrno == EINVAL,
           "a file that refuses direct I/O gives " + descriptionOf(direct) + ", error number " +
               std::to_string(direct.parameters.systemErrno));
}

void reopensKeepTheFile(const Trial& trial) {
  const std::u32string name = makeFile(trial, "file", 100);
  const Opened opened = mustOpen(trial, name, openflag::readWrite, kExclusive);
  OpenParameters parameters = parametersFor(name, openflag::readOnly);
  HostFile* const file = opened.file;
  const HostStatus status =
      file->fileMethods->fileReopen(file, &parameters, kShared, trial.journal);
  promised(status == 0, "fileReopen of a file returns " + hex(status));
  char data[5];
  promised((fcntl(opened.fd(), F_GETFL) & O_ACCMODE) == O_RDONLY &&
               pread64(opened.fd(), data, 5, 0) == 5 && opened.size() == 100,
           "after fileReopen the host file does not have a descriptor with the new flags");
  if (!isDirectIoRefused()) return;
  const std::u32string refusing = wide(kRefusesDirectIo);
  const Opened stays = mustOpen(trial, refusing, openflag::readOnly, kReadUnlocked);
  const FileInfo before = *stays.file->fileInfo;
  OpenParameters direct = parametersFor(refusing, openflag::readOnly | openflag::direct);
  needed(stays.file->fileMethods->fileReopen(stays.file, &direct, kReadUnlocked, nullptr) != 0,
         "fileReopen accepted direct I/O that the system refuses");
  promised(stays.fd() == before.fd && stays.size() == before.size &&
               pread64(stays.fd(), data, 5, 0) == 5,
           "a failed fileReopen changed the host file");
}

void closesEndTheFile(const Trial& trial) {
  const std::u32string name = makeFile(trial, "file", 100);
  const Opened kept = mustOpen(trial, name, openflag::readWrite, kExclusive);
  const int fd = kept.fd();
  HostStatus status = kept.close(false, trial.journal);
  promised(status == 0, "fileClose returns " + hex(status));
  promised(fcntl(fd, F_GETFD) == -1, "the descriptor is open after fileClose");
  promised(exists(name), "fileClose removes a file that was to stay");
  status = mustOpen(trial, name, openflag::readWrite, kExclusive).close(true, trial.journal);
  promised(status == 0 && !exists(name), "fileClose with remove at close returns " + hex(status) +
                                             (exists(name) ? " and leaves the file" : ""));
  // A folder takes the file's name, so it cannot be removed as a file.
  const std::u32string other = makeFile(trial, "other", 100);
  const Opened stuck = mustOpen(trial, other, openflag::readWrite, kExclusive);
  const std::string path = narrow(other);
  needed(rename(path.c_str(), (path + "-moved").c_str()) == 0 && mkdir(path.c_str(), 0777) == 0,
         "no folder can be made");
  status = stuck.close(true, trial.journal);
  promised(status == kNotRemoved,
           "fileClose of a file that cannot be removed returns " + hex(status));
  status = stuck.close(false, trial.journal);
  promised(status == 0, "a file that could not be removed cannot be closed: " + hex(status));
}

void failuresAreReported(const Trial& trial) {
  const std::u32string name = wide(pathOf(trial, "absent"));
  const Opened unheard(trial, name, openflag::readOnly, kShared, 0666, nullptr);
  const std::size_t before = trial.entries().size();
  const Opened absent(trial, name, openflag::readOnly, kShared);
  needed(!unheard && !absent, "a missing file was opened");
  const std::vector<std::string> entries = trial.entries();
  promised(entries.size() > before && entries.back().find(narrow(name)) != std::string::npos,
           "a failed open has no entry with the file's name");
  if (!isDirectIoRefused()) return;
  const Opened direct(trial, wide(kRefusesDirectIo), openflag::readOnly | openflag::direct,
                      kReadUnlocked);
  promised(trial.entries().size() == entries.size(),
           "direct I/O that the file system refuses is reported: " + trial.entries().back());
}

struct Cause {
  const char* what;
  std::string name;
  std::uint32_t flags;
  HostStatus wanted;
};

void statusesHaveTheirMeaning(const Trial& trial) {
  const std::u32string file = makeFile(trial, "file", 100);
  const std::string loop = pathOf(trial, "loop");
  const std::string pipe = pathOf(trial, "pipe");
  needed(symlink(loop.c_str(), loop.c_str()) == 0 && mkfifo(pipe.c_str(), 0666) == 0,
         "no link or pipe can be made");
  const Cause causes[] = {
      {"a missing file", pathOf(trial, "absent"), openflag::readOnly, kFileNotFound},
      {"a folder on the way that is a file", pathOf(trial, "file/x"), 0, kFileNotFound},
      {"a folder", trial.folder, openflag::readWrite, kIsDirectory},
      {"no name", "", openflag::readOnly, kBadName},
      {"a name that is too long", pathOf(trial, std::string(300, 'x').c_str()), 0, kBadName},
      {"a loop of links", loop, openflag::readOnly, kBadName},
      {"a pipe", pipe, openflag::readWrite, kUnsupportedFile},
  };
  for (const Cause& cause : causes) {
    const std::uint32_t mode = cause.flags == 0 ? kReadUnlocked : kWriteUnlocked;
    const Opened opened(trial, wide(cause.name), cause.flags, mode);
    promised(opened.status == cause.wanted, std::string(cause.what) + " gives status " +
                                                hex(opened.status) + " instead of " +
                                                hex(cause.wanted));
  }
  const int highest = dup(0);
  const auto descriptors = static_cast<rlim_t>(highest);
  const rlimit none = {descriptors, descriptors};
  needed(highest != -1 && close(highest) == 0 && setrlimit(RLIMIT_NOFILE, &none) == 0,
         "the number of descriptors cannot be limited");
  const Opened starved(trial, file, openflag::readOnly, kReadUnlocked);
  promised(starved.status == kNoDescriptor, "a process without descriptors gives status " +
                                                hex(starved.status) + " instead of " +
                                                hex(kNoDescriptor));
}

void locksKeepOthersOut(const Trial& trial) {
  const std::u32string name = makeFile(trial, "file", 100);
  mustOpen(trial, name, openflag::readOnly, kShared);
  promised(bool(Opened(trial, name, openflag::readOnly, kShared)),
           "two shared opens exclude each other");
  HostStatus status = Opened(trial, name, openflag::readWrite, kExclusive).status;
  promised(status == kLocked, "an exclusive open beside shared ones gives status " + hex(status));
  promised(bool(Opened(trial, name, openflag::readWrite, kWriteUnlocked)),
           "an open without a lock is kept out by shared ones");
  const std::u32string other = makeFile(trial, "other", 100);
  const Opened writer = mustOpen(trial, other, openflag::readWrite, kExclusive);
  status = Opened(trial, other, openflag::readOnly, kShared).status;
  promised(status == kLocked, "a shared open beside an exclusive one gives status " + hex(status));
  needed(writer.close(false, trial.journal) == 0, "the file cannot be closed");
  promised(bool(Opened(trial, other, openflag::readWrite, kExclusive)),
           "a lock outlives the close of its file");
}

constexpr Check kChecks[] = {
    {37, "fileOpen sets the status that fits its result", statusAndFileAgree},
    {38, "files are opened as asked, and keep their size", filesAreOpenedAsAsked},
    {39, "descriptors begin at 0 and reach beyond 4 GiB", descriptorsReachEverywhere},
    {40, "fileInfo has the descriptor and the size", sizesAreToldWhole},
    {41, "a failure has its error number, a success has 0", failuresHaveTheirErrorNumber},
    {42, "error number 22 means that direct I/O is refused", refusedDirectIoIsTold},
    {43, "fileReopen keeps the host file", reopensKeepTheFile},
    {44, "fileClose ends the host file, and removes when asked", closesEndTheFile},
    {45, "the host reports failed opens, with the file's name", failuresAreReported},
    {46, "statuses of the file service have their meanings", statusesHaveTheirMeaning},
    {48, "locks exclude other opens", locksKeepOthersOut},
};

}  // namespace

std::span<const Check> fileChecks() { return kChecks; }

}  // namespace qz::hostcheck
