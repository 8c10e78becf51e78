// Two programs change a file at the same time: the second while the first is stopped at one of its
// system calls, at each in turn.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "power/commands.h"

namespace qztest {
namespace {

// The changes of those programs that report success must be in the file, the others not.
TEST(Beside, TheFileHasTheChangesThatWereReportedAsDone) {
  if (const std::string why = whyNoRecorder(); !why.empty()) GTEST_SKIP() << why;
  const Workplace place;
  for (const CommandCase& command : commandCases(place, 2)) {
    if (command.name != "put --append") continue;
    Folder folder = command.before;
    const Bytes first = folder.at("in");
    const Bytes second(512, 'b');
    folder["second"] = second;
    const CommandCase both = {command.name, command.arguments, command.input, folder};
    const Execution alone = place.record(both);
    const auto calls =
        std::ranges::count_if(alone.trace, [](const Event& e) { return e.is(What::call); });
    // The old payload ends inside a page. An append fills that page up with zeros.
    const Bytes old = place.held(command.before);
    const Bytes padded = old + Bytes(512 - (old.size() - 8) % 512, '\0');
    int secondWon = 0;
    for (int call = 1; call <= calls; ++call) {
      SCOPED_TRACE("stopped at call " + std::to_string(call));
      int status = -1;
      const Execution run = place.record(both, {"QZR_STOP=" + std::to_string(call)}, [&] {
        status = place.run({"put", "--append", "x"}, "second").status;
      });
      Folder left = place.contents();
      left.erase("second");
      const Bytes held = place.held(left);
      const bool a = run.status == 0;
      const bool b = status == 0;
      secondWon += b ? 1 : 0;
      const std::vector<Bytes> orders = {
          fmt::format("{}{}{}", a || b ? padded : old, a ? first : "", b ? second : ""),
          fmt::format("{}{}{}", a || b ? padded : old, b ? second : "", a ? first : "")};
      EXPECT_TRUE(std::ranges::find(orders, held) != orders.end()) << run.status << " " << status;
      EXPECT_TRUE(a || b) << "both failed";
    }
    std::printf("  %d calls, the second change succeeded at %d of them\n", static_cast<int>(calls),
                secondWon);
    EXPECT_GT(secondWon, 0);
  }
}

}  // namespace
}  // namespace qztest
