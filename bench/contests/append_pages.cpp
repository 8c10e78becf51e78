// Appends pages to a new file, from its open to its close: fills a buffer, then writes it.
#include "../peers/bare.h"
#include "../peers/module.h"
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {
namespace {

Contest contestOf(const Task& task, const char* place) {
  const Geometry& geometry = task.geometry;
  Contest contest;
  contest.whole = true;
  contest.work = "page mode, open + (acquire + fill + write) + close";
  contest.variant =
      fmt::format("{} B pages, {} MiB {}", geometry.pageSize, geometry.bytes() >> 20U, place);
  contest.participants = {appender<BarePages>("pwrite", task),
                          appender<ModulePages>("qziop", task)};
  contest.goals = {{Quantity::wall, "qziop", "pwrite", 1.10}};
  return contest;
}

}  // namespace

void appendPages(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
    Task task{Access::append, geometry, run.memory().file("appended"), true};
    task.ring = buffersInTurn(task);
    Contest contest = contestOf(task, "in memory");
    if (pageSize == kPlotPageSize) contest.plotLabel = "append pages";
    eachWriter([&]<class Store>(const char* name) {
      contest.participants.push_back(appender<Store>(name, task));
    });
    run.hold(contest);
  }
  // Deleted before the system writes the file back, so that the disk's time does not count.
  constexpr std::int64_t kDiskBytes = 8 << 20;
  Task task{Access::append,
            {kPlotPageSize, kDiskBytes / kPlotPageSize},
            run.disk().file("appended"),
            true};
  task.bySettings = true;
  task.ring = buffersInTurn(task);
  Contest contest = contestOf(task, "in the page cache of a disk");
  contest.plotLabel = "append pages, disk";
  run.hold(contest);
}

}  // namespace qzbench
