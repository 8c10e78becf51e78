// Reads random pages past the page cache, one page per call.
#include <fmt/format.h>

#include "../peers/bare.h"
#include "../peers/module.h"
#include "work.h"

namespace qzbench {

void readDirectPages(Runner& run) {
  constexpr std::int32_t kAlignment = 4096;
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    // The pool aligns smaller pages to less than a disk requires.
    if (pageSize % kAlignment != 0) continue;
    const Geometry geometry = {pageSize, run.settings().warmBytes * 4 / pageSize};
    const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, false));
    Task task{Access::read, geometry, run.disk().stamped(geometry, true), false};
    task.direct = true;
    task.ring = buffersInTurn(task);
    Contest contest;
    contest.work = "direct page mode, read + return";
    contest.variant = fmt::format("{} B pages, random from the disk", pageSize);
    if (pageSize == kPlotPageSize) contest.plotLabel = "read random pages from the disk";
    contest.participants = {reader<BarePages>("O_DIRECT pread", task, order),
                            reader<ModulePages>("qziop", task, order)};
    contest.goals = {{Quantity::readCalls, "qziop", "", 1},
                     {Quantity::cpu, "qziop", "O_DIRECT pread", 1.05}};
    run.hold(contest);
    run.disk().drop(geometry);
  }
}

}  // namespace qzbench
