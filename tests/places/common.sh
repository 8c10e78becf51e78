# Functions for the checks of all places, which are file systems and devices of many kinds. Sourced by
# scripts/places.
#
# $place: its name; $W: the temporary folder, a tmpfs; $Q: the tool; $S: qzpshapes.

Q=$QZIOP_BUILD/qzpfile
S=$QZIOP_BUILD/qzpshapes

pass() { printf 'ok    %-20s %s\n' "$place:" "$*"; }
fail() { printf 'FAIL  %-20s %s\n' "$place:" "$*"; }
# Ends the checks of a place that cannot be made on this machine.
skip() {
  printf 'skip  %-20s %s\n' "$place:" "$*"
  exit 0
}

in_one_line() { tr '\n' ' ' | tr -s ' '; }

# good TEXT COMMAND...: must succeed.
good() {
  local text=$1 said
  shift
  if said=$("$@" 2>&1); then pass "$text"; else fail "$text: exit status $?: $(in_one_line <<<"$said")"; fi
}

# The names of exit statuses: those of sysexits.h without EX_, and FAILURE for any but 0.
declare -A exit_statuses=([OK]=0 [USAGE]=64 [CANTCREAT]=73 [IOERR]=74)
# ends TEXT STATUS WORDS COMMAND...: must end with the exit status of this name and print these words.
ends() {
  local text=$1 wanted=$2 words=$3 said status
  shift 3
  said=$("$@" 2>&1) && status=0 || status=$?
  judge "$text" "$wanted" "$words" $status "$said"
}
judge() {
  local said
  said=$(in_one_line <<<"$5")
  if [ "$2" = FAILURE ] && [ "$4" -ne 0 ] && [ -n "$said" ]; then
    pass "$1: exit status $4: $(sed "s,$W/,,g" <<<"$said" | cut -c1-150)"
  elif [ "$2" != FAILURE ] && [ "$4" -eq "${exit_statuses[$2]}" ] && [[ $said == *"$3"* ]]; then
    pass "$1: \"$3\""
  else
    fail "$1: exit status $4, not $2 with \"$3\": $said"
  fi
}

# Makes the payloads: in, of most files, two blocks of 4 MiB and some pages; pages, three pages for
# `put`; put, the payload in with these as its pages 3 to 5; want, the payload in after `change`.
make_payloads() {
  seq 5000000 | head -c 9000000 >"$W/in"
  head -c 12288 /dev/urandom >"$W/pages"
  cp "$W/in" "$W/want"
  dd if="$W/pages" of="$W/want" bs=4096 seek=2 conv=notrunc status=none
  cp "$W/want" "$W/put"
  truncate -s 8192000 "$W/want" # 2000 pages
}

# change FILE MODE: puts three pages in the middle and three at the end, truncates to 2000 pages.
change() {
  $Q put --io "$2" "$1" 3 <"$W/pages" && $Q put --io "$2" "$1" --append <"$W/pages" &&
    $Q truncate --io "$2" "$1" 2000
}

holds() { $Q unpack "$1" - | cmp -s - "$W/$2"; } # holds FILE PAYLOAD

# use_tool FOLDER MODE: runs the commands that move pages and compares with plain copies of the same
# bytes. Prints the mode obtained.
use_tool() (
  set -e
  local folder=$1 mode=$2 file=$1/tool-$2 said
  said=$($Q pack -f --io "$mode" --page-size 4K "$W/in" "$file")
  $Q verify "$file" >/dev/null
  $Q unpack --io "$mode" "$file" - | cmp - "$W/in"
  change "$file" "$mode" >/dev/null
  $Q verify "$file" >/dev/null
  $Q unpack --io "$mode" "$file" - | cmp - "$W/want"
  $Q copy -f --io "$mode" "$file" "$file-copy" >/dev/null
  $Q compare "$file" "$file-copy" >/dev/null
  $Q unpack "$file-copy" - | cmp - "$W/want"
  rm "$file-copy"
  sed 's/.*I\/O //' <<<"$said"
)

# works FOLDER BUFFERED DIRECT BLOCK: tool and module must work in all three modes; the words are the
# modes that must be obtained where these three are asked for.
works() {
  local folder=$1 mode obtained wanted shape
  shift
  for mode in buffered direct block; do
    wanted=$1
    shift
    if ! obtained=$(use_tool "$folder" $mode 2>&1); then
      fail "tool, $mode: $(in_one_line <<<"$obtained")"
    elif [ "${obtained%% *}" != "$wanted" ]; then
      fail "tool, $mode: obtained $obtained, not $wanted"
    else
      pass "tool, $mode: all commands; I/O $obtained"
    fi
    if ! shape=$($S change "$folder/shapes-$mode" $mode 4096 2>&1); then
      fail "module, $mode: $(in_one_line <<<"$shape")"
    else
      pass "module, $mode: all calls; obtained $shape"
    fi
  done
}

# honest TEXT FILE PAYLOAD...: after its place failed during a change a file must either fail `verify`
# or hold one of these payloads.
honest() {
  local text=$1 file=$2 said payload
  shift 2
  if ! said=$($Q verify "$file" 2>&1); then
    pass "$text: verify says: $(in_one_line <<<"$said" | sed "s,$file,FILE,g" | cut -c1-150)"
    return
  fi
  for payload in "$@"; do
    if holds "$file" "$payload"; then
      case $payload in
        in) pass "$text: good, with the old contents" ;;
        *) pass "$text: good, with the new contents" ;;
      esac
      return
    fi
  done
  fail "$text: verify calls it good, and it has neither the old nor the new contents"
}

# nothing_left FOLDER TARGET: no temporary file may be left in the folder, nor the file TARGET.
nothing_left() {
  local left
  left=$(ls -A "$1" | grep -E "^\.qzpfile-|^$2\$" || true)
  if [ -z "$left" ]; then pass "no unfinished file is left"; else fail "left behind: $left"; fi
}

# begin_put FILE MODE: starts a put that opens and locks the file and waits for more pages.
begin_put() {
  mkfifo "$W/fifo"
  $Q put --io "${2:-buffered}" "$1" 3 <"$W/fifo" >"$W/put.said" 2>&1 &
  put=$!
  exec 7>"$W/fifo"
  rm "$W/fifo"
  head -c 4096 "$W/pages" >&7
  sleep 0.3
}
# end_put TEXT STATUS WORDS: feeds the rest of the pages; the put must end as with `ends`.
end_put() {
  local status
  tail -c +4097 "$W/pages" >&7 2>/dev/null
  exec 7>&-
  wait $put && status=0 || status=$?
  judge "$1" "$2" "$3" $status "$(cat "$W/put.said")"
}

# make_fs TYPE SIZE "MKFS OPTIONS" "MOUNT OPTIONS" [SECTOR]: mounts a new file system at $W/fs, on a
# loop device over a file.
make_fs() {
  command -v "mkfs.$1" >/dev/null || skip "no mkfs.$1 here"
  grep -qw "$1" /proc/filesystems || skip "this kernel has no $1"
  local device
  mkdir -p "$W/fs"
  rm -f "$W/image"
  truncate -s "$2" "$W/image"
  # shellcheck disable=SC2086
  mkfs."$1" -q $3 "$W/image" >/dev/null || skip "mkfs.$1 $3 failed"
  device=$(losetup -f --show -b "${5:-512}" "$W/image") ||
    skip "no loop device with sectors of ${5:-512} bytes"
  loop=${device#/dev/}
  mount -o "${4:-rw}" "$device" "$W/fs" || { losetup -d "$device" && skip "cannot mount $1 with $4"; }
  losetup -d "$device" # with the mount
}

# inside PLACE FOLDER: runs the checks of a place as the first process of a namespace. A file system
# that is not unmounted before the namespace ends would keep its loop device in use.
inside() {
  place=$1 W=$2
  local status
  mount -t tmpfs -o size=4g none "$W" || exit 1
  ip link set lo up 2>/dev/null
  trap 'status=1' TERM
  (
    trap - TERM
    make_payloads
    "place_${place//-/_}"
  ) &
  wait $! # ended by a signal as well
  status=$?
  kill -KILL -1 2>/dev/null # all others in the namespace
  for ((i = 0; i < 50; i++)); do
    umount -R "$W" 2>/dev/null && break
    sleep 0.1
  done
  return $status
}
