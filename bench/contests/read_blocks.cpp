// Reads a file that is not in the page cache in order, page by page, through whole blocks.
#include <fmt/format.h>

#include "../peers/bare.h"
#include "../peers/module.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::int32_t kPlainBlock = 256 << 10;
constexpr std::int32_t kLargeBlock = 4 << 20;

}  // namespace

void readBlocks(Runner& run) {
  for (const std::int32_t pageSize : run.settings().pageSizes) {
    // The goals are for pages of 4 KiB; the other sizes are measured with a smaller file.
    const std::int64_t bytes = run.settings().directBytes / (pageSize == 4096 ? 1 : 4);
    const Geometry geometry = {pageSize, bytes / pageSize};
    const auto order = std::make_shared<const Order>(pageOrder(geometry.pages, true));
    Task plain{Access::read, geometry, run.disk().stamped(geometry, true), true};
    plain.direct = true;
    plain.blockBytes = kPlainBlock;
    plain.hugeBlocks = false;
    Task small = plain;
    small.hugeBlocks = true;
    Task large = small;
    large.blockBytes = kLargeBlock;

    for (Task* task : {&plain, &small, &large}) task->ring = buffersInTurn(*task);

    Contest contest;
    contest.work = "block mode, in order from the disk";
    contest.variant = fmt::format("{} B pages, {} MiB", pageSize, bytes >> 20U);
    if (pageSize == kPlotPageSize) contest.plotLabel = "read blocks from the disk";
    contest.participants = {
        reader<BareBlocks>("O_DIRECT 256 KiB, 4 KiB memory pages", plain, order),
        reader<BareBlocks>("O_DIRECT 256 KiB", small, order),
        reader<ModulePages>("qziop 256 KiB", small, order),
        reader<BareBlocks>("O_DIRECT 4 MiB", large, order),
        reader<ModulePages>("qziop 4 MiB", large, order)};
    contest.goals = {{Quantity::wall, "qziop 256 KiB", "O_DIRECT 256 KiB", 1.05},
                     {Quantity::cpu, "qziop 256 KiB", "O_DIRECT 256 KiB", 1.05},
                     {Quantity::wall, "qziop 4 MiB", "O_DIRECT 4 MiB", 1.05},
                     {Quantity::cpu, "qziop 4 MiB", "O_DIRECT 4 MiB", 1.05},
                     {Quantity::wall, "qziop 4 MiB", "O_DIRECT 256 KiB, 4 KiB memory pages", 0.40}};
    run.hold(contest);
    run.disk().drop(geometry);
  }
}

}  // namespace qzbench
