// Commands on single pages: what they show, change and refuse.
#include <gtest/gtest.h>

#include "tool/shell.h"

namespace qztest {
namespace {

TEST(Pages, AreShownAsTheyAre) {
  runCases({
      {"all of them", nullptr, "$Q cat good | head -c 43008 | cmp in -", 0, nullptr, nullptr},
      {"padding included", nullptr, "$Q cat good | wc -c", 0, "45056", nullptr},
      {"a range", "head -c 20480 in | tail -c 12288 >three",
       "$Q cat good --pages 3-5 | cmp three -", 0, nullptr, nullptr},
      {"to the end", nullptr, "$Q cat --io block good --pages 11- | wc -c", 0, "4096", nullptr},
      {"up to one", nullptr, "$Q cat --io direct good --pages -2 | cmp -n 8192 in -", 0, nullptr,
       nullptr},
      {"behind the end", nullptr, "$Q cat good --pages 12", 64, nullptr,
       "page 12 is behind the last page, 11"},
      {"dump", nullptr, "$Q dump good --pages 2 | head -2 | tail -1", 0,
       "00002000  31 0a 31 30 34 32 0a 31  30 34 33 0a 31 30 34 34  |1.1042.1043.1044|", nullptr},
      {"dump's offsets add up", nullptr, "$Q dump good | grep -A1 'page 11, offset 45056'", 0,
       "0000b000  ", nullptr},
      {"dump of zeros", nullptr, "$Q dump good --pages 11 | tail -2", 0, "*\n0000bff0  00 00",
       nullptr},
      {"header", "head -c 4096 good >h", "$Q header good | cmp h -", 0, nullptr, nullptr},
      {"raw pages", nullptr, "$Q cat --raw --page-size 1K --pages 5-46 good | cmp in -", 0, nullptr,
       nullptr},
      {"raw without size", nullptr, "$Q cat --raw good", 64, nullptr, "--raw needs --page-size"},
      {"size without raw", nullptr, "$Q cat --page-size 1K good", 64, nullptr, "need --raw"},
      {"raw misfit", nullptr, "$Q cat --raw --page-size 5000 good", 65, nullptr,
       "expected 45000 or 50000 bytes, found 49152 bytes: a header of 0, 9 whole pages of 5000 and "
       "4152 left-over bytes"},
      {"reader gone", nullptr,
       "$Q cat --raw --page-size 1 --header-size 49151 good | head -c 1 | wc -c", 0, "1", nullptr},
  });
}

TEST(Pages, ArePutWithATrueHeader) {
  constexpr const char* kSound =
      "$Q verify good >/dev/null && $Q unpack good - | cmp - want && $Q info good | grep '^pages'";
  const auto sound = [](const std::string& line) { return line + " >/dev/null && " + kSound; };
  const struct {
    const char* name;
    const char* prepare;
    std::string line;
    const char* pages;
  } cases[] = {
      {"replace one",
       "head -c 4096 /dev/urandom >p; cp in want; dd if=p of=want bs=4096 seek=2 "
       "conv=notrunc status=none",
       sound("$Q put good 3 <p"), "11"},
      {"replace some, by direct I/O",
       "head -c 8192 /dev/urandom >p; cp in want; dd if=p of=want bs=4096 seek=4 conv=notrunc "
       "status=none",
       sound("cat p | $Q put --io direct good 5"), "11"},
      {"replace in block mode",
       "head -c 8192 /dev/urandom >p; cp in want; dd if=p of=want bs=4096 seek=4 conv=notrunc "
       "status=none",
       sound("$Q put --io block good 5 <p"), "11"},
      {"append behind padding",
       "head -c 5000 /dev/urandom >p; (cat in; head -c 2048 /dev/zero; cat p) >want",
       sound("$Q put good --append <p"), "13"},
      {"append in block mode",
       "head -c 50000 /dev/urandom >p; (cat in; head -c 2048 /dev/zero; cat p) >want",
       sound("$Q put --io block good --append <p"), "24"},
      {"replace the last by less", "echo end >p; (head -c 40960 in; cat p) >want",
       sound("$Q put good 11 <p"), "11"},
      {"from the middle past the end",
       "head -c 20000 /dev/urandom >p; (head -c 36864 in; cat p) >want",
       sound("cat p | $Q put good 10"), "14"},
      {"truncate", "head -c 12288 in >want", sound("$Q truncate good 3"), "3"},
      {"truncate by direct I/O", "head -c 12288 in >want", sound("$Q truncate --io direct good 3"),
       "3"},
      {"truncate to nothing", ": >want", sound("$Q truncate good 0"), "0"},
      {"truncate nothing", "cp in want", sound("$Q truncate good 11"), "11"},
      {"the header is put back",
       "cp in want; $Q header good >h; dd if=/dev/zero of=good bs=64 count=1 conv=notrunc "
       "status=none",
       sound("$Q header --raw --page-size 4K --header-size 4K --set h good"), "11"},
      {"a header that fits", "cp in want; $Q header good | head -c 64 >h",
       sound("$Q header good --set - <h"), "11"},
  };
  for (const auto& c : cases) {
    runCases({{c.name, c.prepare, c.line.c_str(), 0, c.pages, nullptr}});
  }
}

TEST(Pages, AreNotChangedByWhatIsRefused) {
  const struct {
    const char* name;
    const char* line;
    int status;
    const char* err;
  } cases[] = {
      {"a gap", "head -c 4096 in | $Q put good 13", 64, "page 13 would leave a gap"},
      {"no page", "$Q put good", 64, "name either a PAGE or --append"},
      {"page 0", "$Q put good 0 <in", 64, "there is no page 0"},
      {"nothing given", "$Q put good 1", 66, "nothing was written"},
      {"nothing given to append", "true | $Q put good --append", 66, "nothing was written"},
      {"a short page in the middle", "$Q put good 1 <h", 65, "where:  page 1, file offset 4096"},
      {"a short page from a pipe", "cat h | $Q put good 1", 65, "100 of a page of 4096 bytes"},
      {"left-over bytes for a raw file", "cat in | $Q put --raw --page-size 4K good --append", 65,
       "nothing was appended"},
      {"a size limit", "(ulimit -f 100; (cat in in in) | $Q put good --append)", 74,
       "nothing was appended"},
      {"a reader of its words who leaves",
       "mkfifo f; $Q put good --append <f & p=$!; exec 3>f; seq 300000 >&3; sleep 0.3; "
       "kill -PIPE $p; wait $p",
       141, ""},
      {"longer", "$Q truncate good 12", 64, "it can be cut, not lengthened"},
      {"to no file", "$Q truncate --raw --page-size 4K good 0", 64, "use rm"},
      {"a foreign header", "$Q header good --set in", 65, "is too long"},
      {"a header that does not fit", "$Q header good --set h", 65, "takes only a header that fits"},
      {"an empty header", "$Q header good --set /dev/null", 66, "is empty"},
      {"a header where there is none", "$Q header --raw --page-size 4K good --set h", 65,
       "has no header"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Shell shell;
    shell.prepare("cp good kept; head -c 100 in >h");
    const Outcome outcome = shell.run(c.line);
    EXPECT_EQ(outcome.status, c.status);
    EXPECT_NE(outcome.err.find(c.err), std::string::npos) << outcome.err;
    EXPECT_EQ(shell.run("cmp good kept").status, 0);
  }
}

TEST(Pages, TellWhatWasDoneBeforeAFailure) {
  runCases({
      {"replaced before the short page", nullptr,
       "(cat in; cat in) | head -c 1052672 >p; $Q pack -f --page-size 4K p good >/dev/null; "
       "(seq 1000000 | head -c 12288; echo x) | $Q put --raw --page-size 4K good 2",
       65, nullptr, "note:   pages 2 to 4 were written before that"},
      {"a file that was empty stays", ": >e",
       "$Q put --raw --page-size 4K --append e <in; s=$?; test -f e && exit $s", 65, nullptr,
       "2048 of a page"},
  });
}

// The first file that is opened gets the lowest descriptor that is free.
TEST(Pages, GetNoWordsMeantForAClosedStandardError) {
  runCases({{"progress on request", "mkfifo f; cp in raw",
             "$Q put --raw --page-size 1K raw 2 2>&- <f & p=$!; exec 3>f; sleep 0.3; "
             "kill -USR1 $p; sleep 0.3; head -c 2048 in | tail -c 1024 >&3; exec 3>&-; wait $p; "
             "cmp in raw",
             0, "1 page written", nullptr}});
}

TEST(Pages, FilesAreRemovedOnPurposeOnly) {
  runCases({
      {"own", nullptr, "$Q rm good && test ! -e good", 0, "good: removed", nullptr},
      {"foreign", nullptr, "$Q rm in", 65, nullptr, "is no kind of paged file"},
      {"foreign all the same", nullptr, "$Q rm --raw in && test ! -e in", 0, "in: removed",
       nullptr},
      {"missing", nullptr, "$Q rm no", 66, nullptr, "No such file"},
      {"missing, unlooked at", nullptr, "$Q rm --raw no", 66, nullptr, "No such file"},
      {"a folder", "mkdir d", "$Q rm --raw d", 66, nullptr, "try:    name a file"},
  });
}

}  // namespace
}  // namespace qztest
