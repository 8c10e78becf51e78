// What programs and people rely on: JSON, usage errors, help, man page and completion.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

using Json = nlohmann::json;

// Each row is a command, how it ends, and what is in its document, which must be all of standard
// output, with nothing on standard error.
TEST(Interface, SpeaksJson) {
  const std::string rows = R"sh(
info good
  -> 0 info {"/kind": "qzpfile", "/pages": 11, "/format_version": 2, "/file_size": 53248, "/payload_size": 43008,
  "/payload_checksum": "93e2fd5e25d6d33d", "/io/obtained": "buffered"}
verify good -> 0 verify {"/good": true, "/pages_read": 11, "/findings": null}
verify bad
  -> 1 verify {"/good": false, "/findings/0/what": "page", "/findings/0/page": 3,
  "/findings/0/offset": 16384}
verify bad1 -> 1 verify {"/good": false, "/findings/0/what": "checksum"}
repair --dry-run bad
  -> 1 repair {"/changed": false, "/steps/0/what": "damaged_page", "/steps/0/page": 3,
  "/steps/0/loses": true}
repair good -> 0 repair {"/changed": false, "/good": true, "/steps": null}
verify cut
  -> 1 verify {"/findings/0/what": "not_whole", "/bytes_expected": 53248,
  "/bytes_found": 53148, "/left_over_bytes": 3996}
compare good bad
  -> 1 compare {"/differences/0/what": "page", "/differences/0/page": 3,
  "/differences/0/offset_a": 20000, "/differences/0/offset_b": 20000}
bench good -> 0 bench {"/results/0/bytes": 45056, "/results/1/bytes": 45056}
info no
  -> 66 error {"/error/file": "no", "/error/errno": 2, "/error/status": 2151663617,
  "/error/status_text": "The file or a folder on the way to it does not exist",
  "/error/hint": "check the name and the folder it is in"}
info good --frob -> 64 error {}
info "$(printf 'a\377')" -> 66 error {}
)sh";
  const Shell shell;
  shell.expectGood(
      "cp good bad; poke Y 20000 bad; cp good1 bad1; poke Y 20000 bad1; cp good cut; truncate -s "
      "-100 cut");
  for (const std::string& row : rowsOf(rows)) {
    SCOPED_TRACE(row);
    const std::size_t arrow = row.find(" -> ");
    std::istringstream wanted(row.substr(arrow + 4));
    int status = 0;
    std::string schema;
    Json members;
    wanted >> status >> schema >> members;
    members["/schema"] = "qzpfile/" + schema;
    members["/schema_version"] = 1;
    members["/exit_status"] = status;
    const Outcome outcome = shell.run("$Q " + row.substr(0, arrow) + " --format=json");
    EXPECT_EQ(outcome.status, status) << outcome.said();
    EXPECT_EQ(outcome.err, "");
    const Json document = Json::parse(outcome.out).flatten();
    for (const auto& [place, value] : members.items()) EXPECT_EQ(document.at(place), value);
    for (const auto& [place, value] : document.items()) {
      const bool measured = place.find("per_second") != std::string::npos;
      EXPECT_TRUE(!measured || value.get<double>() > 0) << place;
    }
  }
}

TEST(Interface, RefusesWhatItDoesNotUnderstand) {
  playLines(R"(
$Q -> 64 ! name a command
$Q frob -> 64 ! there is no command "frob"
$Q pack in -> 64 ! OUTPUT is required
$Q info good one --force -> 64 ! not expected: one --force try:    qzpfile info --help
cat good | $Q info - -> 64 ! not a pipe
$Q pack in - -> 64 ! not a pipe
$Q info good --buffers 2000000000 -> 64 ! 1 to 65536
$Q pack --io block --io direct in x -> 64 ! --io
$Q pack --page-size 4X in x -> 64 ! "4X" is not a size
$Q pack --page-size 2G in x -> 64 ! 1 GiB
$Q pack --page-size 99999999999999999999 in x -> 64 ! is not a size
$Q pack --page-size 9007199254740993K in x -> 64 ! is not a size
$Q pack --page-size=-4096 in x -> 64 ! is not a size
$Q pack --page-size 511 in x -> 64 ! 512 bytes
$Q pack --header-size 63 in x -> 64 ! no room
$Q pack --io fast in x -> 64 ! auto, buffered, direct, block
$Q cat good --pages 5-3 -> 64 ! "5-3" is not a page or a range
$Q cat good --pages 0-3 -> 64 ! is not a page or a range
$Q cat good --pages - -> 64 ! is not a page or a range
$Q info good --module ./no.so -> 66 ! cannot load the module
$Q info good --module ./good -> 66 ! try:    name libqziop.so with --module
for s in 4096 4K 4k 4KiB 4096B; do $Q pack -f --page-size $s in x || exit; done | uniq -c
  -> 0 5 x: 11 pages of 4096 bytes, 43008 bytes of payload,
  I/O buffered (asked: auto; the file is smaller than one block)
$Q pack --page-size 1MB in x -> 0 1 page of 1000000
$Q pack --page-size 600 in x
  -> 0 I/O buffered (asked: auto; direct I/O needs page and header sizes that are multiples of
)");
}

// On a terminal, which script(1) provides, there is colour, too.
TEST(Interface, ShowsProgressAndColourWhereTheyAreWanted) {
  playLines(R"(
seq 3000000 >big; $Q pack big x --progress always >/dev/null -> 0 ! 100%
seq 3000000 >big; $Q pack big x >/dev/null -> 0
seq 200000 >big; (ulimit -f 200; $Q pack -v big x) -> 74 ! error: 
TERM=xterm script -qec "$Q info no" /dev/null | tr '\033' @ | grep -c @ -> 0 1
NO_COLOR=1 script -qec "$Q info no" /dev/null | tr '\033' @ | grep -c @ -> 1 0
TERM=dumb script -qec "$Q info no" /dev/null | tr '\033' @ | grep -c @ -> 1 0
TERM=xterm $Q info no 2>&1 | tr '\033' @ | grep -c @ -> 1 0
script -qec "stty cols 30; $Q cat good --progress always >/dev/null" /dev/null | tr '\r' @
  -> 0 @cat  44.0 KiB of 44.0 KiB  10@
)");
}

TEST(Interface, HelpManPageAndCompletionAgree) {
  Shell().expectGood("S=" QZIOP_SOURCES R"(/tool; set -x
    zsh=$S/completion/_qzpfile
    tr -d '\\' <$S/man/qzpfile.1.in >man
    for command in pack unpack info cat dump put truncate header copy compare verify repair bench \
      trace rm; do
      $Q --help | grep "^  $command "
      grep -x "\.B $command" man
      grep "'$command:" $zsh
      COLUMNS=80 $Q $command --help >help
      sed -n '/^Examples:$/{n;p}' help | grep '^  # '
      sed -nE 's/^  (-., )?(--[a-z-]+).*/\2/p' help | sort -u >offered
      sed -n "s/^    $command) options=\"\(.*\)\".*/\1 --module --verbose --help/p" \
        $S/completion/qzpfile.bash |
        sed 's/\$raw/--raw --page-size --header-size/; s/\$io/--io --block-size --buffers/' |
        grep -oe '--[a-z-]*' | sort -u | diff offered -
      while read -r option; do
        grep -qe "$option" man
        grep -qe "$option" $zsh
      done <offered
      # Narrow: only names and example commands may be longer; examples can be pasted whole.
      COLUMNS=40 $Q $command --help | awk '
        !/qzpfile / && (length > 40 || (tells && !/^  # /)) { exit 1 }
        /^Examples:$/ { tells = 1 }'
      awk 'length > 80 { exit 1 }' help
    done
    $Q --version | grep '^qzpfile 3\.3\.1$')");
}

}  // namespace
}  // namespace qztest
