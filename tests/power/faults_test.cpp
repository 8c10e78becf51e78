// Every system call of every command that writes is failed once, by its number. A command that
// reports success must have made its change. After any other the file must have its old or its new
// contents, at once or after a repair, and no unfinished file may be left beside it.
//
// Calls fail in three ways. QZIOP_POWER_FAULTS=all: each call in each way; else each call in one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "power/commands.h"

namespace qztest {
namespace {

constexpr int kErrors[] = {EIO, 0, ENOSPC};  // 0: half of the bytes, or interrupted

bool wantsAll() {
  return std::getenv("QZIOP_POWER_FAULTS") != nullptr;  // NOLINT(concurrency-mt-unsafe)
}

// Returns the number of runs.
int tryFaults(const Workplace& place, const CommandCase& command) {
  const Execution good = place.record(command);
  EXPECT_EQ(good.status, 0);
  const Bytes after = place.held(place.contents());
  Bytes before = place.held(command.before);
  if (before == kDamaged) before = place.heldAfterRepair(command.before);
  const auto calls =
      std::ranges::count_if(good.trace, [](const Event& e) { return e.is(What::call); });
  int runs = 0;
  for (int call = 1; call <= calls; ++call) {
    for (int kind = 0; kind < 3; ++kind) {
      if (!wantsAll() && kind != call % 3) continue;
      SCOPED_TRACE("call " + std::to_string(call) + " error " + std::to_string(kErrors[kind]));
      const Execution run = place.record(command, {"QZR_FAIL=" + std::to_string(call),
                                                   "QZR_ERROR=" + std::to_string(kErrors[kind])});
      ++runs;
      EXPECT_LT(run.status, 128);
      const Folder left = place.contents();
      for (const auto& [name, bytes] : left) {
        EXPECT_TRUE(command.before.contains(name) || name == "x") << "left behind: " << name;
      }
      Bytes held = place.held(left);
      if (held == kDamaged) held = place.heldAfterRepair(left);
      EXPECT_TRUE(held == after || (run.status != 0 && held == before)) << run.status;
    }
  }
  return runs;
}

// A command with one failed system call must leave the file as it was, or make its change.
TEST(Faults, LeaveTheOldOrTheNewFile) {
  if (const std::string why = whyNoRecorder(); !why.empty()) GTEST_SKIP() << why;
  const int total = sumOverCommands([](const Workplace& place, const CommandCase& command,
                                       int /*version*/) { return tryFaults(place, command); });
  std::printf("  %d calls failed\n", total);
}

}  // namespace
}  // namespace qztest
