// Reads random pages of a file in memory, changes them and writes them back. No disk is used: the
// system would write pages back while others are being changed.
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
    // The place of a file in memory affects the times, so participants that can share a file do.
    const std::string shared = run.memory().stampedCopy(geometry, "rewritten");
    task.path = shared;
    task.ring = buffersInTurn(task);
    const auto progress = std::make_shared<Progress>();
    std::vector<std::string> files = {shared};
    Contest contest;
    const auto add = [&]<class Store>(const char* name) {
      task.path = shared;
      if constexpr (Store::kRawPages) {
        contest.participants.push_back(rewriter<Store>(name, task, order, progress));
      } else {
        task.path = ownCopy<Store>(run.memory(), geometry, fmt::format("rewritten by {}", name));
        files.push_back(task.path);
        contest.participants.push_back(
            rewriter<Store>(name, task, order, std::make_shared<Progress>()));
      }
    };
    contest.work = "page mode, read + change + write";
    contest.variant = fmt::format("{} B pages, random, in memory", pageSize);
    if (pageSize == kPlotPageSize) contest.plotLabel = "rewrite random pages";
    add.operator()<BarePages>("pread + pwrite");
    add.operator()<ModulePages>("qziop");
    eachWriter(add);
    contest.goals = {{Quantity::wall, "qziop", "pread + pwrite", 1.05}};
    run.hold(contest);
    for (const std::string& file : files) unlink(file.c_str());
  }
}

}  // namespace qzbench
