// Every command on damaged files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

// How the commands end with a file of one kind.
struct Kind {
  const char* name;
  const char* showing;   // commands that need a sound header and all pages that it counts
  const char* checking;  // commands that also compare the pages with their checksums
  const char* verify;
  const char* compare;
  const char* removing;
};
const Kind kKinds[] = {
    {"sound", "OK", "OK", "OK", "OK", "OK"},
    {"badPage", "OK", "DATAERR", "DIFFERS", "DIFFERS", "OK"},
    {"badLength", "DATAERR", "DATAERR", "DIFFERS", "DATAERR", "OK"},
    {"badHeader", "DATAERR", "DATAERR", "DATAERR", "DATAERR", "DATAERR"},
    {"notAFile", "NOINPUT", "NOINPUT", "NOINPUT", "NOINPUT", "NOINPUT"},
};

const struct {
  const char* line;
  const char* Kind::*ended;
} kCommands[] = {
    {"$Q info x", &Kind::showing},          {"$Q cat x >y", &Kind::showing},
    {"$Q dump x >y", &Kind::showing},       {"$Q header x >y", &Kind::showing},
    {"$Q bench x", &Kind::showing},         {"$Q unpack x y", &Kind::checking},
    {"$Q copy x y", &Kind::checking},       {"$Q verify x", &Kind::verify},
    {"$Q compare good1 x", &Kind::compare}, {"head -c 4096 in | $Q put x 1", &Kind::showing},
    {"$Q truncate x 2", &Kind::showing},    {"$Q rm x", &Kind::removing},
};

// Commands that print a JSON document about a damaged file, too.
const char* const kReporting[] = {"info", "bench", "verify", "compare"};

// The line that makes the file x, its kind, and words that verify prints.
const char* const kDamages = R"(
cp good1 x -> sound x: good
cp good1 x; truncate -s -4096 x
  -> badLength expected 49152 bytes (11 pages), found 45056 bytes: a header of 4096, 10 whole pages
  of 4096 and 0 left-over bytes
cp good1 x; truncate -s -100 x -> badLength 10 whole pages of 4096 and 3996 left-over bytes
head -c 2000 good1 >x
  -> badLength found 2000 bytes, which ends inside the header of 4096 bytes
head -c 10 good1 >x -> badHeader x: ends inside its header try:    get a complete copy
(cat good1; head -c 4096 in) >x -> badLength 12 whole pages
page() { tail -c +$(($1 * 4096 + 1)) good1 | head -c 4096; };
  (page 0; page 2; page 1; tail -c +12289 good1) >x -> badPage checksum mismatch: the header has
cp good1 x; poke Y 20000 x -> badPage checksum mismatch: the header has
cp good1 x; poke '\001' 49000 x -> badPage checksum mismatch: the header has
cp good1 x; poke '\001' 30 x
  -> badHeader x: has a damaged header: its checksum does not match try:    qzpfile repair; or
cp good1 x; poke '\003' 8 x
  -> badHeader a later version of the file format try:    use a later version
cp good1 x; mkfifo f; sh -c "exec $Q put x --append" <f & p=$!; exec 3>f;
  seq 1000000 | head -c 1100000 >&3; sleep 0.5; kill -KILL $p; exec 3>&-; wait $p || true; rm f
  -> sound change interrupted: the next change, or qzpfile repair, undoes it
cp in x -> badHeader give its sizes: --raw
: >x -> badHeader x: is empty try:    get a complete copy
mkdir x -> notAFile try:    name a file
true -> notAFile No such file
mkfifo x -> notAFile name a regular file
)";

// Every command must end with the exit status for the damage, which scripts go by, and verify must
// describe it.
TEST(Damage, IsReportedByEveryCommand) {
  for (const std::string& row : rowsOf(kDamages)) {
    SCOPED_TRACE(row);
    const std::size_t arrow = row.find(" -> ");
    const std::size_t blank = row.find(' ', arrow + 4);
    const std::string name = row.substr(arrow + 4, blank - arrow - 4);
    const auto* const kind = std::ranges::find(kKinds, name, &Kind::name);
    ASSERT_NE(kind, std::end(kKinds));
    const Shell shell;
    shell.expectGood(row.substr(0, arrow));
    for (const auto& [line, ended] : kCommands) {
      SCOPED_TRACE(line);
      const bool reports = std::ranges::any_of(kReporting, [line = line](const char* word) {
        return std::strstr(line, word) != nullptr;
      });
      if (reports) {
        const Outcome outcome = shell.run(line + std::string(" --format json"));
        EXPECT_EQ(outcome.ended(), kind->*ended);
        EXPECT_EQ(nlohmann::json::parse(outcome.out).at("exit_status"), outcome.status)
            << outcome.out;
        EXPECT_EQ(outcome.err, "");
      }
      const Outcome outcome = shell.run(std::string("rm -f y; ") + line);
      EXPECT_EQ(outcome.ended(), kind->*ended) << outcome.said();
      if (ended == &Kind::verify) {
        EXPECT_NE(outcome.said().find(row.substr(blank + 1)), std::string::npos) << outcome.said();
      }
      // A command that failed leaves no output file.
      EXPECT_TRUE(outcome.status == 0 || shell.run("test ! -s y").status == 0);
    }
  }
}

// A change elsewhere in the file must not make earlier damage look sound.
TEST(Damage, StaysVisibleAfterAChange) {
  playLines(R"(
poke Y 20000 good1; head -c 4096 in | $Q put good1 2 && $Q truncate good1 8 && $Q verify good1
  -> DIFFERS good1: damaged)");
}

// A comparison must give the page, byte and file offset of each difference, also between files with
// pages of other sizes.
TEST(Damage, ComparisonSaysWhere) {
  playLines(R"(
cp good1 x; poke Y 20000 x; $Q compare good1 x
  -> DIFFERS page 4: byte 3616 (file offsets 20000 and 20000)
cp good1 x; poke Y 5000 x; poke Y 20000 x; $Q compare -k good1 x | grep -c 'page [14]:' -> OK 2
head -c 20000 in | $Q pack --format-version 1 --page-size 4K - x >y; $Q compare -k good1 x
  -> DIFFERS page 5: byte 3616 (file offsets 24096 and 24096) pages: 11 and 5
  payload bytes: 43008 and 20000
$Q pack --page-size 8K in x >y; $Q compare good1 x -> OK same payload, 43008 bytes, in pages of 4096
$Q pack --page-size 8K in x >y; poke Y 20000 good1; $Q compare good1 x
  -> DIFFERS payload byte 15904: pages 4 and 2 (file offsets 20000 and 32288)
cp in raw; $Q pack --page-size 8K in x >y; $Q compare --raw --page-size 1K raw x
  -> DIFFERS page 1: byte 0
cp good1 x; poke Y 99 x; $Q compare --raw --page-size 4K --header-size 4K good1 x
  -> DIFFERS header: byte 99
$Q copy --header-size 12K good1 x >y; $Q compare good1 x -> OK same, 11 pages of 4096 bytes
)");
}

// A pack over an older file that is killed at any moment must leave the old or the new file, whole.
// A temporary file that it leaves must not pass as good with other bytes.
TEST(Damage, KilledPacksLeaveNothingIncompleteThatPasses) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int kKills = 10;
#else
  constexpr int kKills = sizeof(void*) == 4 ? 10 : 200;
#endif
  const std::string pack = "$Q pack --force --page-size 4K big x";
  const Shell shell;
  shell.expectGood("seq 1000000 | head -c 2M >big; cp good x; " + pack);
  double latest = 0.2;  // seconds; adjusted so that most kills come during a pack on any machine
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
