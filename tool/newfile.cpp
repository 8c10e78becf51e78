#include "newfile.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "failure.hpp"
#include "signals.hpp"

namespace qzpfile {
namespace {

std::string resolved(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> real(realpath(name.c_str(), nullptr), std::free);
  return real ? std::string(real.get()) : name;
}

unsigned defaultMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666U & ~mask;
}

Failure exists(const std::string& target) {
  return Failure(Exit::cannotCreate, "exists already", target)
      .tryThis("choose another name, or replace it with --force");
}

}  // namespace

std::string folderOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  return slash == std::string::npos ? "." : name.substr(0, slash + 1);
}

NewFile::NewFile(const std::string& target, bool force)
    : shown_(target),
      target_(resolved(target)),
      folder_(folderOf(target_)),
      temporary_(folder_ + "/.qzpfile-XXXXXX"),
      force_(force),
      mode_(defaultMode()) {
  struct stat info = {};
  if (target_.empty() || target_.back() == '/') {
    throw systemFailure(Purpose::output, "cannot create", target,
                        target_.empty() ? ENOENT : EISDIR);
  }
  if (stat(target_.c_str(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) {
      throw Failure(Exit::cannotCreate, "is there already and is not a regular file", target)
          .tryThis("name a file; for a pipe or a device, unpack or cat to \"-\"");
    }
    if (!force_) throw exists(target);
    mode_ = info.st_mode & 07777U;
  }
  fd_ = mkostemp(temporary_.data(), O_CLOEXEC);
  if (fd_ < 0) {
    throw systemFailure(Purpose::output, "cannot create", target, errno);
  }
  setUnfinishedFile(temporary_.c_str());
}

NewFile::~NewFile() {
  if (fd_ >= 0) {
    if (unlink(temporary_.c_str()) != 0 && errno != ENOENT) {
      const int error = errno;
      fmt::print(stderr, "qzpfile: {}: the unfinished file {} could not be removed: {}\n", shown_,
                 temporary_, std::generic_category().message(error));
    }
    setUnfinishedFile(nullptr);
    close(fd_);
  }
}

void NewFile::commit() {
  if (fchmod(fd_, mode_) != 0) {
    throw systemFailure(Purpose::output, "cannot set the permissions of", shown_, errno);
  }
  rename();
  setUnfinishedFile(nullptr);
  close(fd_);
  fd_ = -1;
  // The new name lasts once its folder is on disk. Some file systems have no such call: nothing
  // is lost by going on.
  if (const int folder = open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); folder >= 0) {
    fsync(folder);
    close(folder);
  }
}

void NewFile::rename() const {
  const char* const from = temporary_.c_str();
  const char* const to = target_.c_str();
  int done = -1;
  if (force_) {
    done = std::rename(from, to);
  } else {
    // Refuses a target that came into being meanwhile.
    done = renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
    if (done != 0 && (errno == EINVAL || errno == ENOSYS)) {
      // A file system without that call: a second name, then away with the first.
      done = link(from, to);
      if (done == 0) unlink(from);
    }
  }
  if (done != 0 && errno == EEXIST) throw exists(shown_);
  if (done != 0) throw systemFailure(Purpose::output, "cannot create", shown_, errno);
}

}  // namespace qzpfile
