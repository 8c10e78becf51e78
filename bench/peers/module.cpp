#include "module.h"

namespace qzbench {
namespace {

OpenSettings settingsFor(const Task& task) {
  OpenSettings settings{.path = task.path, .pageSize = task.geometry.pageSize, .readAccess = 0};
  settings.readAccess = task.sequential ? qz::readSequential : qz::readRandom;
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

std::uint32_t expectedMode(const Task& task) {
  if (!task.direct) return 0;
  return task.blockBytes == 0 ? qz::directIo : qz::directIo | qz::blockMode;
}

}  // namespace

ModulePages::ModulePages(const Task& task)
    : file_(openFile(settingsFor(task))),
      handle_(file_.handle()),
      table_(file_.table()),
      pageSize_(task.geometry.pageSize),
      flush_(task.flush) {
  if (handle_->directIoMode != expectedMode(task)) {
    throw Failure(task.path + ": the module chose another mode of I/O");
  }
}

}  // namespace qzbench
