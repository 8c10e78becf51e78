#include "module.h"

#include <unistd.h>

#include <algorithm>
#include <set>

namespace qzbench {
namespace {

OpenSettings settingsFor(const Task& task) {
  OpenSettings settings{.path = task.path, .pageSize = task.geometry.pageSize, .readAccess = 0};
  settings.readAccess = qz::readRandom;
  // Contestants of page mode share the pages, so that a slice may start at any of them.
  if (task.sequential)
    settings.readAccess = task.blockBytes == 0 ? qz::readOrdered : qz::readSequential;
  settings.bufferCount = task.buffers;
  settings.blockBytes = task.blockBytes;
  if (task.direct) settings.openOptions = qz::optionDirectIo;
  if (task.access == Access::append) {
    settings.readAccess = qz::noRead;
    settings.writeAccess = qz::writeNewPages;
    settings.openMode = qz::createOrReplace;
  } else if (task.access == Access::rewrite) {
    settings.readAccess = qz::readRandom;
    settings.writeAccess = qz::rewritePages;
  }
  return settings;
}

// As a C++ program opens a file.
qz::PagedFile newFileBySettings(const Task& task) {
  qz::PagedFile file = value(module().newFile());
  require(file.open(task.path, {.pageSize = task.geometry.pageSize,
                                .opening = qz::Opening::replace,
                                .writing = qz::Writing::newPages,
                                .buffers = task.buffers}));
  return file;
}

std::uint32_t expectedMode(const Task& task) {
  if (!task.direct) return 0;
  return task.blockBytes == 0 ? qz::directIo : qz::directIo | qz::blockMode;
}

}  // namespace

ModulePages::ModulePages(const Task& task)
    : file_(task.bySettings && task.access == Access::append ? newFileBySettings(task)
                                                             : openFile(settingsFor(task))),
      handle_(file_.handle()),
      table_(file_.table()),
      pageSize_(task.geometry.pageSize),
      flush_(task.flush) {
  if (handle_->directIoMode != expectedMode(task)) {
    throw Failure(task.path + ": the module chose another mode of I/O");
  }
}

std::size_t buffersInTurn(const Task& task) {
  Task trial = task;
  if (task.access == Access::append) trial.path += ".trial";
  const std::int64_t pagesPerBlock = std::max(task.blockBytes / task.geometry.pageSize, 1);
  // A file's first transfers go to one empty buffer after the other.
  const std::int64_t first = (std::int64_t{task.buffers} + 1) * pagesPerBlock;
  std::set<const char*> places;
  {
    ModulePages pages(trial);
    for (std::int64_t page = 1; page <= std::min(task.geometry.pages, 2 * first); ++page) {
      const char* at = nullptr;
      switch (task.access) {
        case Access::read:
          at = pages.read(page) - (page - 1) % pagesPerBlock * task.geometry.pageSize;
          pages.returnPage();
          break;
        case Access::append:
          at = pages.fresh(page);
          pages.write(page);
          break;
        case Access::rewrite:
          at = pages.readToChange(page);
          pages.write(page);
          break;
      }
      if (page > first) places.insert(at);
    }
  }
  if (task.access == Access::append) unlink(trial.path.c_str());
  return places.size();
}

}  // namespace qzbench
