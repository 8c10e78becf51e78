// The interface for programs and people: JSON, usage errors, help, man page and completion.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "tool/shell.h"

namespace qztest {
namespace {

using Json = nlohmann::json;

// Programs read these documents, which must be all of standard output, with nothing on standard
// error. Each row is a command, its exit status, the schema, and some members of its document.
TEST(Interface, PrintsJson) {
  const std::string rows = R"sh(
info good
  -> OK info {"/kind": "qzpfile", "/pages": 11, "/format_version": 2, "/file_size": 53248, "/payload_size": 43008,
  "/payload_checksum": "93e2fd5e25d6d33d", "/io/obtained": "buffered"}
verify good -> OK verify {"/good": true, "/pages_read": 11, "/findings": null}
verify bad
  -> DIFFERS verify {"/good": false, "/findings/0/what": "page", "/findings/0/page": 3,
  "/findings/0/offset": 16384}
verify --map bad
  -> DIFFERS verify {"/map/0/what": "checksums", "/map/2/what": "damaged", "/map/2/first_page": 3,
  "/map/2/last_page": 3, "/map/2/offset": 16384, "/map/2/bytes": 4096, "/map/3/last_page": 11}
info --map good -> OK info {"/map/1/what": "data", "/map/1/last_page": 11}
verify bad1 -> DIFFERS verify {"/good": false, "/findings/0/what": "checksum"}
repair --dry-run bad
  -> DIFFERS repair {"/changed": false, "/steps/0/what": "damaged_page", "/steps/0/page": 3,
  "/steps/0/loses": true}
repair good -> OK repair {"/changed": false, "/good": true, "/steps": null}
verify cut
  -> DIFFERS verify {"/findings/0/what": "not_whole", "/bytes_expected": 53248,
  "/bytes_found": 53148, "/left_over_bytes": 3996}
compare good bad
  -> DIFFERS compare {"/differences/0/what": "page", "/differences/0/page": 3,
  "/differences/0/offset_a": 20000, "/differences/0/offset_b": 20000}
bench good -> OK bench {"/results/0/bytes": 45056, "/results/1/bytes": 45056}
info no
  -> NOINPUT error {"/error/file": "no", "/error/errno": 2, "/error/status": 2151663617,
  "/error/status_text": "The file or a folder on the way to it does not exist",
  "/error/hint": "check the name and the folder it is in"}
info good --frob -> USAGE error {}
info "$(printf 'a\377')" -> NOINPUT error {"/error/file": "a\ufffd", "/error/file_hex": "61ff"}
pack in p -> OK pack {"/file": "p", "/pages": 1, "/payload_size": 43008, "/io/asked": "auto"}
unpack good u -> OK unpack {"/file": "u", "/payload_checksum": "93e2fd5e25d6d33d"}
copy good c -> OK copy {"/file": "c", "/pages": 11, "/page_size": 4096}
put good 11 <in -> OK put {"/first_page": 11, "/pages_written": 11, "/pages": 21}
truncate good 3 -> OK truncate {"/pages": 3, "/pages_before": 21}
header three --set h -> OK header {"/file": "three"}
compare bad wide -> DIFFERS compare {"/differences/0/what": "payload", "/differences/0/page_a": 3,
  "/differences/0/page_b": 2}
rm p -> OK rm {"/file": "p"}
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
    std::string ended;
    std::string schema;
    Json members;
    wanted >> ended >> schema >> members;
    members["/schema"] = "qzpfile/" + schema;
    members["/schema_version"] = 1;
    const Outcome outcome = shell.run("$Q " + row.substr(0, arrow) + " --format=json");
    members["/exit_status"] = outcome.status;
    EXPECT_EQ(outcome.ended(), ended) << outcome.said();
    EXPECT_EQ(outcome.err, "");
    const Json document = Json::parse(outcome.out).flatten();
    for (const auto& [place, value] : members.items()) EXPECT_EQ(document.at(place), value);
    for (const auto& [place, value] : document.items()) {
      const bool measured = place.find("per_second") != std::string::npos;
      EXPECT_TRUE(!measured || value.get<double>() > 0) << place;
    }
  }
}

// A mistyped command line must change nothing, and the message must say what was wrong with it.
TEST(Interface, RefusesWhatItDoesNotUnderstand) {
  playLines(R"(
$Q -> USAGE ! name a command
$Q frob -> USAGE ! there is no command "frob"
$Q pack in -> USAGE ! OUTPUT is required
$Q info good one two -> USAGE ! unexpected: one two try:    qzpfile info --help
$Q info good one --force -> USAGE ! there is no option "--force" try:    --format, if that was meant
$Q pack --pagesize 4K in x
  -> USAGE ! there is no option "--pagesize" try:    --page-size, if that was meant
$Q pack -z 4K in x -> USAGE ! there is no option "-z"
$Q inof good -> USAGE ! there is no command "inof" try:    info, if that was meant
$Q pack --io= m x -> USAGE ! --io has no value after the =
$Q pack --force=no in x -> USAGE ! --force takes no value: "--force=no"
$Q pack --quiet --format json in x 2>&1 -> USAGE cannot be used together
$Q unpack --format json good - -> USAGE cannot be used when the payload
$Q header -q good -> USAGE ! --quiet need --set
cat good | $Q info - -> USAGE ! a pipe is not
$Q pack in - -> USAGE ! a pipe is not
$Q info good --buffers 2000000000 -> USAGE ! 1 to 65536
$Q pack --io block --io direct in x -> USAGE ! --io
$Q pack --page-size 4X in x -> USAGE ! "4X" is not a size
$Q pack --page-size 2G in x -> USAGE ! 1 GiB
$Q pack --page-size 99999999999999999999 in x -> USAGE ! is not a size
$Q pack --page-size 9007199254740993K in x -> USAGE ! is not a size
$Q pack --page-size=-4096 in x -> USAGE ! is not a size
$Q pack --page-size 511 in x -> USAGE ! 512 bytes
sqlite3 db 'CREATE TABLE t(x);'; $Q copy --page-size 8K db x -> USAGE ! sizes cannot be changed
$Q pack --header-size 63 in x -> USAGE ! no room
$Q pack --io fast in x -> USAGE ! auto, buffered, direct, block
$Q cat good --pages 5-3 -> USAGE ! "5-3" is not a list of pages
$Q cat good --pages 0-3 -> USAGE ! is not a list of pages
$Q cat good --pages - -> USAGE ! is not a list of pages
$Q cat good --pages 3, -> USAGE ! "3," is not a list of pages
$Q info good --module ./no.so -> NOINPUT ! cannot load the module
$Q info good --module ./good -> NOINPUT ! try:    name libqziop.so with --module
for s in 4096 4K 4k 4KiB 4096B; do $Q pack -f --page-size $s in x || exit; done | uniq -c
  -> OK 5 x: 11 pages of 4096 bytes, 43008 bytes of payload,
  I/O buffered (asked: auto; the file is smaller than one block)
$Q pack --page-size 1MB in x -> OK 1 page of 1000000
$Q pack --page-size 600 in x
  -> OK I/O buffered (asked: auto; direct I/O needs page and header sizes that are multiples of
)");
}

// Sums and products of numbers near the largest of 64 bits, and beyond, must not overflow into
// small ones. The lines print each number that was not refused as a usage error.
TEST(Interface, RefusesNumbersNearTheLargest) {
  playLines(R"(
$Q pack --page-size $n in x -> OK
$Q pack --header-size $n in x -> OK
$Q pack --block-size $n in x -> OK
$Q pack --buffers $n in x -> OK
$Q pack --format-version $n in x -> OK
$Q cat --raw --page-size $n good -> OK
$Q cat --raw --page-size 1 --header-size $n good -> OK
$Q cat --raw --page-size 1 --pages $n good -> OK
$Q cat --raw --page-size 1 --pages $n- good -> OK
$Q cat --raw --page-size 1 --pages 1-$n good -> OK
$Q cat --raw --page-size 1 --pages -$n good -> OK
$Q cat --raw --page-size 1 --pages $n-$n,1 good -> OK
$Q dump good --pages 1,$n -> OK
$Q truncate good $n -> OK
$Q truncate --raw --page-size 1 good $n -> OK
$Q put good $n -> OK
$Q put --raw --page-size 13K good $n -> OK
)",
            R"(cp good kept; for n in 9223372036854775799 9223372036854775800 9223372036854775806 \
  9223372036854775807 9223372036854775808 18446744073709551615 18446744073709551616 \
  8388607T 8388608T 99999999999999999999999; do
  { %1; } <in >y 2>z; s=$?; test $s = $USAGE || echo "$s $n"; done; cmp good kept; test ! -e x)");
}

// Progress must show only if asked for or on a terminal, and colour only on a terminal that has it
// and without NO_COLOR. script(1) provides the terminal.
TEST(Interface, ShowsProgressAndColourWhereTheyAreWanted) {
  playLines(R"(
seq 3000000 >big; $Q pack big x --progress always >/dev/null -> OK ! 100%
seq 3000000 >big; $Q pack big x >/dev/null -> OK
seq 200000 >big; (ulimit -f 200; $Q pack -v big x) -> IOERR ! error: 
TERM=xterm script -qec "$Q info no" /dev/null | tr '\033' @ | grep -c @ -> OK 1
! NO_COLOR=1 script -qec "$Q info no" /dev/null | tr '\033' @ | grep @ -> OK
! TERM=dumb script -qec "$Q info no" /dev/null | tr '\033' @ | grep @ -> OK
! TERM=xterm $Q info no 2>&1 | tr '\033' @ | grep @ -> OK
script -qec "stty cols 30; $Q pack in x --progress always" /dev/null | tr '\r' @ | tail -1
  -> OK x: 1
script -qec "stty cols 30; $Q cat good --progress always >/dev/null" /dev/null | tr '\r' @
  -> OK @cat  44.0 KiB of 44.0 KiB  10@
)");
}

// A file name must not control the terminal or forge a line. This one has a colour, a line break, a
// C1 control character, a mark that reverses the direction of writing, and a byte that is not
// UTF-8.
TEST(Interface, ShowsNamesAsText) {
  playLines(R"(
pack in "$n" -> OK a\x1b[31m\n\u0085\u202e\xffä: 1 page
info "$n" -> NOINPUT ! a\x1b[31m\n\u0085\u202e\xffä: cannot read
--"$n" -> USAGE ! "--a\x1b[31m\n\u0085\u202e\xffä"
pack -q in "$n"; QZIOP_DISPLAY_IOP_TYPE=1 $Q info "$n" >y -> OK ! [file a\x1b[31m\n\u0085\u202e\xffä] note:
pack -q in "$n"; QZIOP_DISPLAY_IOP_TYPE=1 $Q info -v "$n" >y -> OK ! [file a\x1b[31m\n\u0085\u202e\xffä] note:
pack -q in "$n"; QZIOP_TRACE=t $Q info "$n" --module "$M" >y; $Q trace t -> OK a\x1b[31m\n\u0085\u202e
)",
            "M=" QZIOP_TRACE_MODULE
            R"(; n=$(printf 'a\033[31m\n\302\205\342\200\256\377\303\244'); $Q %1)");
}

// With --quiet there must be no output but errors.
TEST(Interface, IsQuietWhenAsked) {
  playLines(R"(
for c in "pack in x" "unpack good y" "copy good z" "header good --set h" "put good 2"
  "truncate good 2" "verify good" "compare good good" "repair good" "rm good"; do $Q $c -q <in || exit; done
  -> OK
poke Y 20000 good; $Q verify -q good -> DIFFERS
$Q info no -> NOINPUT ! No such file
)",
            "head -c 64 good >h; %1");
}

// Users do not find a command or option that the man page or a completion lacks.
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
    $Q --version | grep -Fx 'qzpfile )" QZIOP_VERSION "'");
}

}  // namespace
}  // namespace qztest
