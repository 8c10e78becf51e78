// Appends pages that are collected into whole blocks, past the page cache; without a flush, and
// with one at the end.
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
      task.ring = buffersInTurn(task);
      Contest contest;
      contest.whole = true;
      contest.work = "block mode, open + (acquire + fill + write) + close";
      contest.variant = fmt::format("{} B pages, {} MiB past the page cache{}", pageSize,
                                    geometry.bytes() >> 20U, flush ? ", flushed" : "");
      if (pageSize == kPlotPageSize) {
        contest.plotLabel = flush ? "append in blocks, flushed" : "append in blocks";
      }
      contest.participants = {appender<BareBlocks>("gather + pwrite", task),
                              appender<ModulePages>("qziop", task)};
      contest.goals = {{Quantity::wall, "qziop", "gather + pwrite", 1.10}};
      run.hold(contest);
    }
  }
}

}  // namespace qzbench
