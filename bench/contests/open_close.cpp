// Opens a file for reading and closes it.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

// The system calls that every open needs.
Sample bareOpens(const std::string& path, const std::string& folder, int flags, std::size_t opens) {
  return timed(opens, [&] {
    for (std::size_t i = 0; i < opens; ++i) {
      struct statfs system = {};
      struct stat facts = {};
      if (statfs(folder.c_str(), &system) != 0) failWithErrno(folder);
      const int fd = open(path.c_str(), flags | O_CLOEXEC);
      if (fd == -1 || fstat(fd, &facts) != 0 || close(fd) != 0) failWithErrno(path);
    }
  });
}

Sample moduleOpens(const std::string& path, std::int32_t pageSize, std::uint32_t options,
                   std::size_t opens) {
  return timed(opens, [&] {
    for (std::size_t i = 0; i < opens; ++i) {
      qz::PagedFile file = openFile({.path = path,
                                     .pageSize = pageSize,
                                     .readAccess = qz::readSequential,
                                     .openOptions = options});
      require(file.close());
    }
  });
}

}  // namespace

void openAndClose(Runner& run) {
  constexpr std::int32_t kPageSize = 4096;
  const std::string path = run.disk().stamped({kPageSize, run.settings().warmBytes / kPageSize});
  for (const bool block : {false, true}) {
    Contest contest;
    contest.work = "open + close";
    contest.variant = fmt::format("4 buffers, {} mode", block ? "block" : "page");
    contest.plotLabel = block ? "open + close, block mode" : "open + close, page mode";
    const int flags = block ? O_RDONLY | O_DIRECT : O_RDONLY;
    const std::uint32_t options = block ? qz::optionDirectIo : 0U;
    contest.participants = {{"statfs, open, fstat, close",
                             [path, folder = run.disk().path(), flags](std::size_t opens) {
                               return bareOpens(path, folder, flags, opens);
                             }},
                            {"qziop", [path, options](std::size_t opens) {
                               return moduleOpens(path, kPageSize, options, opens);
                             }}};
    contest.goals = {{Quantity::wall, "qziop", contest.participants[0].name, 2.0}};
    run.hold(contest);
  }
}

}  // namespace qzbench
