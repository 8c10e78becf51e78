// qzpfile rm FILE: removes a paged file.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "commands.hpp"
#include "newfile.hpp"
#include "report.hpp"

namespace qzpfile {
namespace {

// In a sticky folder only the owner of a file or of the folder may remove it.
bool isHeldByAnother(const std::string& name) {
  struct stat file = {};
  struct stat folder = {};
  return lstat(name.c_str(), &file) == 0 && stat(folderOf(name).c_str(), &folder) == 0 &&
         (folder.st_mode & S_ISVTX) != 0 && file.st_uid != geteuid() && folder.st_uid != geteuid();
}

// The module does not keep the reason why a file could not be removed.
int reasonNotRemoved(const std::string& name) {
  for (const std::string& path : {name, folderOf(name)}) {
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) return errno;
  }
  return isHeldByAnother(name) ? EPERM : 0;
}

}  // namespace

Exit runRm(const Invocation& call) {
  Session session(call.modulePath, call.verbose);
  examine(session, call.first, rawGeometry(call));
  qz::PagedFile file = session.newFile(call.first, Purpose::input);
  if (const auto removed = file.remove(); !removed) {
    qz::Error error = removed.error();
    if (error.errorNumber == 0) error.errorNumber = reasonNotRemoved(call.first);
    throw moduleFailure(Purpose::input, "cannot remove", call.first, error);
  }
  reportResult(call, Exit::good, "rm", call.first, "removed", {});
  return Exit::good;
}

}  // namespace qzpfile
