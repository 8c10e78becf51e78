// What each command makes of files that are not what they should be: exit statuses first, since
// scripts go by them, then the words.
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

// What the commands end with on one kind of file.
struct Damage {
  const char* name;
  const char* make;  // makes x
  int reads;         // commands that need a whole file with a sound header
  int checks;        // those that hold the checksum against the pages as well
  int verify;
  int compare;  // with the file as it was
  int remove;
  const char* text;  // in what verify says
};

struct Line {
  const char* line;
  int Damage::*status;
  bool json = false;
};

constexpr Line kLines[] = {
    {"$Q info x", &Damage::reads, true},
    {"$Q cat x >y", &Damage::reads},
    {"$Q dump x >y", &Damage::reads},
    {"$Q header x >y", &Damage::reads},
    {"$Q bench x", &Damage::reads, true},
    {"$Q unpack x y", &Damage::checks},
    {"$Q copy x y", &Damage::checks},
    {"$Q verify x", &Damage::verify, true},
    {"$Q compare good x", &Damage::compare, true},
    {"head -c 4096 in | $Q put x 1", &Damage::reads},
    {"$Q truncate x 2", &Damage::reads},
    {"$Q rm x", &Damage::remove},
};

const Damage kDamages[] = {
    {"none", "cp good x", 0, 0, 0, 0, 0, "x: good"},
    {"cut by a page", "cp good x; truncate -s -4096 x", 65, 65, 1, 65, 0,
     "expected 49152 bytes (11 pages), found 45056 bytes: a header of 4096, 10 whole pages of "
     "4096 and 0 left-over bytes"},
    {"cut by 100 bytes", "cp good x; truncate -s -100 x", 65, 65, 1, 65, 0,
     "10 whole pages of 4096 and 3996 left-over bytes"},
    {"cut in the header", "head -c 2000 good >x", 65, 65, 1, 65, 0,
     "found 2000 bytes, which ends inside the header of 4096 bytes"},
    {"cut to ten bytes", "head -c 10 good >x", 65, 65, 65, 65, 65,
     "x: ends inside its header\n  try:    get a whole copy"},
    {"a page too many", "(cat good; head -c 4096 in) >x", 65, 65, 1, 65, 0, "12 whole pages"},
    {"swapped pages",
     "(head -c 8192 good; tail -c +12289 good | head -c 4096; tail -c +8193 good | head -c 4096; "
     "tail -c +16385 good) >x",
     0, 65, 1, 1, 0, "the header promises the checksum"},
    {"flipped bit in the payload",
     "cp good x; printf 'Y' | dd of=x bs=1 seek=20000 conv=notrunc status=none", 0, 65, 1, 1, 0,
     "the header promises the checksum"},
    {"flipped bit in the padding",
     "cp good x; printf '\\001' | dd of=x bs=1 seek=49000 conv=notrunc status=none", 0, 65, 1, 1, 0,
     "the header promises the checksum"},
    {"flipped bit in the header",
     "cp good x; printf '\\001' | dd of=x bs=1 seek=30 conv=notrunc status=none", 65, 65, 65, 65,
     65, "x: has a damaged header: its checksum does not fit\n  try:    give it a sound header"},
    {"a later version", "cp good x; printf '\\002' | dd of=x bs=1 seek=8 conv=notrunc status=none",
     65, 65, 65, 65, 65, "a later version of the file format\n  try:    use a later version"},
    {"left half changed",
     "cp good x; mkfifo f; sh -c \"exec $Q put x --append\" <f & p=$!; exec 3>f; "
     "seq 1000000 | head -c 1100000 >&3; sleep 0.5; kill -KILL $p; exec 3>&-; wait $p || true; rm "
     "f",
     65, 65, 1, 65, 0, "in the middle of a change"},
    {"foreign", "cp in x", 65, 65, 65, 65, 65, "describe it: --raw"},
    {"empty", ": >x", 65, 65, 65, 65, 65, "x: is empty\n  try:    get a whole copy"},
    {"a directory", "mkdir x", 66, 66, 66, 66, 66, "try:    name a file"},
    {"missing", "true", 66, 66, 66, 66, 66, "No such file"},
    {"a pipe", "mkfifo x", 66, 66, 66, 66, 66, "name a regular file"},
};

class Damaged : public testing::TestWithParam<Damage> {};

TEST_P(Damaged, IsToldByEveryCommand) {
  const Damage& damage = GetParam();
  const Shell shell;
  shell.prepare(damage.make);
  for (const Line& line : kLines) {
    SCOPED_TRACE(line.line);
    const int status = damage.*line.status;
    if (line.json) {
      const Outcome outcome = shell.run(std::string(line.line) + " --format json");
      EXPECT_EQ(outcome.status, status);
      EXPECT_EQ(nlohmann::json::parse(outcome.out).at("exit_status"), status) << outcome.out;
      EXPECT_EQ(outcome.err, "");
    }
    const Outcome outcome = shell.run(std::string("rm -f y; ") + line.line);
    EXPECT_EQ(outcome.status, status) << outcome.out << outcome.err;
    if (line.status == &Damage::verify) {
      EXPECT_NE((outcome.out + outcome.err).find(damage.text), std::string::npos)
          << outcome.out << outcome.err;
    }
    // What failed leaves no file under the name that it was to make.
    if (outcome.status != 0) {
      EXPECT_EQ(shell.run("test ! -s y").status, 0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, Damaged, testing::ValuesIn(kDamages), [](const auto& test) {
  std::string name = test.param.name;
  for (char& c : name) c = c == ' ' ? '_' : c;
  return name;
});

// A change does not make earlier damage look sound.
TEST(Damage, StaysVisibleAfterAChange) {
  runCases({{"flipped, then changed",
             "printf 'Y' | dd of=good bs=1 seek=20000 conv=notrunc status=none; "
             "head -c 4096 in | $Q put good 2; $Q truncate good 8",
             "$Q verify good", 1, "good: damaged", nullptr}});
}

TEST(Damage, ComparisonSaysWhere) {
  runCases({
      {"first", "cp good x; printf 'Y' | dd of=x bs=1 seek=20000 conv=notrunc status=none",
       "$Q compare good x", 1, "page 4: byte 3616 (file offsets 20000 and 20000)", nullptr},
      {"all",
       "cp good x; for at in 5000 20000; do printf 'Y' | dd of=x bs=1 seek=$at conv=notrunc "
       "status=none; done",
       "$Q compare -k good x | grep -c 'page [14]:'", 0, "2", nullptr},
      {"length", "head -c 20000 in | $Q pack --page-size 4K - x", "$Q compare -k good x", 1,
       "page 5: byte 3616 (file offsets 24096 and 24096)\n  pages: 11 and 5\n  payload bytes: "
       "43008 and 20000",
       nullptr},
      {"page size", "$Q pack --page-size 8K in x", "$Q compare good x", 1,
       "page size: 4096 and 8192", nullptr},
      {"raw header", "cp good x; printf 'Y' | dd of=x bs=1 seek=99 conv=notrunc status=none",
       "$Q compare --raw --page-size 4K --header-size 4K good x", 1, "header: byte 99", nullptr},
      {"other header size is no difference", "$Q copy --header-size 12K good x",
       "$Q compare good x", 0, "same, 11 pages of 4096 bytes", nullptr},
  });
}

// Killed at any moment, a pack over an older file leaves that or the new one, whole. Among what it
// leaves half-made nothing passes as good.
TEST(Damage, KilledPacksLeaveNothingIncompleteThatPasses) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int kKills = 10;
#else
  constexpr int kKills = sizeof(void*) == 4 ? 10 : 200;
#endif
  const std::string pack = "$Q pack --force --page-size 4K big x";
  const Shell shell;
  shell.prepare("seq 1000000 | head -c 2M >big; cp good x; " + pack);
  const auto began = std::chrono::steady_clock::now();
  shell.prepare(pack);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - began;
  // Most moments lie within a pack, however busy the machine is.
  double latest = whole.count();
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
  RecordProperty("killed", killed);
}

}  // namespace
}  // namespace qztest
