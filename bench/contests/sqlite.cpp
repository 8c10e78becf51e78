// SQLite on the module compared with SQLite on its own file layer: the same blobs in the same
// database.
#ifdef QZPBENCH_HAS_QZVFS
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {

void sqliteLayers(Runner& run) {
  constexpr std::int32_t kPageSize = 4096;
  const Geometry geometry = {kPageSize, run.settings().warmBytes / kPageSize};
  const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, false));
  constexpr const char* kOwnLayer = "SQLite's own layer";
  for (const bool writes : {false, true}) {
    Task task{writes ? Access::rewrite : Access::read, geometry, "", false};
    const Place place = newPlace();
    Contest contest;
    contest.work = fmt::format("SQLite blobs, {}", writes ? "read + change + write" : "read");
    contest.variant = fmt::format("{} B pages, random, in memory", kPageSize);
    contest.plotLabel = writes ? "SQLite, rewrite blobs" : "SQLite, read blobs";
    const auto add = [&]<class Store>(const char* name) {
      // The place of a file in memory affects the times, so readers share one.
      task.path = writes ? ownCopy<SqlitePages>(run.memory(), geometry, name)
                         : readable<SqlitePages>(run.memory(), geometry, kOwnLayer);
      contest.participants.push_back(
          writes ? rewriter<Store>(name, task, order, std::make_shared<Progress>())
                 : reader<Store>(name, task, order, place));
    };
    add.operator()<SqlitePages>(kOwnLayer);
    add.operator()<SqliteOnModule>("on qziop");
    contest.goals = {{Quantity::wall, "on qziop", kOwnLayer, 1.10}};
    run.hold(contest);
  }
}

}  // namespace qzbench
#endif
