// qzWait: lets a task of the host wait.
#include "qzhost.h"

namespace {

qz::Task* resolve(qz::Task* task) {
  qz::QZHandle* host = Exported_QZHandle;
  if (task != nullptr && static_cast<void*>(task) != static_cast<void*>(host)) return task;
  if (host == nullptr) return nullptr;
  qz::Task* current = host->currentTask(host);
  return current != nullptr ? current : host->mainTask;
}

}  // namespace

qz::HostStatus qzWait(qz::Task* task, qz::Word a1, qz::Word a2, qz::Word a3, std::uint8_t flag,
                      std::uint32_t waitTime) noexcept {
  qz::Task* waiter = resolve(task);
  if (waiter == nullptr) return qz::kNoTask;
  return waiter->taskWait(waiter, a1, a2, a3, flag, waitTime);
}
