// What each command makes of files that are not what they should be: exit statuses first, since
// scripts go by them, then the words.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <sstream>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

// What makes x, one of the files below, and what the commands end with: those that need a whole
// file with a sound header, those that hold the checksum against the pages as well, verify, the
// comparison with the file as it was, rm. Last, what verify says.
const char* const kDamages = R"(
cp good1 x -> 0 0 0 0 0 x: good
cp good1 x; truncate -s -4096 x
  -> 65 65 1 65 0 expected 49152 bytes (11 pages), found 45056 bytes: a header of 4096, 10 whole
  pages of 4096 and 0 left-over bytes
cp good1 x; truncate -s -100 x
  -> 65 65 1 65 0 10 whole pages of 4096 and 3996 left-over bytes
head -c 2000 good1 >x
  -> 65 65 1 65 0 found 2000 bytes, which ends inside the header of 4096 bytes
head -c 10 good1 >x
  -> 65 65 65 65 65 x: ends inside its header try:    get a whole copy
(cat good1; head -c 4096 in) >x -> 65 65 1 65 0 12 whole pages
page() { tail -c +$(($1 * 4096 + 1)) good1 | head -c 4096; };
  (page 0; page 2; page 1; tail -c +12289 good1) >x -> 0 65 1 1 0 checksum mismatch: the header has
cp good1 x; poke Y 20000 x -> 0 65 1 1 0 checksum mismatch: the header has
cp good1 x; poke '\001' 49000 x -> 0 65 1 1 0 checksum mismatch: the header has
cp good1 x; poke '\001' 30 x
  -> 65 65 65 65 65 x: has a damaged header: its checksum does not fit try:    try
  qzpfile repair
cp good1 x; poke '\003' 8 x
  -> 65 65 65 65 65 a later version of the file format try:    use a later version
cp good1 x; mkfifo f; sh -c "exec $Q put x --append" <f & p=$!; exec 3>f;
  seq 1000000 | head -c 1100000 >&3; sleep 0.5; kill -KILL $p; exec 3>&-; wait $p || true; rm f
  -> 0 0 0 0 0 change interrupted: the next change, or qzpfile
  repair, undoes it
cp in x -> 65 65 65 65 65 describe it: --raw
: >x -> 65 65 65 65 65 x: is empty try:    get a whole copy
mkdir x -> 66 66 66 66 66 try:    name a file
true -> 66 66 66 66 66 No such file
mkfifo x -> 66 66 66 66 66 name a regular file
)";

// Each command behind its column in those rows.
const char* const kCommands = R"(
0 $Q info x
0 $Q cat x >y
0 $Q dump x >y
0 $Q header x >y
0 $Q bench x
1 $Q unpack x y
1 $Q copy x y
2 $Q verify x
3 $Q compare good1 x
0 head -c 4096 in | $Q put x 1
0 $Q truncate x 2
4 $Q rm x
)";

TEST(Damage, IsToldByEveryCommand) {
  for (const std::string& row : rowsOf(kDamages)) {
    SCOPED_TRACE(row);
    const std::size_t arrow = row.find(" -> ");
    std::istringstream told(row.substr(arrow + 4));
    int statuses[5];
    for (int& status : statuses) told >> status;
    const std::string said = row.substr(arrow + 4 + static_cast<std::size_t>(told.tellg()) + 1);
    const Shell shell;
    shell.expectGood(row.substr(0, arrow));
    for (const std::string& command : rowsOf(kCommands)) {
      const std::string line = command.substr(2);
      SCOPED_TRACE(line);
      const int status = statuses[command.front() - '0'];
      if (std::regex_search(line, std::regex("info|bench|verify|compare"))) {
        const Outcome outcome = shell.run(line + " --format json");
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(nlohmann::json::parse(outcome.out).at("exit_status"), status) << outcome.out;
        EXPECT_EQ(outcome.err, "");
      }
      const Outcome outcome = shell.run("rm -f y; " + line);
      EXPECT_EQ(outcome.status, status) << outcome.said();
      EXPECT_TRUE(command.front() != '2' || outcome.said().find(said) != std::string::npos)
          << outcome.said();
      // What failed leaves no file under the name that it was to make.
      EXPECT_TRUE(status == 0 || shell.run("test ! -s y").status == 0);
    }
  }
}

// A change does not make earlier damage look sound.
TEST(Damage, StaysVisibleAfterAChange) {
  playLines(R"(
poke Y 20000 good1; head -c 4096 in | $Q put good1 2 && $Q truncate good1 8 && $Q verify good1
  -> 1 good1: damaged)");
}

TEST(Damage, ComparisonSaysWhere) {
  playLines(R"(
cp good1 x; poke Y 20000 x; $Q compare good1 x
  -> 1 page 4: byte 3616 (file offsets 20000 and 20000)
cp good1 x; poke Y 5000 x; poke Y 20000 x; $Q compare -k good1 x | grep -c 'page [14]:' -> 0 2
head -c 20000 in | $Q pack --format-version 1 --page-size 4K - x >y; $Q compare -k good1 x
  -> 1 page 5: byte 3616 (file offsets 24096 and 24096) pages: 11 and 5
  payload bytes: 43008 and 20000
$Q pack --page-size 8K in x >y; $Q compare good1 x -> 0 same payload, 43008 bytes, in pages of 4096
$Q pack --page-size 8K in x >y; poke Y 20000 good1; $Q compare good1 x
  -> 1 payload byte 15904: pages 4 and 2 (file offsets 20000 and 32288)
cp in raw; $Q pack --page-size 8K in x >y; $Q compare --raw --page-size 1K raw x
  -> 1 page 1: byte 0
cp good1 x; poke Y 99 x; $Q compare --raw --page-size 4K --header-size 4K good1 x
  -> 1 header: byte 99
$Q copy --header-size 12K good1 x >y; $Q compare good1 x -> 0 same, 11 pages of 4096 bytes
)");
}

// Killed at any moment, a pack over an older file leaves that or the new one, whole. Among what it
// leaves half-made nothing passes as good1.
TEST(Damage, KilledPacksLeaveNothingIncompleteThatPasses) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int kKills = 10;
#else
  constexpr int kKills = sizeof(void*) == 4 ? 10 : 200;
#endif
  const std::string pack = "$Q pack --force --page-size 4K big x";
  const Shell shell;
  shell.expectGood("seq 1000000 | head -c 2M >big; cp good x; " + pack);
  double latest = 0.2;  // so adjusted that most moments lie within a pack, however busy the machine
  std::mt19937 random(1);
  int killed = 0;
  for (int i = 0; killed < kKills && i < 10 * kKills; ++i) {
    const double moment = std::uniform_real_distribution<double>(0, latest)(random);
    const Outcome outcome = shell.run(
        "cp good x; " + pack + " & sleep " + std::to_string(moment) +
        "; kill -KILL $!; wait $! || echo killed; for f in x .qzpfile-*; do "
        "if $Q verify $f; then $Q unpack $f out --force; cmp out big || cmp out in || exit 1; "
        "elif test $f = x; then exit 1; fi; done; rm -f .qzpfile-*");
    EXPECT_EQ(outcome.status, 0) << moment << " s\n" << outcome.out << outcome.err;
    const bool wasKilled = outcome.out.find("killed") != std::string::npos;
    killed += wasKilled ? 1 : 0;
    latest *= wasKilled ? 1.03 : 0.9;
  }
  EXPECT_EQ(killed, kKills);
}

}  // namespace
}  // namespace qztest
