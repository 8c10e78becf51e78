#include "newfile.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <system_error>

#include "failure.hpp"
#include "signals.hpp"
#include "text.hpp"

namespace qzpfile {
namespace {

constexpr mode_t kPermissions = S_IRWXU | S_IRWXG | S_IRWXO;
constexpr mode_t kSpecialBits = S_ISUID | S_ISGID | S_ISVTX;

std::string resolved(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(name.c_str(), nullptr), std::free);
  return real ? std::string(real.get()) : name;
}

mode_t defaultMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666U & ~mask;
}

// Limits the group's permissions to those of the others.
mode_t groupAsOthers(mode_t mode) { return mode & (~mode_t{S_IRWXG} | (mode & S_IRWXO) << 3U); }

// The most permissions that a file of this group may have. Users who cannot read, write or run the
// origin must not gain that on the new file. A member of another group may count as one of the
// others for the origin.
mode_t mostAllowed(const Origin& origin, gid_t group) {
  mode_t bits = origin.mode & 0666U;
  const bool sameGroup = origin.group == gid_t(-1) || origin.group == group;
  if (!sameGroup || origin.hasAccessList) bits = groupAsOthers(bits);
  return bits | (bits & 0444U) >> 2U;
}

std::string randomName() { return fmt::format(".qzpfile-{:08x}", std::random_device()()); }

Failure exists(const std::string& target) {
  return Failure(Exit::cannotCreate, "already exists", target)
      .tryThis("choose another name, or replace it with --force");
}

Failure notAFile(const std::string& target, mode_t mode) {
  if (S_ISDIR(mode)) {
    return Failure(Exit::cannotCreate, "is a folder", target).tryThis("name a file in that folder");
  }
  return Failure(Exit::cannotCreate, "already exists and is not a regular file", target)
      .tryThis("name a file; for a pipe or a device, unpack or cat to \"-\"");
}

}  // namespace

std::string folderOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? "." : name.substr(0, slash + 1);
}

Origin originOf(int fd) {
  struct stat info = {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return {};
  return {.mode = info.st_mode & kPermissions,
          .group = info.st_gid,
          .hasAccessList = fgetxattr(fd, "system.posix_acl_access", nullptr, 0) > 0};
}

NewFile::NewFile(const std::string& target, bool force, const Origin& origin)
    : shown_(target), origin_(origin), force_(force), mode_(defaultMode()) {
  const std::string whole = resolved(target);
  const std::string folder = folderOf(whole);
  struct stat info = {};
  if (stat(whole.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) throw notAFile(target, info.st_mode);
    if (!force_) throw exists(target);
    replaces_ = true;
    mode_ = info.st_mode & (kPermissions | kSpecialBits);
    owner_ = info.st_uid;
    group_ = info.st_gid;
  } else if (whole.empty() || whole.back() == '/') {
    throw systemFailure(Purpose::output, "cannot create", target, whole.empty() ? ENOENT : EISDIR);
  }
  name_ = whole.substr(whole.rfind('/') + 1);
  folder_ = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder_ < 0 && errno == EACCES) {
    // The folder may be writable but not readable.
    folder_ = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    canFlushFolder_ = false;
  }
  if (folder_ >= 0) make();
  if (fd_ < 0) {
    const int error = errno;
    release();
    throw systemFailure(Purpose::output, "cannot create", target, error);
  }
}

NewFile::~NewFile() { release(); }

// Sets fd_; on failure leaves the reason in errno.
void NewFile::make() {
  fd_ = openat(folder_, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd_ < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    do {
      temporary_ = randomName();
      fd_ = openat(folder_, temporary_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC,
                   S_IRUSR | S_IWUSR);
    } while (fd_ < 0 && errno == EEXIST);
    if (fd_ < 0) return temporary_.clear();
    setUnfinishedFile(folder_, temporary_.c_str());
  }
  // The module examines the file system of the folder in this path, so a file that has a name is
  // reached through its folder: NFS, which has no unnamed files, is then recognised.
  path_ = temporary_.empty() ? fmt::format("/proc/self/fd/{}", fd_)
                             : fmt::format("/proc/self/fd/{}/{}", folder_, temporary_);
}

void NewFile::release() {
  if (!temporary_.empty() && unlinkat(folder_, temporary_.c_str(), 0) != 0 && errno != ENOENT) {
    const int error = errno;
    fmt::print(stderr, "qzpfile: {}: the unfinished file {} could not be removed: {}\n",
               printable(shown_), temporary_, std::generic_category().message(error));
  }
  temporary_.clear();
  setUnfinishedFile(-1, nullptr);
  for (int* const fd : {&fd_, &folder_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void NewFile::commit() {
  settlePermissions();
  takeName();
  temporary_.clear();
  flushFolder();
  release();
}

// Keeps set-user-ID, set-group-ID and sticky bits only if the file keeps its owner and group.
void NewFile::settlePermissions() const {
  struct stat info = {};
  if (fstat(fd_, &info) != 0) {
    throw systemFailure(Purpose::output, "cannot read the permissions", shown_, errno);
  }
  mode_t mode = mode_;
  gid_t group = info.st_gid;
  if (replaces_) {
    const bool groupKept = group == group_ || fchown(fd_, uid_t(-1), group_) == 0;
    const bool ownerKept = info.st_uid == owner_ || fchown(fd_, owner_, gid_t(-1)) == 0;
    if (groupKept) group = group_;
    if (!groupKept) mode = groupAsOthers(mode);
    if (!groupKept || !ownerKept) mode &= ~kSpecialBits;
  }
  if (fchmod(fd_, mode & (kSpecialBits | mostAllowed(origin_, group))) != 0) {
    throw systemFailure(Purpose::output, "cannot set the permissions", shown_, errno);
  }
}

void NewFile::takeName() {
  const auto link = [this](const std::string& name) {
    return linkat(AT_FDCWD, path_.c_str(), folder_, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
  };
  if (!temporary_.empty()) return moveIntoPlace();
  if (link(name_)) return;
  if (errno == EEXIST && !force_) throw exists(shown_);
  if (errno != EEXIST) throw systemFailure(Purpose::output, "cannot create", shown_, errno);
  // No call replaces a name by an unnamed file, so the file gets a second name first. The program
  // must not end while the file has both names.
  const SignalsHeldBack held;
  do {
    temporary_ = randomName();
    if (link(temporary_)) return moveIntoPlace();
  } while (errno == EEXIST);
  throw systemFailure(Purpose::output, "cannot create", shown_, errno);
}

void NewFile::moveIntoPlace() const {
  const char* const from = temporary_.c_str();
  const char* const to = name_.c_str();
  int done = -1;
  if (force_) {
    done = renameat(folder_, from, folder_, to);
  } else {
    // Refuses a target that was created in the meantime.
    done = renameat2(folder_, from, folder_, to, RENAME_NOREPLACE);
    if (done != 0 && (errno == EINVAL || errno == ENOSYS)) {
      // A file system without that call: add the new name, then remove the old one.
      done = linkat(folder_, from, folder_, to, 0);
      if (done == 0) unlinkat(folder_, from, 0);
    }
  }
  if (done == 0) return;
  const int error = errno;
  if (error == EEXIST) throw exists(shown_);
  throw systemFailure(Purpose::output, "cannot create", shown_, error);
}

// The new name is durable once its folder is flushed. If the folder cannot be flushed, the whole
// file system is.
void NewFile::flushFolder() const {
  if (canFlushFolder_ && fsync(folder_) == 0) return;
  if (canFlushFolder_ && errno != EINVAL) {
    throw systemFailure(Purpose::output, "is complete, but its name may not be on disk", shown_,
                        errno)
        .tryThis("run sync, then check that the file is there");
  }
  if (syncfs(fd_) != 0) {
    throw systemFailure(Purpose::output, "is complete, but may not be on disk", shown_, errno)
        .tryThis("run sync, then verify the file");
  }
}

}  // namespace qzpfile
