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
info "$(printf 'a\377')" -> 66 error {"/error/file": "a\ufffd", "/error/file_hex": "61ff"}
pack in p -> 0 pack {"/file": "p", "/pages": 1, "/payload_size": 43008, "/io/asked": "auto"}
unpack good u -> 0 unpack {"/file": "u", "/payload_checksum": "93e2fd5e25d6d33d"}
copy good c -> 0 copy {"/file": "c", "/pages": 11, "/page_size": 4096}
put good 11 <in -> 0 put {"/first_page": 11, "/pages_written": 11, "/pages": 21}
truncate good 3 -> 0 truncate {"/pages": 3, "/pages_before": 21}
header three --set h -> 0 header {"/file": "three"}
compare bad wide -> 1 compare {"/differences/0/what": "payload", "/differences/0/page_a": 3,
  "/differences/0/page_b": 2}
rm p -> 0 rm {"/file": "p"}
)sh";
  const Shell shell;
  shell.expectGood(
      "cp good bad; poke Y 20000 bad; cp good1 bad1; poke Y 20000 bad1; cp good cut; truncate -s "
      "-100 cut; cp good three; $Q truncate three 3; $Q header three | head -c 64 >h; $Q pack "
      "--page-size 8K in wide");
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
$Q info good one two -> 64 ! not expected: one two try:    qzpfile info --help
$Q info good one --force -> 64 ! there is no option "--force" try:    --format, if that was meant
$Q pack --pagesize 4K in x
  -> 64 ! there is no option "--pagesize" try:    --page-size, if that was meant
$Q pack -z 4K in x -> 64 ! there is no option "-z"
$Q inof good -> 64 ! there is no command "inof" try:    info, if that was meant
$Q pack --io= m x -> 64 ! --io has no value behind the =
$Q pack --force=no in x -> 64 ! --force takes no value: "--force=no"
$Q pack --quiet --format json in x 2>&1 -> 64 exclude each other
$Q unpack --format json good - -> 64 beside the payload
$Q header -q good -> 64 ! about the report of --set
cat good | $Q info - -> 64 ! a pipe is not
$Q pack in - -> 64 ! a pipe is not
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
$Q cat good --pages 5-3 -> 64 ! "5-3" is not a list of pages
$Q cat good --pages 0-3 -> 64 ! is not a list of pages
$Q cat good --pages - -> 64 ! is not a list of pages
$Q cat good --pages 3, -> 64 ! "3," is not a list of pages
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
script -qec "stty cols 30; $Q pack in x --progress always" /dev/null | tr '\r' @ | tail -1 -> 0 x: 1
script -qec "stty cols 30; $Q cat good --progress always >/dev/null" /dev/null | tr '\r' @
  -> 0 @cat  44.0 KiB of 44.0 KiB  10@
)");
}

// Names reach the terminal as text, whatever is in them: here a colour, a line break, a C1 control
// character, a mark that turns the direction of writing, and a byte that is not UTF-8.
TEST(Interface, ShowsNamesAsText) {
  playLines(R"(
pack in "$n" -> 0 a\x1b[31m\n\u0085\u202e\xffä: 1 page
info "$n" -> 66 ! a\x1b[31m\n\u0085\u202e\xffä: cannot read
--"$n" -> 64 ! "--a\x1b[31m\n\u0085\u202e\xffä"
)",
            R"(n=$(printf 'a\033[31m\n\302\205\342\200\256\377\303\244'); $Q %1)");
}

TEST(Interface, IsQuietWhenAsked) {
  playLines(R"(
for c in "pack in x" "unpack good y" "copy good z" "header good --set h" "put good 2"
  "truncate good 2" "verify good" "compare good good" "repair good" "rm good"; do $Q $c -q <in || exit; done
  -> 0
poke Y 20000 good; $Q verify -q good -> 1
$Q info no -> 66 ! No such file
)",
            "head -c 64 good >h; %1");
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
        sed 's/\$raw/--raw --page-size --header-size/; s/\$io/--io --block-size --buffers/
               s/\$result/--format --quiet/' |
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
    $Q put --help >help; $Q help put | diff help -
    $Q -V >short; $Q --version | diff short -
    $Q --version | grep '^qzpfile 3\.3\.1$')");
}

}  // namespace
}  // namespace qztest
