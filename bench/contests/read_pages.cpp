// Reads every page of a warm file and returns it.
#include "../peers/bare.h"
#include "../peers/module.h"
#include "../peers/peers.h"
#include "work.h"

namespace qzbench {
namespace {

void readIn(Runner& run, std::int32_t pageSize, bool sequential) {
  const Geometry geometry = {pageSize, run.settings().warmBytes / pageSize};
  const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, sequential));
  Task task{Access::read, geometry, run.disk().stamped(geometry), sequential};
  task.ring = buffersInTurn(task);
  const Place place = newPlace();
  Contest contest;
  contest.work = "page mode, read + return";
  contest.variant = fmt::format("{} B pages, {}", pageSize, sequential ? "in order" : "random");
  if (pageSize == kPlotPageSize) {
    contest.plotLabel = sequential ? "read pages in order" : "read random pages";
  }
  contest.participants = {reader<BarePages>("pread", task, order, place),
                          reader<ModulePages>("qziop", task, order, place)};
  contest.goals = {{Quantity::wall, "qziop", "pread", 1.05}};
  eachPeer([&]<class Store>(const char* name) {
    Task own = task;
    own.path = readable<Store>(run.disk(), geometry, name);
    contest.participants.push_back(reader<Store>(name, own, order, place));
  });
  for (const char* name : {kBerkeleyDb, kSharedBerkeleyDb}) {
    if (contest.has(name)) contest.goals.push_back({Quantity::wall, "qziop", name, 0.80});
  }
  run.hold(contest);
}

}  // namespace

void readPages(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    readIn(run, pageSize, true);
    readIn(run, pageSize, false);
  }
}

}  // namespace qzbench
