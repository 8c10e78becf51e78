// qzpfile rm FILE.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>

#include "commands.hpp"
#include "newfile.hpp"

namespace qzpfile {
namespace {

// The module does not keep the reason why a file could not be removed.
int reasonNotRemoved(const std::string& name) {
  for (const std::string& path : {name, folderOf(name)}) {
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) != 0) return errno;
  }
  return 0;
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
  fmt::print("{}: removed\n", call.first);
  return Exit::good;
}

}  // namespace qzpfile
