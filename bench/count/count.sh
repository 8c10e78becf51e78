#!/usr/bin/env bash
# Counts the instructions of the module's inner paths, without the kernel's. Prints one line for
# each path: its name and the mean number of instructions per run.
#   count.sh callgrind BUILD    with valgrind's callgrind
#   count.sh time BUILD         nanoseconds instead, if the kernel runs the program
#   count.sh own BUILD          what a read and a return take beside bare reads, with the system
#                               call and without it
#   count.sh QEMU BUILD         with qemu (qemu-i386, qemu-x86_64), which logs every instruction
set -euo pipefail

way=$1
program=$2/qzpcount
folder=$(mktemp -d /dev/shm/qzpcount.XXXXXX)
trap 'rm -rf "$folder"' EXIT

if [ "$way" = callgrind ]; then
  valgrind -q --tool=callgrind --callgrind-out-file="$folder/out" \
    "$program" "$folder" >"$folder/said"
  callgrind_annotate --inclusive=yes --threshold=100 "$folder/out" |
    sed -nE 's/^ *([0-9,]+) .*:count_([a-z_]+) .*/\2 \1/p' | tr -d , >"$folder/cost"
  awk 'FNR == NR { cost[$1] = $2; next }
       $1 == "runs" && $2 != "nothing" { printf "%s %.1f\n", $2, cost[$2] / $3 }' "$folder/cost" "$folder/said"
  exit
fi

if [ "$way" = time ]; then
  "$program" "$folder" time | sed -n 's/^took //p'
  exit
fi

if [ "$way" = own ]; then
  echo "                          pread     qziop      more   ns a page, in order"
  for preloaded in "" "$(realpath "$2")/libqzpnoread.so"; do
    LD_PRELOAD=$preloaded "$program" "$folder" own |
      awk -v row="${preloaded:+without the system call}" '$1 == "own" {
        printf "%-23s %7.1f   %7.1f   %7.1f\n", row == "" ? "with the system call" : row, $3, $5, $7
      }'
  done
  exit
fi

mkfifo "$folder/trace"
"$way" -singlestep -d exec,nochain -D "$folder/trace" "$program" "$folder" >"$folder/said" &
traced=$!
# One line per instruction, "Trace 0: HOST [FLAGS/PLACE/...". A path's instructions are those from
# its first one to the next mark. The empty path shows what lies between the two besides the path.
awk -F '[][/ ]+' -v said="$folder/said" '
  function learn(  line, word) {
    while ((getline line < said) > 0) {
      split(line, word, " ")
      if (word[1] == "mark") mark = substr(word[2], 3)
      if (word[1] == "place") { name[substr(word[3], 3)] = word[2]; ++known }
    }
    close(said)
  }
  !/^Trace/ { next }
  known < 7 && NR % 4096 == 0 { learn() }
  {
    place = $5
    sub(/^0+/, "", place)
    if (place == mark) path = ""
    if (place in name) { path = name[place]; ++runs[path] }
    if (path != "") ++count[path]
  }
  END {
    beside = count["nothing"] / runs["nothing"] - 1
    for (path in runs) if (path != "nothing") printf "%s %.1f\n", path, count[path] / runs[path] - beside
  }
' "$folder/trace"
wait "$traced"
