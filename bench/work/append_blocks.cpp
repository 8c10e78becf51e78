// Append pages that are gathered into whole blocks, past the page cache; without a flush and with
// one at the end.
#include <fmt/format.h>

#include "../peers/bare.h"
#include "../peers/module.h"
#include "work.h"

namespace qzbench {

void appendBlocks(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    for (const bool flush : {false, true}) {
      const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
      Task task{Access::append, geometry, run.disk().file("appended"), true};
      task.direct = true;
      task.flush = flush;
      task.blockBytes = 256 << 10;
      Contest contest;
      contest.work = "block mode, acquire + fill + write";
      contest.variant = fmt::format("{} B pages, appended past the page cache{}", pageSize,
                                    flush ? ", flushed" : "");
      if (pageSize == kPlotPageSize) {
        contest.plotLabel = flush ? "append in blocks, flushed" : "append in blocks";
      }
      contest.participants = {appender<BareBlocks>("gather + pwrite", task),
                              appender<ModulePages>("qziop", task)};
      contest.goals = {{Quantity::wall, "qziop", "gather + pwrite", 1.05}};
      run.hold(contest);
    }
  }
}

}  // namespace qzbench
