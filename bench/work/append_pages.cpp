// Append pages to a new file: fill a buffer, then write it.
#include "../peers/bare.h"
#include "../peers/module.h"
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {

void appendPages(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
    Task task{Access::append, geometry, run.memory().file("appended"), true};
    task.ring = buffersInTurn(task);
    Contest contest;
    contest.whole = true;
    contest.work = "page mode, open + (acquire + fill + write) + close";
    contest.variant =
        fmt::format("{} B pages, {} MiB in memory", pageSize, geometry.bytes() >> 20U);
    if (pageSize == kPlotPageSize) contest.plotLabel = "append pages";
    contest.participants = {appender<BarePages>("pwrite", task),
                            appender<ModulePages>("qziop", task)};
    contest.goals = {{Quantity::wall, "qziop", "pwrite", 1.10}};
    eachWriter([&]<class Store>(const char* name) {
      contest.participants.push_back(appender<Store>(name, task));
    });
    run.hold(contest);
  }
}

}  // namespace qzbench
