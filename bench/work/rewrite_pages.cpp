// Read random pages of a warm file, change them and write them back.
#include "../peers/bare.h"
#include "../peers/module.h"
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {

void rewritePages(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
    const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, false));
    Task task{Access::rewrite, geometry, "", false};
    // A written buffer goes to the end of the line: the module takes all of its buffers in turn.
    task.ring = static_cast<std::size_t>(task.buffers) + 1;
    // Where a file lies in memory makes a difference: those who can share one file.
    const std::string shared = run.disk().stampedCopy(geometry, "rewritten");
    const auto sharedVersion = std::make_shared<std::int64_t>(0);
    std::vector<std::string> files = {shared};
    Contest contest;
    const auto add = [&]<class Store>(const char* name) {
      task.path = shared;
      if constexpr (Store::kRawPages) {
        contest.participants.push_back(rewriter<Store>(name, task, order, sharedVersion));
      } else {
        task.path = ownCopy<Store>(run.disk(), geometry, fmt::format("rewritten by {}", name));
        files.push_back(task.path);
        contest.participants.push_back(
            rewriter<Store>(name, task, order, std::make_shared<std::int64_t>(0)));
      }
    };
    contest.work = "page mode, read + change + write";
    contest.variant = fmt::format("{} B pages, random", pageSize);
    if (pageSize == kPlotPageSize) contest.plotLabel = "rewrite random pages";
    add.operator()<BarePages>("pread + pwrite");
    add.operator()<ModulePages>("qziop");
    eachWriter(add);
    contest.goals = {{Quantity::wall, "qziop", "pread + pwrite", 1.05}};
    run.hold(contest, 7);
    for (const std::string& file : files) unlink(file.c_str());
  }
}

}  // namespace qzbench
